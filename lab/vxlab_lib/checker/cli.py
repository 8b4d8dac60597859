"""The command line of vx-check."""

import argparse
import json
import sys

from .. import errors, version
from . import report
from .evidence import CouldNotRun
from .judge import check

DESCRIPTION = """\
Checks the evidence of an episode (or the run directory of a laboratory) against everything that the cluster promises:
journals, traces, logs, files and datagrams."""

EPILOG = """\
exit codes: 0 everything that could be promised held, 1 something was violated, 2 wrong usage,
3 the evidence allows no judgement"""


def main(arguments):
    parser = argparse.ArgumentParser(prog="vx-check", description=DESCRIPTION, epilog=EPILOG,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("directory", metavar="DIR", help="directory with run.json (or lab.json) and node1/ ...")
    parser.add_argument("--json", action="store_true", help="print everything as one JSON object")
    parser.add_argument("--version", action="version", version=version.text("vx-check"))
    options = parser.parse_args(arguments)
    try:
        result = check(options.directory.rstrip("/") or "/")
    except errors.LabError as error:
        if options.json:
            print(json.dumps({"directory": options.directory, "verdict": "could not run", "why": str(error)}))
        print(f"vx-check: {error}", file=sys.stderr)
        return error.exit_code if isinstance(error, CouldNotRun) else CouldNotRun.exit_code
    if options.json:
        print(json.dumps(result.as_dict(), indent=1))
    else:
        print("\n".join(report.lines(result)))
    return {"held": errors.EXIT_OK, "violated": errors.EXIT_FAILED}.get(result.verdict, CouldNotRun.exit_code)

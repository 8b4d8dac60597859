"""The command line of vxlab."""

import argparse
import difflib
import os
import re
import signal
import sys

from . import errors, version
from .commands import COMMANDS

DESCRIPTION = """\
A whole cluster on this machine: each node is a kesh process with its own /flashdisk, /run and message queues, all in
a network of their own. Works as root, and without where user namespaces are allowed. Everything that a laboratory
writes lies in its run directory (--dir)."""

EPILOG = """\
a first walk:
  vxlab up 3                        three nodes, node 1 is MASTER
  vxlab kesh 2 submit /etc/services lines of a file, submitted at node 2
  vxlab kill 1; vxlab master 2      lose the leader, make another one
  vxlab start 1; vxlab status       take it back
  vxlab down

exit codes: 0 good, 1 a promise of the cluster does not hold, 2 wrong usage, 3 an episode of chaos could not run,
4 no laboratory is up, 5 refused or failed (the message says what to do), 130 interrupted"""


class Parser(argparse.ArgumentParser):
    """Tells which command may have been meant."""

    names = ()

    def error(self, message):
        unknown = re.match(r"argument COMMAND: invalid choice: '(.*)' \(", message)
        if unknown:
            near = difflib.get_close_matches(unknown[1], self.names, 1)
            message = f"unknown command {unknown[1]}" + (f"; did you mean {near[0]}?" if near else "")
        super().error(message)


def build_parser():
    parser = Parser(prog="vxlab", description=DESCRIPTION, epilog=EPILOG,
                    formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", action="version", version=version.text("vxlab"))
    parser.add_argument("--dir", default=os.environ.get("VXLAB_DIR", ".vxlab"), metavar="DIR",
                        help="run directory (default: ./.vxlab, or $VXLAB_DIR)")
    parser.add_argument("--bin", metavar="DIR", help="build tree with kesh and vx-node-view (default: $VXLAB_BIN, or "
                        "build/ of the source tree, or what was installed with vxlab; a laboratory remembers its own)")
    subparsers = parser.add_subparsers(metavar="COMMAND", required=True)
    for command in COMMANDS:
        command(subparsers)
    parser.names = tuple(subparsers.choices)
    return parser


def main(arguments):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(errors.EXIT_INTERRUPTED))
    options = build_parser().parse_args(arguments)
    try:
        return options.run(options) or errors.EXIT_OK
    except errors.LabError as error:
        print(f"vxlab: {error}", file=sys.stderr)
        return error.exit_code
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return errors.EXIT_FAILED
    except KeyboardInterrupt:
        print("vxlab: interrupted", file=sys.stderr)
        return errors.EXIT_INTERRUPTED

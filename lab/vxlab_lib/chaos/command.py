"""`vxlab chaos`: its command line."""

import argparse

from ..errors import UsageError
from ..progress import Progress
from ..report import needs
from .faults import FAULTS

HELP = "seeded faults on a whole cluster under load, then healing, then a judgement of every promise"
EPILOG = """\
Episodes with the seeds S, S+1, .. follow each other until the time is over; the plan of faults depends on seed, number of
nodes and fault names alone. Evidence of an episode that broke a promise is kept, with the command that
repeats it. Faults joined by + come together in one episode; of a list, each episode takes the next; "all" is each one
alone, then pairs, "none" is load alone.

exit codes: 0 every promise held, 1 one was broken, 2 wrong usage, 3 an episode could not run, 130 interrupted"""


def list_faults():
    group = None
    for name, fault in FAULTS.items():
        if fault.group != group:
            group = fault.group
            print(f"{group}:")
        print(f"  {name:<34} {fault.what}; undone: {fault.undone}")


def parse_faults(text):
    wanted = text.split(",")
    for name in (one for entry in wanted if entry not in ("all", "none") for one in entry.split("+")):
        if name not in FAULTS:
            raise UsageError(f"there is no fault {name}: `vxlab chaos --list` names them")
    if "all" in wanted and len(wanted) > 1:
        raise UsageError("all stands alone")
    return wanted


def add_command(subparsers):
    def run(options):
        from .build import Build  # imported here because no other command needs it
        from .campaign import Campaign

        if options.list:
            return list_faults()
        needs.demand(options.report)
        options.faults = parse_faults(options.faults)
        if options.replay is not None:
            options.seed, options.episodes = options.replay, 1
        return Campaign(options, Build(options.bin, options.library), Progress()).run()

    parser = subparsers.add_parser("chaos", help=HELP, description=HELP, epilog=EPILOG,
                                   formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.set_defaults(run=run)
    parser.add_argument("--seed", type=int, default=1, metavar="S", help="first seed (default 1)")
    parser.add_argument("--minutes", type=float, default=1.0, metavar="M",
                        help="begin episodes for so long (default 1)")
    parser.add_argument("--episodes", type=int, metavar="N", help="so many episodes instead, however long they take")
    parser.add_argument("--seconds", type=float, metavar="S", help="of faults in each episode (default: drawn, 15 to 40)")
    parser.add_argument("--nodes", type=int, default=3, choices=[3, 5, 16], help="nodes of the cluster (default 3)")
    parser.add_argument("--faults", default="all", metavar="LIST", help="see below (default all)")
    parser.add_argument("--replay", type=int, metavar="SEED", help="one episode, with this seed")
    parser.add_argument("--first", action="store_true", help="end with the first broken promise")
    parser.add_argument("--keep", metavar="DIR", help="keep all evidence, there (default: only of broken promises, in "
                        "chaos/ of the run directory)")
    needs.add_option(parser, "chaos.html")
    parser.add_argument("--library", metavar="FILE", help="another libvx_cons.so.1 than that of the build tree")
    parser.add_argument("--list", action="store_true", help="tell what the faults are")

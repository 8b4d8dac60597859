"""Runs all checks over one episode."""

from zlib import crc32

from ..errors import CheckFailed
from . import invariants_durable as durable
from . import invariants_life as life
from . import invariants_order as order
from . import invariants_process as process
from . import report
from .evidence import CouldNotRun
from .findings import Check, Result
from .model import Episode

INVARIANTS = [
    ("I1", "all journals agree", order.agreement),
    ("I2", "nothing is delivered twice", order.nothing_twice),
    ("I3", "what is delivered was submitted, whole", order.integrity),
    ("I4", "one node's lines stand in its order", order.own_order),
    ("I5", "acknowledged before called: before", order.real_time),
    ("I6", "what was acknowledged stays", durable.acknowledged_stays),
    ("I7", "the files never go back", durable.files),
    ("I8", "one number, one log", durable.one_decision),
    ("I9", "all is equal after the faults", life.healing),
    ("I10", "calls, stop and cleanup return", life.liveness),
    ("I11", "silence after stop", life.silence),
    ("I12", "the log has no line of despair", life.log_lines),
    ("I13", "nothing grows, nothing spins", process.bounded),
    ("P", "no process ends by itself", process.processes),
]
# For each of these something must be examined, or the evidence proves nothing. I13 needs long lives or nodes that are
# alone.
NEEDED_OF_JOURNALS = ("I1", "I3", "I6")
NEEDED = tuple(name for name, *_ in INVARIANTS if name != "I13")


def check(directory, acknowledged=None):
    """Returns the Result. Raises CouldNotRun if the evidence cannot be read. `acknowledged`: see Episode."""
    return judge(read(directory, acknowledged))


def read(directory, acknowledged=None):
    """Returns the Episode, for `judge`. Raises CouldNotRun."""
    try:
        return Episode(directory, acknowledged)
    except (KeyError, TypeError, ValueError) as error:
        raise CouldNotRun(f"{directory}: the evidence has not the shape it should have: {error!r}") from error


def check_journals(journals, acknowledged=None):
    """Checks the journals of a cluster at rest and nothing else. Raises CheckFailed if they do not agree, do not end
    alike, or lack a line of `acknowledged` (tag -> text)."""
    result = judge(Episode.of_journals(journals, {tag: crc32(text) for tag, text in (acknowledged or {}).items()}))
    if result.first:
        raise CheckFailed(report.verdict(result))


def judge(episode):
    checks = []
    for invariant, title, function in INVARIANTS:
        one = Check(invariant, title)
        function(episode, one)
        checks.append(one)
    return Result(episode.directory, episode.seed, episode.started, checks,
                  NEEDED if episode.has_traces else NEEDED_OF_JOURNALS)

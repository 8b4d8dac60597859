"""An episode over time, as plain data. Times are seconds since its beginning."""

from dataclasses import dataclass, field


@dataclass
class Span:
    kind: str  # of a lane: up, stopped, down, isolated, frozen, alone, part or master; of a fault: fault
    start: float
    end: float
    text: str = ""


@dataclass
class Mark:
    kind: str  # roll-over or isolation
    t: float


@dataclass
class Lane:
    """One node."""

    node: int
    spans: list = field(default_factory=list)
    marks: list = field(default_factory=list)

    def of(self, kind):
        return [span for span in self.spans if span.kind == kind]

    def marks_of(self, kind):
        return [mark.t for mark in self.marks if mark.kind == kind]


@dataclass
class FaultRow:
    name: str
    spans: list


@dataclass
class Submission:
    t: float  # of its end
    ms: float
    node: int
    outcome: str  # acknowledged, failed or open


@dataclass
class Violation:
    number: int  # counted from 1, as in the table of violations
    t: float
    node: int | None
    text: str


@dataclass
class Timeline:
    end: float
    lanes: list
    faults: list = field(default_factory=list)
    faults_title: str = "Faults"
    decisions: dict = field(default_factory=dict)  # node -> [(t, decision number)]
    memory: dict = field(default_factory=dict)  # node -> [(t, MiB)]
    submissions: int = 0
    usual_ms: float | None = None  # the median of what was acknowledged
    slow: list = field(default_factory=list)  # the slowest, and those that failed
    faults_end: float | None = None
    violations: list = field(default_factory=list)

    @property
    def roll_overs(self):
        return max((len(lane.marks_of("roll-over")) for lane in self.lanes), default=0)


def thin(points, most):
    """Returns at most `most` of the points, evenly chosen, with the first and the last."""
    if len(points) <= most:
        return list(points)
    step = (len(points) - 1) / (most - 1)
    return [points[round(index * step)] for index in range(most)]


def steps_only(points, most):
    """Returns the points at which the value differs from the one before or after, thinned out."""
    kept = [point for index, point in enumerate(points)
            if index in (0, len(points) - 1) or points[index - 1][1] != point[1] or points[index + 1][1] != point[1]]
    return thin(kept, most)


def runs(changes, end):
    """Returns (start, end, value) for each value but None. `changes`: (t, value from then on), in order of t."""
    found = []
    for (t, value), (until, _) in zip(changes, [*changes[1:], (end, None)]):
        if value is None or until <= t:
            continue
        if found and found[-1][1] == t and found[-1][2] == value:
            found[-1] = (found[-1][0], until, value)
        else:
            found.append((t, until, value))
    return found


def slowest(submissions, most):
    """Returns the slowest acknowledged submissions, and as many of those that were not, in order of their time."""
    found = []
    for outcomes in (("acknowledged",), ("failed", "open")):
        some = [one for one in submissions if one.outcome in outcomes]
        found += sorted(some, key=lambda one: -one.ms)[:most]
    return sorted(found, key=lambda one: one.t)

"""What a check examined and what it found."""

from collections import Counter
from dataclasses import asdict, dataclass, field


@dataclass(frozen=True)
class Finding:
    invariant: str
    text: str
    t: int | None = None  # CLOCK_MONOTONIC, ns
    node: int | None = None
    tag: str | None = None  # the entry: origin.life.sequence
    line: int | None = None  # its number in the journal
    batch: int | None = None  # decision number, or the next one that was seen
    excuse: str | None = None  # None: a violation
    proof: str | None = None


@dataclass
class Check:
    """One invariant over one episode."""

    invariant: str
    title: str
    examined: Counter = field(default_factory=Counter)
    violations: list = field(default_factory=list)
    excused: list = field(default_factory=list)
    notes: list = field(default_factory=list)  # what could not be examined, and why

    def saw(self, what, count=1):
        self.examined[what] += count

    def violated(self, text, **where):
        self.violations.append(Finding(self.invariant, text, **where))

    def excuse(self, excuse, proof, text, **where):
        self.excused.append(Finding(self.invariant, text, excuse=excuse, proof=proof, **where))

    def note(self, text):
        if text not in self.notes:
            self.notes.append(text)

    @property
    def saw_nothing(self):
        return not sum(self.examined.values())

    @property
    def verdict(self):
        if self.violations:
            return "violated"
        if self.saw_nothing:
            return "nothing examined"
        return "excused" if self.excused else "held"


@dataclass
class Result:
    directory: str
    seed: object
    started: int  # ns; reported times are relative to it
    checks: list
    needed: tuple = ()  # invariants that must be examined, or the episode proves nothing

    @property
    def violations(self):
        found = [finding for check in self.checks for finding in check.violations]
        return sorted(found, key=lambda finding: (finding.t is None, finding.t or 0))

    @property
    def first(self):
        """The earliest violation, or None."""
        return next(iter(self.violations), None)

    @property
    def unexamined(self):
        """The needed invariants for which nothing was examined."""
        return [check.invariant for check in self.checks
                if check.invariant in self.needed and check.verdict == "nothing examined"]

    @property
    def verdict(self):
        if self.violations:
            return "violated"
        return "could not run" if self.unexamined else "held"

    def check(self, invariant):
        return next(check for check in self.checks if check.invariant == invariant)

    def seconds(self, t):
        return None if t is None else (t - self.started) / 1e9

    def as_dict(self):
        def told(finding):
            return {**asdict(finding), "after_s": self.seconds(finding.t)}

        return {
            "directory": self.directory, "seed": self.seed, "verdict": self.verdict,
            "first": told(self.first) if self.first else None, "unexamined": self.unexamined,
            "invariants": [
                {"invariant": check.invariant, "title": check.title, "verdict": check.verdict,
                 "examined": dict(check.examined), "notes": check.notes,
                 "violations": [told(finding) for finding in check.violations],
                 "excused": [told(finding) for finding in check.excused]}
                for check in self.checks
            ],
        }

"""The page of a campaign: what held, episode by episode, and what happened in each."""

from collections import Counter
from dataclasses import dataclass, field

from ..checker import place
from .around import SECOND, Surroundings
from .observed import VIOLATIONS_MAX, observe
from .page import Table, render
from .timeline_plot import draw

AROUND_MAX = 5  # violations whose surroundings are shown
FAULT_LINES_MAX = 200
COLUMNS = ["seed", "verdict", "faults", "s", "submissions", "acknowledged", "new logs", "leader moves", "faults made"]
FIGURES = ["submissions", "acknowledged", "roll_overs", "moved", "faults"]


@dataclass
class Entry:
    """One episode of the page."""

    key: str
    seed: int
    faults: str
    verdict: str
    reason: str
    again: str  # the command that repeats it
    figures: list  # the cells of COLUMNS behind the faults
    svg: str = ""
    violations: Table | None = None
    around: list = field(default_factory=list)  # Tables of lines, one per violation
    parts: list = field(default_factory=list)  # further Tables
    checks: list = field(default_factory=list)


def not_run(plan, reason, again):
    return Entry(f"e{plan.seed}", plan.seed, name_of(plan), "could not run", reason, again, [""] * (len(FIGURES) + 1))


def name_of(plan):
    return " + ".join(plan.faults) or "none"


def make_entry(plan, outcome, again):
    """Reads what is needed from the evidence, which may go afterwards. `outcome`: a chaos.episode.Outcome."""
    key = f"e{plan.seed}"
    seen, result = outcome.seen, outcome.result
    timeline = observe(seen, result)
    entry = Entry(key, plan.seed, name_of(plan), outcome.verdict, outcome.reason, again,
                  [f"{outcome.seconds:.0f}"] + [outcome.figures.get(name, "") for name in FIGURES], checks=result.checks)
    entry.svg = draw(timeline, f"{key}-", f"Seed {plan.seed}: what happened on each node, over time")
    entry.parts = [fault_table(timeline), check_table(result)]
    if result.violations:
        entry.violations = violation_table(result)
        surroundings = Surroundings(seen)
        timed = [(number, finding) for number, finding in enumerate(result.violations, 1) if finding.t is not None]
        entry.around = [around_table(number, surroundings.at(finding.t), finding.t, seen.started)
                        for number, finding in timed[:AROUND_MAX]]
    return entry


def fault_table(timeline):
    lines = sorted(((span.start, row.name, span) for row in timeline.faults for span in row.spans),
                   key=lambda line: line[:2])
    rows = [[f"{start:.2f}", f"{span.end:.2f}", name, span.text] for start, name, span in lines[:FAULT_LINES_MAX]]
    left_out = f", the first {FAULT_LINES_MAX}" if len(lines) > FAULT_LINES_MAX else ""
    return Table(["from (s)", "to (s)", "fault", "what was done"], rows, f"{len(lines)} times that faults were in force{left_out}")


def check_table(result):
    rows = []
    for check in result.checks:
        excuses = Counter(finding.excuse for finding in check.excused)
        rows.append([check.invariant, check.title, check.verdict, examined(check.examined),
                     "; ".join([*check.notes, *(f"excused {count} x {name}" for name, count in excuses.items())])])
    return Table(["promise", "", "verdict", "examined", "notes"], rows, "What was examined")


def examined(counts):
    return ", ".join(f"{count} {what}" for what, count in counts.items() if count)


def violation_table(result):
    shown = result.violations[:VIOLATIONS_MAX]
    rows = [[number, finding.invariant, place(result, finding) or "at no known time", finding.text]
            for number, finding in enumerate(shown, 1)]
    more = f", {len(shown)} of {len(result.violations)}" if len(shown) < len(result.violations) else ""
    return Table(["number", "promise", "where", "what is broken"], rows, f"Broken promises{more}; the numbers stand in the plot")


def around_table(number, lines, t, started):
    rows = [[f"{(line.t - t) / SECOND:+.6f}", line.source, line.text] for line in lines]
    return Table(["s from it", "from", "line"], rows,
                 f"Around violation {number}, at {(t - started) / SECOND:.3f} s: logs, messages, hooks, faults")


def invariant_table(entries):
    """What each promise saw, over all episodes."""
    titles, seen, verdicts, excused = {}, {}, {}, {}
    for check in (check for entry in entries for check in entry.checks):
        titles[check.invariant] = check.title
        seen.setdefault(check.invariant, Counter()).update(check.examined)
        verdicts.setdefault(check.invariant, Counter())[check.verdict] += 1
        excused.setdefault(check.invariant, Counter()).update(finding.excuse for finding in check.excused)
    rows = [[name, title, *(verdicts[name][verdict] for verdict in ("held", "excused", "nothing examined", "violated")),
             examined(seen[name]), "; ".join(f"{count} x {excuse}" for excuse, count in excused[name].items())]
            for name, title in titles.items()]
    return Table(["promise", "", "held", "with an excuse", "nothing examined", "violated", "examined", "excuses"], rows,
                 "Episodes by verdict, and what was examined in all of them")


def lead_of(entries):
    counts = Counter(entry.verdict for entry in entries)
    if not entries:
        return "No episode ended."
    if counts["held"] == len(entries):
        return f"Every promise held in each of {len(entries)} episodes." if len(entries) > 1 else "Every promise held."
    return f"Of {len(entries)} episode{'s' * (len(entries) != 1)} " + ", ".join(f"{count} {verdict}" for verdict, count in counts.items()) + "."


def chaos_page(entries, totals, machine):
    """Returns the page. `totals` and `machine` are Tables."""
    return render("chaos.html", title="Faults on a cluster", lead=lead_of(entries), columns=COLUMNS, entries=entries,
                  is_bad=any(entry.verdict != "held" for entry in entries), totals=totals,
                  invariants=invariant_table(entries), machine=machine)

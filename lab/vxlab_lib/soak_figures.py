"""The figures of a soak: of every node, phase by phase; whether they grow; a table of them."""

import csv
import os
import time
from dataclasses import dataclass, field
from statistics import median

from .chaos.decisions import read_decided

LINES_KEPT = 200  # on disk: few, so that old ones are removed all the time
STATE_MAX = 1 << 20  # bytes of a snapshot: few, so that it has to stay flat
LIMITS = {"rss_kb": 1024, "fds": 1, "threads": 1, "files": 2, "stale": 0, "unnamed": 3}  # by how much a median may rise
TITLES = {"rss_kb": "RSS KiB", "fds": "descriptors", "threads": "threads", "files": "files in cons",
          "stale": "temporary files left", "unnamed": "payload files beyond the log"}
SAMPLES_MIN = 100  # of a phase whose memory is judged by LIMITS
# Of a shorter phase: allocators and caches still fill, and a few samples may all meet a file that is being saved.
SHORT_LIMITS = {**LIMITS, "rss_kb": 2048, "fds": 3}
STALE_S = 5.0  # a save takes less time


@dataclass
class Phase:
    name: str
    middle: tuple  # (begin, end) as shares of the samples; the medians of `middle` and `end` are compared
    end: tuple
    roll_overs_min: int = 0
    cycles: int = 0
    samples: list = field(default_factory=list)  # {"t", "given_up", "number", "cycle", node: {figure: value}}
    roll_overs: int = 0
    longest_s: dict = field(default_factory=dict)  # call -> seconds

    def is_long(self):
        return len(self.samples) >= SAMPLES_MIN and self.roll_overs >= self.roll_overs_min

    def window(self, share, pick):
        """Returns the median over a part of the phase."""
        count = len(self.samples)
        begin = min(int(share[0] * count), count - 1)
        return median(pick(sample) for sample in self.samples[begin:max(begin + 1, int(share[1] * count))])

    def rise(self, pick):
        return self.window(self.end, pick) - self.window(self.middle, pick)

    def note_time(self, what, seconds):
        self.longest_s[what] = max(self.longest_s.get(what, 0.0), seconds)

    def allowed(self, figure):
        return (LIMITS if self.is_long() else SHORT_LIMITS)[figure]

    def grown(self, node_id):
        return [figure for figure in LIMITS
                if self.rise(lambda sample: sample[node_id][figure]) > self.allowed(figure)]

    def cells(self, node_id):
        """Returns one row of the table: every figure at the start, in the middle and at the end."""
        def course(figure):
            shares = ((0, 0.1), self.middle, self.end)
            return " / ".join(f"{self.window(share, lambda one: one[node_id][figure]):.0f}" for share in shares)

        grown = self.grown(node_id)
        return [self.name, node_id, len(self.samples), self.roll_overs, course("rss_kb"),
                f"{self.rise(lambda sample: sample[node_id]['rss_kb']):+.0f}",
                *(course(figure) for figure in list(LIMITS)[1:]),
                "GROWS: " + ", ".join(TITLES[figure] for figure in grown) if grown else
                "flat" if self.is_long() else "flat, as far as so short a time tells"]

    def most_payloads(self):
        """Returns the most payload files on any node at any time."""
        return max(figures["payloads"] for sample in self.samples for node_id, figures in sample.items()
                   if isinstance(node_id, int))

    def in_words(self):
        times = ", ".join(f"{what} {seconds * 1000:.0f} ms" for what, seconds in self.longest_s.items())
        given_up = self.samples[-1]["given_up"] - self.samples[0]["given_up"]
        rises = {what: self.rise(lambda sample, key=key: sample[key])
                 for key, what in (("number", "decision"), ("cycle", "cycle"))}
        blind = " or ".join(f"{self.allowed('rss_kb') * 1024 / rise:.0f} bytes per {what}"
                            for what, rise in rises.items() if rise)
        return (f"{self.name}: {self.cycles} cycles, at most {self.most_payloads()} payload files on a node, "
                f"{given_up} attempts given up; longest: {times or '-'}; a leak "
                f"below {blind or 'any size'} would not be seen")


COLUMNS = ["phase", "node", "samples", "roll-overs", TITLES["rss_kb"], "rise",
           *(TITLES[figure] for figure in list(LIMITS)[1:]), "verdict"]


def file_figures(directory):
    """Returns the numbers of files, of stale temporary files, and of payload files (see payload_figures)."""
    names = os.listdir(directory)
    stale = 0
    for name in names:
        if name.endswith(".tmp"):
            try:
                stale += time.time() - os.stat(os.path.join(directory, name)).st_mtime > STALE_S
            except FileNotFoundError:
                pass
    payloads, unnamed = payload_figures(directory)
    return {"files": sum(not name.endswith(".tmp") for name in names), "stale": stale, "payloads": payloads,
            "unnamed": unnamed}


def payload_figures(directory):
    """Returns (payload files of the node, how many of them its log does not name). The files change meanwhile."""
    try:
        names = {name for name in os.listdir(os.path.join(directory, "payloads")) if not name.endswith(".tmp")}
    except FileNotFoundError:
        return 0, 0
    decided = read_decided(directory)
    log = {"{}.{}".format(*decided.entry(index)) for index in range(decided.count)} if decided else set()
    return len(names), len(names - log)


class Figures:
    def __init__(self, nodes):
        self._nodes = list(nodes)
        self.phases = []

    def begin(self, *arguments):
        """Begins and returns a new Phase with these arguments."""
        self.phases.append(Phase(*arguments))
        return self.phases[-1]

    def growing(self):
        """Returns a sentence for each figure that grows."""
        return [f"{phase.name}: {TITLES[figure]} of node {node_id}: growth" for phase in self.phases if phase.samples
                for node_id in self._nodes for figure in phase.grown(node_id)]

    def write_samples(self, path):
        with open(path, "w", encoding="utf-8", newline="") as file:
            rows = csv.writer(file)
            rows.writerow(["phase", "t", "given_up", "node", *LIMITS])
            for phase in self.phases:
                for sample in phase.samples:
                    for node_id in self._nodes:
                        rows.writerow([phase.name, f"{sample['t']:.2f}", sample["given_up"], node_id,
                                       *(sample[node_id][figure] for figure in LIMITS)])

    def print_table(self):
        phases = [phase for phase in self.phases if phase.samples]
        print("| " + " | ".join(COLUMNS) + " |")
        print("|" + "---|" * len(COLUMNS))
        for phase in phases:
            for node_id in self._nodes:
                print("| " + " | ".join(str(cell) for cell in phase.cells(node_id)) + " |")
        others = ", ".join(f"{TITLES[name]} {limit}" for name, limit in LIMITS.items() if name != "rss_kb")
        print(f"""
Each figure: median of the first tenth / of the second third / of the last third of the soak's samples; in a loop of
the first tenth / of the second quarter / of the last quarter. Allowed rise from the second to the last: RSS
{LIMITS['rss_kb']} KiB; {others}. In a phase of less than {SAMPLES_MIN} samples, or a soak of few roll-overs: RSS
{SHORT_LIMITS['rss_kb']} KiB, descriptors {SHORT_LIMITS['fds']}.
""")
        for phase in phases:
            print(f"- {phase.in_words()}")

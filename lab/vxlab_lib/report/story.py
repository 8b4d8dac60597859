"""What the demo did and saw, for its timeline. Times are those of time.monotonic()."""

import time
from statistics import median

from .lanes import make_lane, moved
from .timeline import FaultRow, Span, Submission, Timeline, slowest, steps_only

POINTS_MAX = 240
SLOW_MAX = 100
LOOK_S = 0.1


class Story:
    def __init__(self):
        self._started = time.monotonic()
        self._end = None
        self._lives = {}  # node -> [[begin, end or None]]
        self._masters = []
        self._positions = {}  # node -> [(t, decision, entries)]
        self._faults = {}  # name -> [start, end or None, text]
        self._looked = 0.0

    def up(self, node):
        self._lives.setdefault(node, []).append([time.monotonic(), None])

    def down(self, node):
        self._lives[node][-1][1] = time.monotonic()

    def leads(self, *nodes):
        self._masters.append((time.monotonic(), nodes))

    def begins(self, fault, text):
        self._faults[fault] = [time.monotonic(), None, text]

    def ends(self, fault, t=None):
        self._faults[fault][1] = t or time.monotonic()

    def over(self):
        self._end = time.monotonic()

    def look(self, position):
        """Notes where each node is, not more often than ten times a second. `position(node)` returns (decision, entries
        in its log)."""
        now = time.monotonic()
        if now - self._looked < LOOK_S:
            return
        self._looked = now
        for node in self._lives:
            self._positions.setdefault(node, []).append((now, *position(node)))

    def timeline(self, acknowledged):
        """`acknowledged`: (time, ms, node) of each line."""
        end = self._end

        def seconds(t):
            return (end if t is None else t) - self._started

        lines = [Submission(seconds(t), ms, node, "acknowledged") for t, ms, node in acknowledged]
        return Timeline(
            end=seconds(end),
            lanes=[moved(self._lane(node, end), self._started, 1.0) for node in sorted(self._lives)],
            faults=[FaultRow(name, [Span("fault", seconds(start), seconds(until), text)])
                    for name, (start, until, text) in self._faults.items()],
            faults_title="The fault and what followed",
            decisions={node: steps_only([(seconds(t), number) for t, number, _ in seen], POINTS_MAX)
                       for node, seen in self._positions.items()},
            submissions=len(lines),
            usual_ms=median(one.ms for one in lines) if lines else None,
            slow=slowest(lines, SLOW_MAX))

    def _lane(self, node, end):
        logs = [(t, number - entries + 1 if entries else None) for t, number, entries in self._positions.get(node, [])]
        return make_lane(node, end, lives=[(start, until or end) for start, until in self._lives[node]],
                         masters=self._masters, logs=logs)

"""Finds the lines of a log that matter for the promises, and their places among the hook calls.

The wall clock may be set, so a line's place is found by counting: each hook call has a line in the log and a line in
the trace, in the same order.
"""

import re
from bisect import bisect_right
from dataclasses import dataclass, field

WORDS = {
    "life": b"kesh: starting, build ",
    "active": b" is active\n",
    "hook": b"DELIVER calling hook",
    "deliver": b"CONS: PAXOS: DELIVER (id=",
    "lost": b"data lost - skipped (id=",
    "isolating": b"Isolating from cluster",
    "undelivered": b"paxos_deliver.tmp",  # a save of paxos_deliver failed
    "hashed": b"already hashed. This should never happen!",
    "corrupted": b"corrupted message set",
    "broadcast": b"DECIDE broadcast (batch_id=",
    "receive": b"CONS: PAXOS: RECEIVE (id=",
    "forward": b"CONS: PAXOS: FORWARD (sender=",
    "full": b"PROPOSE full state (batch_id=",
    "attempt": b"CONS: CONSENSOUS: propose ... ",
}
NUMBER = re.compile(rb"\d+")
PROCESS = re.compile(rb"process (\d+)")


def stamp_at(data, offset):
    begin = data.rfind(b"\n", 0, offset) + 1
    return data[begin:begin + 23]


@dataclass(slots=True)
class Hit:
    offset: int
    number: int = 0
    sender: int = 0
    stamp: bytes = b""


@dataclass
class Segment:
    """The part of a log that one process life wrote."""

    pid: int
    start: int
    end: int
    is_whole: bool  # False: the beginning was rotated away
    stamp: bytes  # wall clock of its first line
    hooks: list = field(default_factory=list)  # offsets of the hook calls
    entries: list = field(default_factory=list)  # (sender, id) of each hook call, as far as the log shows it

    def hooks_before(self, offset):
        return bisect_right(self.hooks, offset)


class Log:
    def __init__(self, data):
        self.size = len(data)
        self.hits = {kind: list(self._find(data, kind, word)) for kind, word in WORDS.items()}
        self.segments = self._segment(data)
        self._assign_hooks()

    @staticmethod
    def _find(data, kind, word):
        has_pair, has_number = kind in ("deliver", "lost"), kind in ("broadcast", "receive", "forward", "full")
        offset = data.find(word)
        while offset >= 0:
            after = offset + len(word)
            hit = Hit(offset)
            if has_number or has_pair:
                found = NUMBER.match(data, after)
                hit.number = int(found[0]) if found else 0
                if has_pair and found:
                    sender = NUMBER.match(data, found.end() + 1)
                    hit.sender = int(sender[0]) if sender else 0
            elif kind == "attempt":
                hit.stamp = stamp_at(data, offset)
            yield hit
            offset = data.find(word, after)

    def _segment(self, data):
        segments = []
        starts = [hit.offset for hit in self.hits["life"]]
        bounds = starts + [self.size]
        first_hook = self.hits["hook"][0].offset if self.hits["hook"] else self.size
        if first_hook < bounds[0]:
            segments.append(Segment(0, 0, bounds[0], False, b""))
        for start, end in zip(bounds, bounds[1:]):
            found = PROCESS.search(data, start, start + 200)
            segments.append(Segment(int(found[1]) if found else 0, start, end, True, stamp_at(data, start)))
        return segments

    def _assign_hooks(self):
        hooks, delivers = self.hits["hook"], self.hits["deliver"]
        next_deliver, next_hook = 0, 0
        for segment in self.segments:
            entry = None
            while next_hook < len(hooks) and hooks[next_hook].offset < segment.end:
                offset = hooks[next_hook].offset
                while next_deliver < len(delivers) and delivers[next_deliver].offset < offset:
                    entry = (delivers[next_deliver].sender, delivers[next_deliver].number)
                    next_deliver += 1
                segment.hooks.append(offset)
                segment.entries.append(entry)
                next_hook += 1

    def segment_at(self, offset):
        return next((segment for segment in self.segments if segment.start <= offset < segment.end), None)

    def match(self, trace):
        """Assigns the segments to the trace's lives. Returns life index -> Segment."""
        by_pid = {}
        for segment in self.segments:
            by_pid.setdefault(segment.pid, []).append(segment)
        matched = {}
        for life in reversed(range(len(trace.pids))):  # process ids are reused, so the last lives come first
            if by_pid.get(trace.pids[life]):
                matched[life] = by_pid[trace.pids[life]].pop()
        if self.segments and not self.segments[0].is_whole:
            first = min(matched, default=len(trace.pids))
            if first > 0:
                matched[first - 1] = self.segments[0]
        return matched

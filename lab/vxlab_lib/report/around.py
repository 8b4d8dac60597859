"""What the nodes logged and sent, and what was done to them, around a moment."""

import re
from bisect import bisect_left
from dataclasses import dataclass

SECOND = 10**9
NEAR_NS = 5 * SECOND
LINES_EACH_WAY = 6  # of each source
TEXT_MAX = 240
# DATE TIME+ZONE MONO nNODE TID level: TEXT
LINE = re.compile(rb"^\S+ \S+ (\d+)\.(\d{6}) n\d+ (?:\d+ )?(.*)$", re.MULTILINE)


@dataclass
class Line:
    t: int  # ns
    source: str
    text: str


def nearest(entries, t):
    """Returns the entries (t, text), sorted by t, that are next to the moment, on both sides."""
    at = bisect_left(entries, t, key=lambda entry: entry[0])
    near = entries[max(0, at - LINES_EACH_WAY):at + LINES_EACH_WAY]
    return [entry for entry in near if abs(entry[0] - t) <= NEAR_NS]


def log_entries(data):
    """Returns (t, text) of each line of a log. Threads write it, so it is nearly sorted only."""
    return sorted(((int(line[1]) * SECOND + int(line[2]) * 1000, line[3].decode("utf-8", "replace"))
                   for line in LINE.finditer(data)), key=lambda entry: entry[0])


def wire_entries(episode):
    """Returns (t, text) of the decisions that the network saw."""
    return [(one.t, f"node {one.node} sends decision {one.number}: {one.count} entries from {one.first[0]}/"
                    f"{one.first[1]} on, checksum {one.crc:08x}, {one.kind}") for one in episode.decides]


def event_entries(episode):
    return [(event["t"], " ".join([event["what"]] + [f"{key}={value}" for key, value in event.items()
                                                     if key not in ("t", "what")])) for event in episode.events]


def call_entries(trace):
    """Returns (t, text) of what the hooks of a node delivered, and of its life cycle."""
    found = []
    for one in trace.order:
        if hasattr(one, "kind"):
            what = f"{one.tag} {one.outcome}" if one.kind == "deliver" else f"type {one.type}"
            found.append((one.t, f"{one.kind} {what}, line {one.lines}"))
        else:
            found.append((one.t, f"{one.what} {one.value}".rstrip()))
    return found


class Surroundings:
    """Of one episode. Reads each log once, and only if it is asked for."""

    def __init__(self, episode):
        self._episode = episode
        self._sources = None

    def at(self, t):
        """Returns the Lines around the moment, in the order of their times."""
        if self._sources is None:
            self._sources = self._read()
        lines = [Line(when, name, text[:TEXT_MAX]) for name, entries in self._sources.items()
                 for when, text in nearest(entries, t)]
        return sorted(lines, key=lambda line: line.t)

    def _read(self):
        episode = self._episode
        found = {"laboratory": event_entries(episode), "network": wire_entries(episode)}
        for node in episode.nodes:
            found[f"node {node}, hooks"] = call_entries(episode.traces[node])
            if node in episode.files:
                found[f"node {node}, log"] = log_entries(episode.files[node].log())
        return found

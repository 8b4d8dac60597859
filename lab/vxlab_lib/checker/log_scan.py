"""Finds the lines of a log that matter for the promises. Each is stamped with the monotonic clock, as all evidence is."""

import re
from dataclasses import dataclass

WORDS = {
    "lost": rb"data lost - skipped \(id=",
    "isolating": rb"Isolating from cluster",
    "undelivered": rb"paxos_deliver\.tmp",  # a save of paxos_deliver failed
    "hashed": rb"already hashed\. This should never happen!",
    "corrupted": rb"corrupted message set",
    "diverged": rb"cluster: DIVERGED",
    "attempt": rb"CONS: CONSENSOUS: propose \.\.\. ",
}
# DATE TIME+ZONE MONO nNODE TID level: TEXT
LINE = re.compile(rb"^\S+ \S+ (\d+)\.(\d{6}) .*?(?:" + b"|".join(b"(?P<%s>%s)" % (kind.encode(), word)
                                                                   for kind, word in WORDS.items()) + b")", re.MULTILINE)


@dataclass(slots=True)
class Hit:
    t: int  # ns
    kind: str


class Log:
    def __init__(self, data):
        self.size = len(data)
        found = [Hit(int(line[1]) * 10**9 + int(line[2]) * 1000, line.lastgroup) for line in LINE.finditer(data)]
        self.hits = {kind: [hit for hit in found if hit.kind == kind] for kind in WORDS}

    def count(self, kind, start, end):
        """Returns how many lines of that kind were written after `start` and until `end`."""
        return sum(start < hit.t <= end for hit in self.hits[kind])

"""All states that the journals of an episode ever had, as one tree.

A state is (number of lines, hash), as the last line has them. The hash names a payload, which covers all payloads
before it, and a place in it: equal states mean equal histories. If the tree is a single chain, all nodes agreed at all
times.
"""

from dataclasses import dataclass
from zlib import crc32

HASH_START = "cbf29ce484222325"


@dataclass(slots=True)
class State:
    lines: int
    hash: str
    tag: str | None = None  # of the last line
    attempt: int = 0
    parent: tuple | None = None  # (lines, hash); None: unknown
    maker: object = None  # the first Hook on any node that applied the line
    seen: object = None  # the first Hook after which a journal had this state

    @property
    def key(self):
        return self.lines, self.hash


class History:
    def __init__(self, journals, traces):
        self.states = {(0, HASH_START): State(0, HASH_START)}
        self.finals = {}  # node -> state key at the end
        self.faults = []  # (node, line, text): faults within one journal
        self._texts = {}  # state key -> CRC-32 of its last line
        self.observations = 0
        for journal in journals.values():
            self._add_journal(journal)
        for trace in traces.values():
            self._add_trace(trace)
        self.children = {}
        for state in self.states.values():
            if state.parent is not None:
                self.children.setdefault(state.parent, []).append(state.key)
        self.by_lines = {}
        for state in self.states.values():
            self.by_lines.setdefault(state.lines, []).append(state)

    def _state(self, lines, hash_):
        state = self.states.get((lines, hash_))
        if state is None:
            state = self.states[lines, hash_] = State(lines, hash_)
        return state

    def _add_journal(self, journal):
        before = None if journal.base else (0, HASH_START)  # None: unknown, its lines are not kept
        for number, line in enumerate(journal.lines, journal.base + 1):
            state = self._state(line.number, line.hash)
            known = (line.tag, line.attempt, crc32(line.text))
            if self._texts.setdefault(state.key, known) != known:
                self.faults.append((journal.node, line, "has a hash that another line has elsewhere"))
            state.tag, state.attempt = line.tag, line.attempt
            if line.number != number:
                self.faults.append((journal.node, line, f"stands where line {number} should be"))
            elif before:
                state.parent = before
            before = state.key
            self.observations += 1
        self.finals[journal.node] = before or (journal.base, "")

    def _add_trace(self, trace):
        at = None
        for hook in trace.hooks:
            if hook.kind == "damaged":
                continue
            self.observations += 1
            state = self._state(hook.lines, hook.hash)
            if state.seen is None or hook.t < state.seen.t:
                state.seen = hook
            if hook.kind == "deliver" and hook.outcome == "applied":
                state.tag, state.attempt = hook.tag, hook.attempt
                if state.maker is None or hook.t < state.maker.t:
                    state.maker = hook
                if state.parent is None and at is not None and at[0] == hook.lines - 1:
                    state.parent = at
                elif state.parent is None and hook.lines == 1:
                    state.parent = (0, HASH_START)
            at = state.key

    def forks(self):
        """Returns lists of two or more states that follow the same state (or an unknown one), where histories part. In
        the order of their line numbers."""
        found = []
        for lines in sorted(self.by_lines):
            states = self.by_lines[lines]
            if len(states) < 2:
                continue
            groups = {}
            for state in states:
                groups.setdefault(state.parent, []).append(state)
            unknown = groups.pop(None, [])
            if unknown:  # may follow any of the others
                found.append([state for group in groups.values() for state in group] + unknown)
            else:
                found += [group for group in groups.values() if len(group) > 1]
        return found

    def chain(self, key):
        """Returns the states from the first known one up to `key`."""
        found = []
        while key is not None and key in self.states:
            state = self.states[key]
            if state.tag is not None:
                found.append(state)
            key = state.parent
        found.reverse()
        return found

    def leaves(self):
        """Returns the keys of the states that no other state follows, the longest first."""
        return sorted((key for key in self.states if key not in self.children), reverse=True)

    def main(self):
        """Returns the key of the state in which most journals ended; of several, the longest."""
        keys = list(self.finals.values()) or [max(self.states)]
        return max(keys, key=lambda key: (keys.count(key), key))

"""Writes the evidence of a small, good episode: three nodes, nine lines of all of them, two in one payload, a roll-over."""

import hashlib
import itertools
import json
import os
import sqlite3
import struct
from contextlib import closing

SECOND = 10**9
NO_LINE = "cbf29ce484222325"
CHAIN_START = hashlib.sha256().digest()
TEXT = b"text"
TABLES = """
CREATE TABLE meta (key, value);
CREATE TABLE payload (n, hash, origin, life, first_line, lines, items);
CREATE TABLE item (n, position, kind, sequence, attempt, line, is_repeat, text);
"""
LIVES = {node: f"{node:016x}" for node in (1, 2, 3)}
STATE = (1, 50)  # entry of the full state that begins the second log
HEAL_S, END_S = 60, 80
THREADS = ("propose-thread", "launch-thread", "leader-watch-thread", "pull-thread", "deliver-thread",
           "payload-file-thread")


def tag(origin, sequence):
    return f"{origin}.{LIVES[origin]}.{sequence}"


def payloads(plan):
    for _, items in itertools.groupby(plan, key=lambda item: item[3]):
        yield list(items)


def next_hash(before, items):
    origin = items[0][0]
    payload = b"KPL2" + struct.pack("<BQI", origin, int(LIVES[origin], 16), len(items))
    payload += b"".join(struct.pack("<BQII", 1, sequence, 1, len(TEXT)) + TEXT for _, sequence, *_ in items)
    return hashlib.sha256(before + payload).digest()


def write_store(path, applied, bare, text):
    with closing(sqlite3.connect(path)) as store, store:
        store.executescript("PRAGMA synchronous = OFF;" + TABLES)
        store.executemany("INSERT INTO meta VALUES (?, ?)",
                          [("base_n", 0), ("base_hash", CHAIN_START), ("base_lines", 0)])
        chain, lines = CHAIN_START, 0
        for n, items in enumerate(applied, 1):
            chain = next_hash(chain, items)
            kept = items if n > bare else []
            store.execute("INSERT INTO payload VALUES (?, ?, ?, ?, ?, ?, ?)",
                          (n, chain, items[0][0], int(LIVES[items[0][0]], 16), lines + 1, len(items), len(kept)))
            store.executemany("INSERT INTO item VALUES (?, ?, 1, ?, 1, ?, 0, ?)",
                              [(n, place, item[1], lines + 1 + place, text) for place, item in enumerate(kept)])
            lines += len(items)


class Builder:
    """Change what you like (trace, logs, events, ..) between making it and `write`."""

    def __init__(self):
        # (origin, sequence, call at s, delivered at s): the second log begins after the fourth. What is delivered at one
        # time is one payload.
        self.plan = [(1, 1, 1, 2), (2, 1, 3, 4), (3, 1, 5, 6), (1, 2, 7, 8), (2, 2, 11, 12), (3, 2, 13, 14),
                     (1, 3, 15, 16), (1, 4, 15.01, 16), (2, 3, 17, 18)]
        self.order = {}  # node -> plan of what it delivers; default: the plan
        self.trace = {node: [] for node in (1, 2, 3)}  # (s, words)
        self.log = {node: [(0, "kesh: starting, build 1, process 10")] for node in (1, 2, 3)}  # (s, line)
        self.events = [(0, "spawn", {"node": node}) for node in (1, 2, 3)]
        self.events += [(0.1, "master", {"nodes": [1]}), (HEAL_S, "heal", {}),
                        (70, "equal", {"lines": 9, "after_s": 10})]
        self.events += [(65, "fresh", {"node": node, "tag": tag(node, 2)}) for node in (1, 2, 3)]
        self.samples, self.wire = [], []
        self.decide = struct.pack("<II", 9, 5)
        self.deliver = {node: (2, 4) for node in (1, 2, 3)}
        self.options = {}
        self.payloads = {}  # node -> names of its files; default: what the log names
        self.bare = {}  # node -> payloads of which its store kept the hashes alone
        self.stored_text = {}  # node -> what its store holds instead of the text of each line

    def make(self):
        """Fills traces and logs from `order`, then samples and datagrams. Returns self."""
        self.journals = {}
        for node in (1, 2, 3):
            self._make_node(node)
        entries = [STATE] + [(items[0][0], items[0][1] + 1) for items in payloads(self.plan[4:])]
        named = [f"{sender}.{msg_id}" for sender, msg_id in entries]
        self.payloads = {node: list(named) for node in (1, 2, 3)}
        self.decide += b"".join(struct.pack("<BI", *entry) for entry in entries)
        self.decide = self.decide[:1258].ljust(1258, b"\0")
        for number in range(1, 10):
            count = number if number < 5 else number - 4
            first = (1, 2) if number < 5 else STATE
            named = f"{first[0]}.{first[1]}"
            self.wire.append([number * 2.0, 1, "decide", number, count, number, named, "once"])
            for node in (1, 2, 3):
                tasks = {name[:15]: 1 for name in THREADS}
                self.samples.append({"t": number * 2.1, "node": node, "pid": 10, "batch": number, "count": count,
                                     "crc": f"{number:08x}", "first": first, "last": first, "msg_id": number + 1,
                                     "deliver": first, "regs": [], "fds": 9, "rss_kb": 9000, "tmp": 0, "cpu_ms": number,
                                     "sizes": {"msg_id": 4, "paxos_decide": 1258, "paxos_deliver": 5}, "tasks": tasks})
        for node in (1, 2, 3):
            self.samples.append({**self.samples[-4 + node], "t": 74, "node": node, "tasks": {}})
        return self

    def _make_node(self, node):
        trace = self.trace[node]
        trace += [(0.1, "begin 10"), (0.2, "start-call"), (0.3, "start-return 0")]
        chain, key, lines = CHAIN_START, NO_LINE, 0
        self.journals[node] = list(payloads(self.order.get(node, self.plan)))
        for position, items in enumerate(self.journals[node]):
            if position == 4:
                for kind in range(4):
                    trace.append((10, f"adopt {10 * SECOND + kind} {kind} 99 {lines} {key}"))
                trace.append((10, "adopted kept 4"))
            chain = next_hash(chain, items)
            origin, _, _, at = items[0]
            if origin == node:
                trace += [(called, f"call 1 {sequence} 1 99") for _, sequence, called, _ in items]
            for place, (_, sequence, *_) in enumerate(items):
                lines, key = lines + 1, f"{chain.hex()[:12]}{place:04x}"
                trace.append((at, f"deliver {int(at * SECOND) - 1} {tag(origin, sequence)} 1 applied {lines} {key}"))
            if origin == node:
                trace += [(at + 0.1, f"return 1 {sequence} 1 0") for _, sequence, *_ in items]
        trace += [(75, "stop-call"), (75.1, "stop-return 0"), (75.2, "cleanup-call"), (75.3, "cleanup-return")]

    def insert(self, node, at_s, words):
        self.trace[node].append((at_s, words))
        self.trace[node].sort(key=lambda line: line[0])

    def replace(self, node, old, new):
        """In the trace of the node; it must be there."""
        changed = [(at, words.replace(old, new)) for at, words in self.trace[node]]
        assert changed != self.trace[node], old
        self.trace[node] = changed

    def write(self, directory):
        def put(name, content):
            os.makedirs(os.path.dirname(os.path.join(directory, name)), exist_ok=True)
            with open(os.path.join(directory, name), "wb") as file:
                file.write(content if isinstance(content, bytes) else content.encode())

        def ns(seconds):
            return int(seconds * SECOND)

        put("run.json", json.dumps({"seed": 7, "nodes": 3, "started_ns": 0, "faults_end_ns": ns(HEAL_S),
                                    "end_ns": ns(END_S), "options": self.options}))
        put("events.jsonl", "".join(json.dumps({"t": ns(at), "what": what, **more}) + "\n"
                                    for at, what, more in sorted(self.events, key=lambda event: event[0])))
        put("samples.jsonl", "".join(json.dumps({**one, "t": ns(one["t"])}) + "\n" for one in self.samples))
        put("wire.log", "".join(" ".join(map(str, [ns(one[0])] + one[1:])) + "\n" for one in self.wire))
        for node in (1, 2, 3):
            lines, life = [], LIVES[node]
            for at, words in self.trace[node]:
                if words.startswith("begin"):
                    life = LIVES[node] if not lines else f"{node + 16:016x}"
                lines.append(f"{ns(at)} {life} {words}\n")
            put(f"node{node}/trace", "".join(lines))
            put(f"node{node}/log", "".join(f"2026-01-01 00:00:00.000+0100 {at:.6f} n{node} 77 info: {line}\n"
                                           for at, line in self.log[node]))
            os.makedirs(os.path.join(directory, f"node{node}", "flashdisk"))
            if self.journals[node]:
                write_store(os.path.join(directory, f"node{node}", "flashdisk", "kesh.store"), self.journals[node],
                            self.bare.get(node, 0), self.stored_text.get(node, TEXT))
            put(f"node{node}/flashdisk/cons/paxos_decide", self.decide)
            put(f"node{node}/flashdisk/cons/paxos_deliver", struct.pack("<BI", *self.deliver[node]))
            put(f"node{node}/flashdisk/cons/msg_id", bytes(4))
            put(f"node{node}/payloads.json", json.dumps(dict.fromkeys(self.payloads.get(node, []), 99)))
        return directory

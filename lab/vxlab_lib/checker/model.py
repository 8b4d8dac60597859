"""The episode: all of the evidence, read once, in the shapes that the checks need."""

import json
import os
from bisect import bisect_left
from functools import cached_property
from zlib import crc32

from ..errors import CheckFailed
from ..journal import Journal
from .evidence import INFINITE, CouldNotRun, NodeFiles, Trace, read_bytes, read_json_lines, read_run, read_wire
from .history import History
from .log_scan import Log

ACKNOWLEDGED = "acknowledged.json"
ISOLATION_ENDS_NS = 5 * 10**9
CHAINS_MAX = 32  # if there are more histories, the first ones show enough


def write_acknowledged(directory, texts):
    """Writes the checksums of `texts` (tag -> bytes) into the evidence, for later checks."""
    with open(os.path.join(directory, ACKNOWLEDGED), "w", encoding="utf-8") as file:
        json.dump({tag: crc32(text) for tag, text in texts.items()}, file)


class Episode:
    def __init__(self, directory, acknowledged=None):
        """`acknowledged` is tag -> CRC-32 of the text, if no trace shows what was acknowledged. Without it, the file
        acknowledged.json (see write_acknowledged) is read. If it is given, the cluster is at rest: all is delivered."""
        self.directory = directory
        self.run = read_run(directory)
        self.seed = self.run.get("seed")
        count = self.run["nodes"]
        self.nodes = list(range(1, count + 1))
        files = {node: NodeFiles(directory, node) for node in self.nodes}
        self.files = files
        self.traces = {node: files[node].trace() for node in self.nodes}
        self.damaged = {}  # node -> what is wrong with its journal file
        self.journals = {node: self._journal(node) for node in self.nodes}
        self.logs = {node: Log(files[node].log()) for node in self.nodes}
        self.events = sorted(read_json_lines(os.path.join(directory, "events.jsonl")), key=lambda event: event["t"])
        self.decides, self.sends = read_wire(os.path.join(directory, "wire.log"))
        self.samples = {node: [] for node in self.nodes}
        for sample in read_json_lines(os.path.join(directory, "samples.jsonl")):
            self.samples[sample["node"]].append(sample)
        self.acknowledged = acknowledged if acknowledged is not None else self._acknowledged_file()
        self._conclude()

    @classmethod
    def of_journals(cls, journals, acknowledged):
        """Makes an episode from the journals of a cluster at rest alone."""
        self = cls.__new__(cls)
        self.directory, self.run, self.seed = "the journals", {}, None
        self.journals = {journal.node: journal for journal in journals}
        self.nodes, self.files, self.damaged = list(self.journals), {}, {}
        self.traces = {node: Trace(node) for node in self.nodes}
        self.logs = {node: Log(b"") for node in self.nodes}
        self.events, self.decides, self.sends = [], [], []
        self.samples = {node: [] for node in self.nodes}
        self.acknowledged = acknowledged
        self._conclude()
        self.is_at_rest = True
        return self

    def _conclude(self):
        self.history = History(self.journals, self.traces)
        self.has_traces = any(trace.lives for trace in self.traces.values())
        self.is_at_rest = bool(self.acknowledged) and not self.has_traces
        missing = [node for node, trace in self.traces.items() if not trace.lives]
        if self.has_traces and missing:
            raise CouldNotRun(f"{self.directory}: nodes {missing} left no trace")

    def _journal(self, node):
        try:
            return self.files[node].journal()
        except CheckFailed as error:
            self.damaged[node] = str(error)
            return Journal(node)

    def _acknowledged_file(self):
        content = read_bytes(os.path.join(self.directory, ACKNOWLEDGED))
        return json.loads(content) if content else {}

    @property
    def started(self):
        first = [trace.moments[0].t for trace in self.traces.values() if trace.moments]
        return self.run.get("started_ns") or min(first, default=0)

    @cached_property
    def heal_t(self):
        """The end of the faults, or None."""
        heals = [event["t"] for event in self.events if event["what"] == "heal"]
        return self.run.get("faults_end_ns") or (heals[-1] if heals else None)

    @cached_property
    def end_t(self):
        ends = [t for trace in self.traces.values() for t in trace.last_t]
        return self.run.get("end_ns") or max(ends + [event["t"] for event in self.events], default=0)

    def events_of(self, *whats, node=None):
        return [event for event in self.events
                if event["what"] in whats and (node is None or event.get("node") == node)]

    @cached_property
    def calls(self):
        """(tag, attempt) -> Call"""
        return {(call.tag, call.attempt): call for trace in self.traces.values() for call in trace.calls}

    @cached_property
    def no_ops(self):
        """The tags of items that are no lines."""
        return {hook.tag for trace in self.traces.values() for hook in trace.hooks if hook.outcome == "no-op"}

    @cached_property
    def chains(self):
        """The histories that differ at their ends, each a list of states. First the one in which most journals end."""
        keys = self.history.leaves()
        main = self.history.main()
        found = [self.history.chain(key) for key in keys[:CHAINS_MAX]]
        return sorted((chain for chain in found if chain), key=lambda chain: not any(s.key == main for s in chain))

    def batch_at(self, node, t):
        """Returns the decision number in the node's first sample at or after t."""
        samples = self.samples.get(node, [])
        at = bisect_left(samples, t, key=lambda sample: sample["t"])
        return next((sample["batch"] for sample in samples[at:] if sample.get("batch")), None)

    def where(self, hook):
        """Returns the fields that give the place of a finding about this hook call."""
        return {"t": hook.t, "node": hook.node, "tag": hook.tag, "line": hook.lines,
                "batch": self.batch_at(hook.node, hook.t)}

    def life_ended(self, node, life):
        """Returns (time of the end, whether it was killed) of a life. If it still ran: (end of the episode, False)."""
        return self._life_ends[node][life]

    @cached_property
    def _life_ends(self):
        return {node: [self._life_end(node, life) for life in range(len(trace.lives))]
                for node, trace in self.traces.items()}

    def _life_end(self, node, life):
        trace = self.traces[node]
        last_t = trace.last_t[life]
        is_last = life == len(trace.lives) - 1
        next_begin = INFINITE if is_last else self.begins(node)[life + 1]
        kills = [t for t in self.kills(node) if self.begins(node)[life] <= t < next_begin]
        if kills:
            return max(kills[0], last_t), True
        cleaned = [moment.what for moment in trace.moments if moment.life == life][-1] == "cleanup-return"
        if is_last and not cleaned:
            return max(self.end_t, last_t), False
        return last_t, not cleaned

    def kills(self, node):
        """Returns the times of kills that hit a process; an armed kill may have come too late for its process."""
        return [event["t"] for event in self.events_of("kill", node=node) if event.get("killed") is not False]

    def pauses(self, node):
        """Returns the times in which the node's process was frozen. The last one may be INFINITE."""
        found, since = [], None
        for event in self.events_of("pause", "cont", "kill", node=node):
            if event["what"] == "pause":
                since = since or event["t"]
            elif since:
                found.append((since, event["t"]))
                since = None
        return found + ([(since, INFINITE)] if since else [])

    def begins(self, node):
        return self._begins[node]

    @cached_property
    def _begins(self):
        return {node: [moment.t for moment in trace.moments if moment.what == "begin"]
                for node, trace in self.traces.items()}

    def spans(self, node):
        """Returns the times in which the library ran, as (life, start, end, stopped, next). `start` is the
        start-return; `end` the stop-call, isolation or end of the life; `stopped` the stop-return, the latest time at
        which an isolation is over, or None; `next` the next start-call in the same life, or the end of the life."""
        found, life, start, stop_call, stopped = [], 0, None, None, None
        for moment in self.traces[node].moments + [None]:
            what = moment.what if moment else "begin"
            if what == "begin":
                if start is not None:
                    found.append((life, start, stop_call or self.life_ended(node, life)[0], stopped,
                                  self.life_ended(node, life)[0]))
                start = stop_call = stopped = None
            elif what == "start-call" and start is not None:
                found.append((life, start, stop_call or moment.t, stopped, moment.t))
                start = stop_call = stopped = None
            elif what == "start-return" and moment.value == "0":
                start, stop_call, stopped = moment.t, None, None
            elif what in ("stop-call", "isolated", "cleanup-call") and start is not None:
                stop_call = stop_call or moment.t
                if what == "isolated":  # its threads end soon, at an unknown time
                    stopped = stopped or moment.t + ISOLATION_ENDS_NS
            elif what == "stop-return" and start is not None:
                stopped = stopped or moment.t
            if moment:
                life = moment.life
        return found

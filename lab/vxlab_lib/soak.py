"""A long run: a cluster under steady load, then loops in which nodes leave and join or are initialised anew. Does
anything grow? Does anything hang? Are the journals equal at the end?"""

import os
import time
from collections import Counter
from contextlib import contextmanager

from .chaos import decisions
from .chaos.arena import LOG_BYTES_MAX
from .chaos.build import Build
from .chaos.load import Load, send_some
from .chaos.sampler import process_figures
from .cluster import Cluster
from .control import NodeUnreachable
from .errors import CheckFailed, LabError, UsageError
from .programs import DURABLE
from .progress import bar
from .soak_figures import LINES_KEPT, STATE_MAX, Figures, file_figures, payload_figures
from .waiting import WaitTimeout, wait_until

LOAD = {"threads": 3, "sizes": [200, 200, 200, 3000], "pause_ms": 60}  # the long ones travel in pieces
SETTINGS = {"state.max": STATE_MAX, "retention.lines": LINES_KEPT, "log.max_size": LOG_BYTES_MAX}

PERIOD_S = 1.0
LEAVE_EVERY = 8  # seconds; a node leaves for one second
MOVE_EVERY = 30  # seconds
CALL_S = 5.0  # limit for leave, start and reinit; the hooks here take no time
PROGRESS_S = 30.0  # limit until a line of a node that has joined is acknowledged
REST_S = 60.0
PAYLOADS_S = 5.0  # limit until superseded payload files are removed
KILLS_MIN = 6
FURTHER_LINES = 260  # one after another, more than a log holds: a snapshot makes all journals equal

ROLL_OVERS_MIN = 50
LONG_MINUTES = 10  # a soak of this length with fewer roll-overs proves nothing
DESPAIR = [b"This should never happen", b"corrupted message set", b"Isolating"]
LOST = b"data lost - skipped"


@contextmanager
def new_cluster(options):
    """Gives a cluster with all nodes configured and none started."""
    build = Build(options.bin, options.library)
    settings = {**SETTINGS, **DURABLE[options.durable]}
    with Cluster(options.dir, options.bin) as cluster:
        cluster.create(options.nodes, settings)
        for node in cluster.nodes.values():
            node.environment = {"LD_PRELOAD": ":".join(build.preload({}))} if options.library else {}
        yield cluster


class Soak:
    def __init__(self, cluster, progress, durable):
        self._cluster = cluster
        self._progress = progress
        self._durable = durable
        self._load = Load(cluster, LOAD)
        self._leader = 1
        self._log = None  # number of the first decision in the log
        self.figures = Figures(cluster.nodes)
        self._left = None  # the node that takes no part: what it has not removed yet stays until it starts
        self._of_killed = Counter()  # what processes that were killed had counted of their submissions
        self.faults = []
        self.notes = []

    def run(self, minutes, cycles):
        """Fills figures, faults and notes. Raises CheckFailed if something hangs or differs."""
        self._cluster.start_all(master=self._leader)
        self._pids = {node_id: state["pid"] for node_id, state in self._cluster.processes().items()}
        for node_id in self._cluster.nodes:
            self._load.begin(node_id)
        try:
            if minutes:
                self._soak(minutes)
            if cycles:
                self._loops(cycles)
            self._rest()
        except (NodeUnreachable, WaitTimeout) as error:  # no fault was made: a mute or late node hangs
            phase = self.figures.phases[-1]
            ended = [f"node {node_id} has ended with {state['exit_code']}"
                     for node_id, state in self._cluster.processes().items() if not state["running"]]
            raise CheckFailed(f"{phase.name}, cycle {phase.cycles + 1}: {'; '.join([str(error), *ended])}") from error

    def _loops(self, cycles):
        follower = self._next(self._leader)
        for calls in (("leave", "start"), ("reinit",)):
            for role, node_id in (("follower", follower), ("leader", self._leader)):
                self._loop(f"{'/'.join(calls)}, {role} {node_id}", node_id, calls, cycles)
        if self._durable:
            self._kills(max(KILLS_MIN, cycles // 10))

    def _next(self, node_id):
        return node_id % len(self._cluster.nodes) + 1

    # ---- actions

    def _soak(self, minutes):
        phase = self._begin("soak", (1 / 3, 2 / 3), (2 / 3, 1), ROLL_OVERS_MIN)
        begun = time.monotonic()
        node_id, left = self._leader, False
        second = 0
        while time.monotonic() - begun < minutes * 60:
            second += 1
            if left:
                self._call(phase, node_id, "start")
                left = False
            elif second % LEAVE_EVERY == 0:
                node_id = self._next(node_id)
                self._call(phase, node_id, "leave")
                phase.cycles += 1
                left = True
            if second % MOVE_EVERY == 0:
                self._leader = self._next(self._leader)
                self._cluster.set_master(self._leader)
            self._sample(phase)
            self._show(phase, bar(int(time.monotonic() - begun), int(minutes * 60)) + " s")
            time.sleep(max(0.0, begun + second * PERIOD_S - time.monotonic()))
        if left:
            self._call(phase, node_id, "start")
        if phase.roll_overs < ROLL_OVERS_MIN and minutes >= LONG_MINUTES:
            raise LabError(f"only {phase.roll_overs} roll-overs in {minutes:g} minutes: this machine is too slow for a "
                           f"verdict, which needs {ROLL_OVERS_MIN}")

    def _loop(self, name, node_id, calls, cycles):
        phase = self._begin(name, (1 / 4, 1 / 2), (3 / 4, 1))
        node = self._cluster.node(node_id)
        for _ in range(cycles):
            before = node.control.status()["submissions"]["acknowledged"]
            for call in calls:
                self._call(phase, node_id, call)
            begun = time.monotonic()
            wait_until(lambda: node.control.status()["submissions"]["acknowledged"] > before, PROGRESS_S,
                       f"node {node_id} gets a line through")
            phase.note_time("next line", time.monotonic() - begun)
            phase.cycles += 1
            self._sample(phase)
            self._show(phase, bar(phase.cycles, cycles))

    def _kills(self, cycles):
        """Kills submitters. No log names the payloads that they were about to submit, so these must not stay."""
        phase = self._begin("kill -9, each in turn", (1 / 4, 1 / 2), (3 / 4, 1))
        node_id = self._leader
        for _ in range(cycles):
            node = self._cluster.node(node_id)
            self._of_killed.update(node.control.status()["submissions"])
            node.kill()
            node.start()
            self._pids[node_id] = node.pid()
            self._load.begin(node_id)
            begun = time.monotonic()
            wait_until(lambda node=node: node.control.status()["submissions"]["acknowledged"] > 0, PROGRESS_S,
                       f"node {node_id} gets a line through")
            phase.note_time("next line", time.monotonic() - begun)
            phase.cycles += 1
            self._sample(phase)
            self._show(phase, bar(phase.cycles, cycles))
            node_id = self._next(node_id)

    def _call(self, phase, node_id, call):
        control = self._cluster.node(node_id).control
        begun = time.monotonic()
        {"leave": control.stop_protocol, "start": control.start_protocol, "reinit": control.reinit}[call]()
        took_s = time.monotonic() - begun
        self._left = node_id if call == "leave" else None
        phase.note_time(call, took_s)
        if took_s > CALL_S:
            self.faults.append(f"{phase.name}, cycle {phase.cycles + 1}: {call} took {took_s:.1f} s on node {node_id}, "
                               f"{CALL_S:g} are allowed")

    def _rest(self):
        """Ends the load and waits until all journals are equal."""
        self._progress.say("the load ends; now the journals are compared")
        self._load.end()
        if self._load.refused:
            raise LabError(f"the load did not run: {self._load.refused[0]}")
        nodes = self._cluster.nodes.values()
        wait_until(lambda: all(node.control.status()["submissions"]["open"] == 0 for node in nodes), REST_S,
                   "no call is open")
        acknowledged = send_some(self._cluster.node(self._leader), FURTHER_LINES, REST_S)
        if acknowledged != FURTHER_LINES:
            raise CheckFailed(f"only {acknowledged} of {FURTHER_LINES} further lines were acknowledged")
        lines = self._cluster.await_equal()[0].count
        acknowledged = self._of_killed["acknowledged"] + sum(
            node.control.status()["submissions"]["acknowledged"] for node in nodes)
        if lines < acknowledged:
            raise CheckFailed(f"{acknowledged} lines were acknowledged, the journals have {lines}")
        self.notes.append(f"{lines} lines in each journal, {acknowledged} of them acknowledged; the journals are equal")
        self._await_few_payloads(len(nodes))  # at most one snapshot of each node for the next decision
        if self._durable and not all(phase.most_payloads() for phase in self.figures.phases):
            self.faults.append("no payload was ever in a file")
        self._read_logs()

    def _await_few_payloads(self, unnamed_max):
        for node in self._cluster.nodes.values():
            if node.id == self._left:
                continue
            wait_until(lambda node=node: payload_figures(node.cons_dir)[1] <= unnamed_max, PAYLOADS_S,
                       lambda node=node: f"node {node.id} has at most {unnamed_max} payload files that its log does "
                       f"not name; it has {payload_figures(node.cons_dir)[1]}")

    def _read_logs(self):
        for node in self._cluster.nodes.values():
            with open(node.log_path, "rb") as file:
                lost, worst = 0, None
                for line in file:
                    lost += LOST in line
                    if worst is None and any(word in line for word in DESPAIR):
                        worst = line.decode(errors="replace").strip()
            if lost:  # the only node that had it (mostly a leader with a new snapshot) left or was cleaned up
                found = self.faults if self._durable else self.notes
                found.append(f"node {node.id} has skipped {lost} lost payloads")
            if worst:
                self.faults.append(f"node {node.id} logged: {worst}")

    # ---- observations

    def _begin(self, name, *arguments):
        self._progress.say(name)
        return self.figures.begin(name, *arguments)

    def _sample(self, phase):
        # Snapshots for the next decision, open calls, and calls that died since their node's last decided message.
        self._await_few_payloads(len(self._cluster.nodes) * (1 + 2 * LOAD["threads"]))
        sample = {"t": time.monotonic(), "given_up": given_up(self._of_killed)}
        for node_id, node in self._cluster.nodes.items():
            figures = self._look_at_process(node_id)
            sample[node_id] = {"rss_kb": figures["rss_kb"], "fds": figures["fds"],
                               "threads": sum(figures["tasks"].values()), **file_figures(node.cons_dir)}
            sent = node.control.status()["submissions"]
            sample["given_up"] += given_up(sent)
        number, count = max(decisions.read_position(node.cons_dir) for node in self._cluster.nodes.values())
        sample.update(number=number, cycle=phase.cycles)
        phase.roll_overs += self._log is not None and number - count > self._log
        self._log = max(self._log or 0, number - count)
        phase.samples.append(sample)

    def _look_at_process(self, node_id):
        while True:
            figures = process_figures(self._pids[node_id])
            if figures:
                return figures
            process = self._cluster.node(node_id).process()  # the process has ended, or only one of its threads
            if not process["running"]:
                raise CheckFailed(f"the process of node {node_id} has ended with {process['exit_code']}: "
                                  f"{self._cluster.node(node_id).last_words()}")

    def _show(self, phase, done):
        last = phase.samples[-1]
        memory = ", ".join(str(last[node_id]["rss_kb"]) for node_id in self._cluster.nodes)
        self._progress.update(f"{phase.name}: {done}, {phase.roll_overs} roll-overs, {last['given_up']} attempts "
                              f"given up, RSS {memory} KiB")


def given_up(counted):
    """Returns the attempts that did not bring a line into the journal."""
    return sum(counted[name] for name in ("again", "not_submitted", "unknown"))


def run(options, progress):
    """Raises CheckFailed if something grows, hangs or differs."""
    if not options.minutes and not options.cycles:
        raise UsageError("neither minutes nor cycles: there is nothing to do")
    with new_cluster(options) as cluster:
        soak = Soak(cluster, progress, options.durable)
        try:
            soak.run(options.minutes, options.cycles)
        finally:
            progress.close()
            if any(phase.samples for phase in soak.figures.phases):
                soak.figures.print_table()
                path = os.path.join(options.dir, "soak.csv")
                soak.figures.write_samples(path)
                print("".join(f"- {note}\n" for note in [*soak.notes, f"all samples: {path}"]), end="", flush=True)
    wrong = soak.faults + soak.figures.growing()
    if wrong:
        raise CheckFailed("; ".join(wrong))
    is_long = all(phase.is_long() for phase in soak.figures.phases)
    print(f"- verdict: {'flat' if is_long else 'too short to tell whether memory grows'}, nothing hung, all journals "
          "equal")

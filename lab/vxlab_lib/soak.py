"""Long life: a cluster under steady load, then loops of leaving and joining and of beginning anew. Does anything grow?

What may grow, and can be counted, is subtracted: a payload whose submission was given up stays until cleanup in every
node that has it, and kesh remembers of each line which took more than one attempt that it did."""

import csv
import os
import time
from contextlib import contextmanager
from dataclasses import dataclass, field
from statistics import mean, median
from types import SimpleNamespace

from .chaos import decisions
from .chaos.arena import LOG_BYTES_MAX, Build
from .chaos.broker_arena import BrokerArena
from .chaos.load import Load, send_some
from .chaos.sampler import process_figures
from .cluster import Cluster
from .control import NodeUnreachable
from .errors import CheckFailed, LabError, UsageError
from .progress import bar
from .waiting import wait_until

PAYLOAD_BYTES = [200, 200, 200, 3000]  # in turn; the long ones travel in pieces
LOAD = {"threads": 3, "sizes": PAYLOAD_BYTES, "pause_ms": 60}
SETTINGS = {"journal.keep": 200, "log.max_size": LOG_BYTES_MAX}  # few lines kept in memory: it has to stay flat

PERIOD_S = 1.0
LEAVE_EVERY = 8  # seconds; a node leaves for one of them
MOVE_EVERY = 30  # seconds
CALL_S = 5.0  # of leave, start and reinit; the hooks here take no time
PROGRESS_S = 30.0  # until a node that has joined gets a line through
REST_S = 60.0
FURTHER_LINES = 260  # more than a log holds: a snapshot makes all journals equal

ROLL_OVERS_MIN = 50
LONG_MINUTES = 10  # a soak of that length with fewer roll-overs says nothing
LIMITS = {"rss_kb": 512, "fds": 1, "threads": 1, "files": 2, "stale": 0}  # by how much a median may rise
TITLES = {"rss_kb": "RSS KiB", "fds": "descriptors", "threads": "threads", "files": "files in cons",
          "stale": "temporary files left"}
GIVEN_UP_BYTES = mean(PAYLOAD_BYTES) + 400  # a payload in the library's table, and what belongs to it
ATTEMPT_BYTES = 130  # a line's attempts in the journal's index
STALE_S = 5.0  # a save takes less
DESPAIR = [b"This should never happen", b"corrupted message set", b"Isolating"]
LOST = b"data lost - skipped"


@dataclass
class Phase:
    name: str
    middle: tuple  # the shares of the samples whose medians are compared
    end: tuple
    cycles: int = 0
    samples: list = field(default_factory=list)  # {"t", "given_up", "number", "cycle", node: {figure: value}}
    roll_overs: int = 0
    longest_s: dict = field(default_factory=dict)  # call -> seconds

    def window(self, share, pick):
        """Median over a part of the phase."""
        count = len(self.samples)
        begin = min(int(share[0] * count), count - 1)
        return median(pick(sample) for sample in self.samples[begin:max(begin + 1, int(share[1] * count))])

    def rise(self, pick):
        return self.window(self.end, pick) - self.window(self.middle, pick)

    def subtracted_kb(self):
        return max(0.0, self.rise(lambda sample: sample["given_up"])) * (GIVEN_UP_BYTES + ATTEMPT_BYTES) / 1024

    def allowed(self, figure):
        return LIMITS[figure] + (self.subtracted_kb() if figure == "rss_kb" else 0)

    def grown(self, node_id):
        return [figure for figure in LIMITS
                if self.rise(lambda sample: sample[node_id][figure]) > self.allowed(figure)]

    def cells(self, node_id):
        """One row of the table: every figure at the start, in the middle and at the end."""
        def course(figure):
            shares = ((0, 0.1), self.middle, self.end)
            return " / ".join(f"{self.window(share, lambda one: one[node_id][figure]):.0f}" for share in shares)

        grown = self.grown(node_id)
        return [self.name, node_id, len(self.samples), self.roll_overs, course("rss_kb"),
                f"{self.rise(lambda sample: sample[node_id]['rss_kb']):+.0f}", f"{self.subtracted_kb():.0f}",
                *(course(figure) for figure in list(LIMITS)[1:]),
                "GROWS: " + ", ".join(TITLES[figure] for figure in grown) if grown else "flat"]


COLUMNS = ["phase", "node", "samples", "roll-overs", TITLES["rss_kb"], "rise", "subtracted",
           *(TITLES[figure] for figure in list(LIMITS)[1:]), "verdict"]


def file_figures(directory):
    """Number of files, and of temporary ones that nobody is writing any more."""
    names = os.listdir(directory)
    stale = 0
    for name in names:
        if name.endswith(".tmp"):
            try:
                stale += time.time() - os.stat(os.path.join(directory, name)).st_mtime > STALE_S
            except FileNotFoundError:
                pass
    return {"files": sum(not name.endswith(".tmp") for name in names), "stale": stale}


class SoakArena(BrokerArena):
    def settings(self, node):
        return {"messaging.transport": "broker", "messaging.broker": self.broker, **SETTINGS}


@contextmanager
def new_cluster(options):
    """All nodes configured, none started."""
    build = Build(options.bin, options.library)
    if options.transport == "udp":
        with Cluster(options.dir, options.bin) as cluster:
            cluster.create(options.nodes, SETTINGS)
            for node in cluster.nodes.values():
                node.environment = {"LD_PRELOAD": ":".join(build.preload({}))} if options.library else {}
            yield cluster
        return
    os.makedirs(options.dir, exist_ok=True)
    plan = SimpleNamespace(nodes=options.nodes, seed=1, options={})
    with SoakArena(os.path.realpath(options.dir), build, plan) as arena:
        arena.wire_log = os.devnull
        arena.open()
        yield arena.cluster


class Soak:
    def __init__(self, cluster, progress):
        self._cluster = cluster
        self._progress = progress
        self._load = Load(cluster, LOAD)
        self._leader = 1
        self._cleaned_up = False
        self._log = None  # number of the first decision in the log
        self.phases = []
        self.faults = []
        self.notes = []

    def run(self, minutes, cycles):
        """Fills phases, faults and notes. Raises LabError when it cannot go on."""
        self._cluster.start_all(master=self._leader)
        self._pids = {node_id: state["pid"] for node_id, state in self._cluster.processes().items()}
        for node_id in self._cluster.nodes:
            self._load.begin(node_id)
        if minutes:
            self._soak(minutes)
        if cycles:
            follower = self._next(self._leader)
            for calls in (("leave", "start"), ("reinit",)):
                if calls == ("reinit",):
                    self._read_logs()
                    self._cleaned_up = True
                for role, node_id in (("follower", follower), ("leader", self._leader)):
                    self._loop(f"{'/'.join(calls)}, {role} {node_id}", node_id, calls, cycles)
        self._rest()

    def _next(self, node_id):
        return node_id % len(self._cluster.nodes) + 1

    # ---- what is done to the cluster

    def _soak(self, minutes):
        phase = self._begin("soak", (1 / 3, 2 / 3), (2 / 3, 1))
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
        if phase.roll_overs < ROLL_OVERS_MIN:
            if minutes >= LONG_MINUTES:
                raise LabError(f"only {phase.roll_overs} roll-overs in {minutes:g} minutes: this machine is too slow "
                               f"for a verdict, which needs {ROLL_OVERS_MIN}")
            self.notes.append(f"only {phase.roll_overs} roll-overs in the soak: too short for a verdict that counts")

    def _loop(self, name, node_id, calls, cycles):
        phase = self._begin(name, (1 / 4, 1 / 2), (3 / 4, 1))
        node = self._cluster.node(node_id)
        for _ in range(cycles):
            before = node.control.status()["submissions"]["acknowledged"]
            for call in calls:
                self._call(phase, node_id, call)
            begun = time.monotonic()
            try:
                wait_until(lambda: node.control.status()["submissions"]["acknowledged"] > before, PROGRESS_S,
                           f"node {node_id} gets a line through after {'/'.join(calls)}, cycle {phase.cycles + 1}")
            except LabError as error:
                raise CheckFailed(str(error)) from error
            self._note_time(phase, "next line", time.monotonic() - begun)
            phase.cycles += 1
            self._sample(phase)
            self._show(phase, bar(phase.cycles, cycles))

    def _call(self, phase, node_id, call):
        control = self._cluster.node(node_id).control
        begun = time.monotonic()
        try:
            {"leave": control.stop_protocol, "start": control.start_protocol, "reinit": control.reinit}[call]()
        except NodeUnreachable as error:
            raise CheckFailed(f"{phase.name}, cycle {phase.cycles + 1}: {call} hangs, or the node has ended: "
                              f"{error}") from error
        took_s = time.monotonic() - begun
        self._note_time(phase, call, took_s)
        if took_s > CALL_S:
            self.faults.append(f"{phase.name}, cycle {phase.cycles + 1}: {call} took {took_s:.1f} s on node {node_id}, "
                               f"{CALL_S:g} are allowed")

    def _rest(self):
        """The load ends, all journals become equal."""
        self._progress.say("the load ends; now the journals are compared")
        self._load.end()
        if self._load.refused:
            raise LabError(f"the load did not run: {self._load.refused[0]}")
        nodes = self._cluster.nodes.values()
        wait_until(lambda: all(node.control.status()["submissions"]["open"] == 0 for node in nodes), REST_S,
                   "no call is open")
        acknowledged = send_some(self._cluster.node(self._leader), FURTHER_LINES, REST_S, threads=16)
        if acknowledged != FURTHER_LINES:
            raise CheckFailed(f"only {acknowledged} of {FURTHER_LINES} further lines were acknowledged")
        lines = self._cluster.await_equal()[0].count
        acknowledged = sum(node.control.status()["submissions"]["acknowledged"] for node in nodes)
        if lines < acknowledged:
            raise CheckFailed(f"{acknowledged} lines were acknowledged, the journals have {lines}")
        self.notes.append(f"{lines} lines in each journal, {acknowledged} of them acknowledged; the journals are equal")
        self._read_logs()

    def _read_logs(self):
        """Only a cleanup may lose payloads: those that nobody else has fetched yet."""
        for node in self._cluster.nodes.values():
            with open(node.log_path, "rb") as file:
                lost, worst = 0, None
                for line in file:
                    lost += LOST in line
                    if worst is None and any(word in line for word in DESPAIR):
                        worst = line.decode(errors="replace").strip()
            if lost and self._cleaned_up:
                self.notes.append(f"node {node.id} has skipped {lost} payloads that a cleanup had lost")
            elif lost:
                self.faults.append(f"node {node.id} has lost {lost} payloads before any cleanup")
            if worst:
                self.faults.append(f"node {node.id} logged: {worst}")

    # ---- what is seen of it

    def _begin(self, name, middle, end):
        self._progress.say(name)
        self.phases.append(Phase(name, middle, end))
        return self.phases[-1]

    def _note_time(self, phase, what, seconds):
        phase.longest_s[what] = max(phase.longest_s.get(what, 0.0), seconds)

    def _sample(self, phase):
        sample = {"t": time.monotonic(), "given_up": 0}
        for node_id, node in self._cluster.nodes.items():
            figures = process_figures(self._pids[node_id])
            if not figures:
                raise CheckFailed(f"{phase.name}: the process of node {node_id} has ended: {node.last_words()}")
            sample[node_id] = {"rss_kb": figures["rss_kb"], "fds": figures["fds"],
                               "threads": sum(figures["tasks"].values()), **file_figures(node.cons_dir)}
            sent = node.control.status()["submissions"]
            sample["given_up"] += sent["again"] + sent["failed"]
        number, count = max(decisions.read_position(node.cons_dir) for node in self._cluster.nodes.values())
        sample.update(number=number, cycle=phase.cycles)
        phase.roll_overs += self._log is not None and number - count > self._log
        self._log = max(self._log or 0, number - count)
        phase.samples.append(sample)

    def _show(self, phase, done):
        last = phase.samples[-1]
        memory = ", ".join(str(last[node_id]["rss_kb"]) for node_id in self._cluster.nodes)
        self._progress.update(f"{phase.name}: {done}, {phase.roll_overs} roll-overs, {last['given_up']} attempts "
                              f"given up, RSS {memory} KiB")

    def judge(self):
        """What does not hold: what grows comes after what went wrong by itself."""
        return self.faults + [f"{phase.name}: {TITLES[figure]} of node {node_id} grows" for phase in self.phases
                              if phase.samples for node_id in self._cluster.nodes for figure in phase.grown(node_id)]

    def write_samples(self, path):
        with open(path, "w", encoding="utf-8", newline="") as file:
            rows = csv.writer(file)
            rows.writerow(["phase", "t", "given_up", "node", *LIMITS])
            for phase in self.phases:
                for sample in phase.samples:
                    for node_id in self._cluster.nodes:
                        rows.writerow([phase.name, f"{sample['t']:.2f}", sample["given_up"], node_id,
                                       *(sample[node_id][figure] for figure in LIMITS)])

    def print_table(self):
        print("| " + " | ".join(COLUMNS) + " |")
        print("|" + "---|" * len(COLUMNS))
        for phase in self.phases:
            for node_id in self._cluster.nodes if phase.samples else []:
                print("| " + " | ".join(str(cell) for cell in phase.cells(node_id)) + " |")
        others = ", ".join(f"{TITLES[name]} {limit}" for name, limit in LIMITS.items() if name != "rss_kb")
        print(f"""
Each figure: median of the first tenth / of the second third / of the last third of the soak's samples; in a loop of
the first tenth / of the second quarter / of the last quarter. Allowed rise from the second to the last: RSS
{LIMITS['rss_kb']} KiB and what is subtracted; {others}.
Subtracted: for each attempt given up meanwhile, on whatever node, {GIVEN_UP_BYTES:.0f} bytes for a payload that stays
until cleanup and {ATTEMPT_BYTES} for the journal's index of attempts. Of the journal, memory holds the newest
{SETTINGS['journal.keep']} lines; its file grows on disk.
""")
        for phase in self.phases:
            if phase.samples:
                print(self._in_words(phase))
        for note in self.notes:
            print(f"- {note}")


    def _in_words(self, phase):
        times = ", ".join(f"{what} {seconds * 1000:.0f} ms" for what, seconds in phase.longest_s.items())
        given_up = phase.samples[-1]["given_up"] - phase.samples[0]["given_up"]
        blind = " or ".join(f"{LIMITS['rss_kb'] * 1024 / phase.rise(lambda one, key=key: one[key]):.0f} bytes per {what}"
                            for key, what in (("number", "decision"), ("cycle", "cycle"))
                            if phase.rise(lambda one, key=key: one[key]))
        return (f"- {phase.name}: {phase.cycles} cycles, {given_up} attempts given up; longest: {times or '-'}; a leak "
                f"below {blind} would not be seen")


def run(options, progress):
    """Raises CheckFailed if something grows, hangs or differs."""
    if not options.minutes and not options.cycles:
        raise UsageError("neither minutes nor cycles: there is nothing to do")
    with new_cluster(options) as cluster:
        soak = Soak(cluster, progress)
        try:
            soak.run(options.minutes, options.cycles)
        finally:
            progress.close()
            if any(phase.samples for phase in soak.phases):
                soak.print_table()
                path = os.path.join(options.dir, "soak.csv")
                soak.write_samples(path)
                print(f"- all samples: {path}", flush=True)
    wrong = soak.judge()
    if wrong:
        raise CheckFailed("; ".join(wrong))
    print("- verdict: flat, nothing hung, all journals equal")

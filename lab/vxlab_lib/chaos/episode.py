"""One episode: a new cluster, load, faults, healing, a judgement. The evidence is kept if a promise was broken."""

import json
import os
import shutil
import threading
import time
from dataclasses import dataclass, field

from ..checker import judge, read, sanitizer_word
from ..errors import LabError
from ..waiting import wait_until
from .arena import Arena
from .events import EventLog, now_ns
from .load import Load, send_some
from .sampler import Sampler
from .recovery import stop_protocol
from .stage import Stage
from .tracks import Tracks, undo_all

HEAL_S = 30.0
FURTHER_MESSAGES = 260  # one after another, more than a log holds, so that a new one must begin
OPEN_CALLS_S = 60.0
SILENCE_S = 1.5
TRACKS_END_S = 60.0


@dataclass
class Outcome:
    plan: object
    verdict: str = "could not run"  # held, violated, could not run
    reason: str = ""
    evidence: str = None  # directory in which it was kept
    seconds: float = 0.0
    figures: dict = field(default_factory=dict)
    seen: object = None  # the checker's Episode
    result: object = None  # the checker's Result


class Episode:
    """Runs in `work_dir`, which it fills and empties. `progress(text)` is called with what is going on."""

    def __init__(self, plan, build, work_dir, progress):
        self.plan = plan
        self.build = build
        self.dir = work_dir
        self.progress = progress
        self.notes = []  # broken promises that the orchestrator saw itself
        self.troubles = []  # reasons why the episode may prove nothing

    def run(self):
        """Returns an Outcome, with its evidence in `self.dir`. Raises LabError if the episode could not run."""
        begun = time.monotonic()
        outcome = Outcome(self.plan)
        shutil.rmtree(self.dir, ignore_errors=True)
        self.evidence = os.path.join(self.dir, "episode")
        work = os.path.join(self.dir, "work")
        os.makedirs(self.evidence)
        os.makedirs(work)
        self.run_info = {"seed": self.plan.seed, "nodes": self.plan.nodes,
                         "faults": self.plan.faults, "build": self.build.directory, "library": self.build.library,
                         "started_ns": now_ns(), "options": {"load": self.plan.load, **self.plan.options},
                         "plan": self.plan.as_json()}
        self.write_run_info()
        self.events = EventLog(os.path.join(self.evidence, "events.jsonl"))
        try:
            with Arena(work, self.build, self.plan) as arena:
                try:
                    arena.open()
                    self._run_in(arena, outcome)
                finally:
                    self._take_evidence(arena)
        finally:
            self.events.close()
            self.run_info["end_ns"] = now_ns()
            self.write_run_info()
        shutil.rmtree(work)
        self._judge(outcome)
        outcome.seconds = time.monotonic() - begun
        return outcome

    def write_run_info(self):
        with open(os.path.join(self.evidence, "run.json"), "w", encoding="utf-8") as file:
            json.dump(self.run_info, file, indent=1)

    def _run_in(self, arena, outcome):
        plan = self.plan
        load = Load(arena.cluster, plan.load)
        self.stage = stage = Stage(arena, plan, self.events, load)
        if plan.options.get("configure_first_s"):
            self._first_life(arena, plan.options["configure_first_s"])
        sampler = Sampler(os.path.join(self.evidence, "samples.jsonl"), arena.cluster.nodes, arena.cluster.processes,
                          stage.ended, stage.look_for_masters)
        try:
            self._start_nodes(stage)
            self._faults(stage, sampler)
            self._heal(stage, load)
            self._stop_all(stage)
        finally:
            stage.over.set()
            sampler.close()
            outcome.figures.update(roll_overs=sampler.roll_overs(), moved=stage.moved,
                                   at_roll_over=stage.at_roll_over, faults=sum(
                                       count for what, count in self.events.counts.items()
                                       if what in ("kill", "term", "pause", "master", "net", "cut", "disk",
                                                   "stop-call", "slow-hook", "clock", "state-file", "strangers",
                                                   "reinit", "bulk", "keepalived", "power-cut",
                                                   "store-lost", "disk-back")))
        self._end_nodes(stage)

    def _first_life(self, arena, seconds):
        """Runs the cluster for a while before all of it is configured anew. The traces of this time are dropped."""
        load = Load(arena.cluster, self.plan.load)
        stage = Stage(arena, self.plan, self.events, load)
        self._start_nodes(stage)
        time.sleep(seconds)
        load.end()
        for node in arena.cluster.nodes.values():
            if code := node.stop():
                self.notes.append(f"first life: node {node.id} ended with {code}")
            arena.node_is_down(node.id)
        for node in arena.cluster.nodes.values():
            node.generation += 1
            node.configure(self.plan.nodes)
            if word := sanitizer_word(read_whole(node.path("output.log"))):
                self.notes.append(f"first life: node {node.id} printed \"{word}\"")
            for name in ("trace", "kesh.log", "output.log"):
                shutil.move(node.path(name), node.path("first_life_" + name))
        self.run_info["started_ns"] = now_ns()

    def _start_nodes(self, stage):
        if not self.plan.options.get("keepalived"):
            stage.set_masters([stage.draw.choice(sorted(stage.cluster.nodes))])
        threads, failed = [], []

        def start(node_id):
            try:
                stage.start(node_id)
            except LabError as error:
                failed.append(error)

        for node_id in stage.cluster.nodes:
            threads.append(threading.Thread(target=start, args=(node_id,)))
            threads[-1].start()
        for thread in threads:
            thread.join()
        if failed:
            raise failed[0]
        stage.cluster.await_active()
        if self.plan.options.get("keepalived"):
            wait_until(lambda: len(stage.cluster.masters()) == 1, HEAL_S, "keepalived elects a leader")

    def _faults(self, stage, sampler):
        tracks = Tracks(stage)
        tracks.start()
        ends = time.monotonic() + self.plan.seconds
        while time.monotonic() < ends and not tracks.error:
            self.progress(f"{ends - time.monotonic():.0f} s of faults left, {sampler.roll_overs()} roll-overs, "
                          f"decision {max((number for number, _ in sampler.position.values()), default=0)}")
            time.sleep(0.1)
        stage.over.set()
        stage.clear_network()  # a fault may wait for an answer that the network holds
        tracks.join(TRACKS_END_S)
        if tracks.error:
            raise LabError(f"a fault could not be made: {tracks.error!r}")
        if stage.load.refused:
            raise LabError(f"the load does not run: {stage.load.refused[0]}")

    # ---- healing

    def _heal(self, stage, load):
        self.progress("healing")
        load.end()
        trouble = None
        try:
            undo_all(stage)
        except LabError as error:
            trouble = error  # even after a power cut every node must come back
        heal_ns = self.events.add("heal")
        self.run_info["faults_end_ns"] = heal_ns
        self.write_run_info()
        try:
            if trouble:
                raise trouble
            if self.plan.options.get("keepalived"):
                wait_until(lambda: len(stage.cluster.masters()) == 1, HEAL_S, "keepalived agrees on one leader")
            self._fresh(stage)
            self._await_equal(stage, heal_ns, HEAL_S)
            leader = stage.node_id("leader")
            sent_ns = now_ns()
            acknowledged = send_some(stage.cluster.node(leader), FURTHER_MESSAGES, OPEN_CALLS_S)
            if acknowledged != FURTHER_MESSAGES:
                raise LabError(f"only {acknowledged} of {FURTHER_MESSAGES} further messages were acknowledged")
            self._await_equal(stage, sent_ns, HEAL_S + OPEN_CALLS_S)
            wait_until(lambda: all(node.control.status()["submissions"]["open"] == 0
                                   for node in stage.cluster.nodes.values()),
                       max(1.0, OPEN_CALLS_S - (now_ns() - heal_ns) / 1e9), "no call is open")
        except LabError as error:
            self.events.add("not-healed", error=str(error))  # the checker knows whether this was promised

    def _fresh(self, stage):
        """Submits one new message at every node. Each must be acknowledged."""
        missing = []

        def send(node_id):
            try:
                one = stage.cluster.submit(node_id, [b"fresh after the faults"], timeout_s=HEAL_S).wait(HEAL_S)
                self.events.add("fresh", node=node_id, tag=one.acknowledged[0].tag)
            except LabError:
                missing.append(node_id)

        threads = [threading.Thread(target=send, args=(node_id,)) for node_id in stage.cluster.nodes]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if missing:
            raise LabError(f"no fresh message of nodes {sorted(missing)} was acknowledged within {HEAL_S:g} s")

    def _await_equal(self, stage, since_ns, timeout_s):
        states = {}

        def are_equal():
            for node_id, node in stage.cluster.nodes.items():
                journal = node.control.status()["journal"]
                states[node_id] = (journal["lines"], journal["hash"])
            return len(set(states.values())) == 1

        left_s = max(1.0, timeout_s - (now_ns() - since_ns) / 1e9)
        wait_until(are_equal, left_s, lambda: f"equal journals; (lines, hash) are {states}", poll_s=0.05)
        self.events.add("equal", lines=states[1][0], after_s=(now_ns() - since_ns) / 1e9)

    # ---- the end

    def _stop_all(self, stage):
        self.progress("stopping")
        for node_id in stage.cluster.nodes:
            if stage.is_running(node_id):
                try:
                    stop_protocol(stage, node_id)
                except LabError as error:
                    self.notes.append(f"node {node_id} does not stop: {error}")
        time.sleep(SILENCE_S)  # long enough to hear a node that is not silent

    def _end_nodes(self, stage):
        for node_id in stage.cluster.nodes:
            if stage.is_running(node_id):
                try:
                    stage.terminate(node_id)
                except LabError as error:
                    self.notes.append(f"node {node_id} does not end: {error}")

    def _take_evidence(self, arena):
        try:
            arena.stop_fabric()
        except LabError as error:
            self.troubles.append(str(error))
        if arena.cluster.nodes:
            arena.collect(self.evidence)
        for name in ("wire.log", "fabric.log"):
            path = os.path.join(arena.dir, name)
            if os.path.exists(path):
                shutil.copyfile(path, os.path.join(self.evidence, name))
        if self.plan.options.get("configure_first_s"):
            drop_before(os.path.join(self.evidence, "wire.log"), self.run_info["started_ns"])

    def _judge(self, outcome):
        self.progress("checking")
        outcome.figures.update(count_calls(self.evidence, self.plan.nodes))
        outcome.seen = read(self.evidence)
        outcome.result = result = judge(outcome.seen)
        outcome.verdict = result.verdict
        if result.first:
            outcome.reason = f"{result.first.invariant}: {result.first.text}"
        elif self.notes:
            outcome.verdict, outcome.reason = "violated", "; ".join(self.notes)
        elif self.troubles:
            outcome.verdict, outcome.reason = "could not run", "; ".join(self.troubles)
        elif result.unexamined:
            outcome.reason = "nothing was seen of " + ", ".join(result.unexamined)


def read_whole(path):
    with open(path, "rb") as file:
        return file.read()


def drop_before(path, since_ns):
    """Removes the datagrams of a first cluster life from wire.log."""
    with open(path, encoding="utf-8") as source, open(path + ".new", "w", encoding="utf-8") as target:
        for line in source:
            first = line.split(" ", 1)[0]
            if not first.isdigit() or int(first) >= since_ns:
                target.write(line)
    os.rename(path + ".new", path)


def count_calls(evidence, nodes):
    """Counts the submissions of all traces, and how many of them were acknowledged."""
    calls = acknowledged = 0
    for node_id in range(1, nodes + 1):
        try:
            with open(os.path.join(evidence, f"node{node_id}", "trace"), "rb") as file:
                for line in file:
                    words = line.split()
                    if len(words) > 6 and words[2] == b"call":
                        calls += 1
                    elif len(words) > 6 and words[2] == b"return" and words[6] == b"0":
                        acknowledged += 1
        except FileNotFoundError:
            pass
    return {"submissions": calls, "acknowledged": acknowledged}

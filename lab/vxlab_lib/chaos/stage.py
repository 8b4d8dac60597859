"""The running episode, shared by its parts: who leads, who is down, which rules are in force, when faults end."""

import random
import threading
import time
from contextlib import contextmanager
from signal import SIGKILL

from ..errors import LabError
from ..waiting import wait_until
from .. import decisions
from .events import now_ns
from .power_cut import PowerCut, whole_payloads
from .sampler import await_log

ROLL_OVER_WAIT_S = 8.0
SETTLE_S = 20.0


class Stage:
    """May be used by any thread; there is one per track of the plan."""

    def __init__(self, arena, plan, events, load):
        self.arena = arena
        self.cluster = arena.cluster
        self.fabric = arena.fabric
        self.plan = plan
        self.events = events
        self.load = load
        self.draw = random.Random(f"stage {plan.seed}")
        self.over = threading.Event()  # faults have ended
        self.masters = []
        self.longest_hook_ms = 0
        self.moved = 0  # leader changes
        self.at_roll_over = 0  # faults that met a roll-over
        self._rules = {}  # track -> rules
        self._cuts = {}  # track -> pairs
        self._net_lock = threading.Lock()
        self._one_down = threading.Lock()
        self._power = threading.Lock()  # held during a power cut, so that no process starts
        self._down_on_purpose = set()  # process ids

    # ---- time

    def pause(self, seconds):
        """Waits. Returns False if the faults are over."""
        return not self.over.wait(max(0.0, seconds))

    def await_log(self, low, high):
        """Waits a while for the longest log to have low to high entries. Returns its length, or None."""
        nodes = [self.cluster.nodes[node_id] for node_id in self.cluster.nodes]
        found = await_log(nodes, low, high, time.monotonic() + ROLL_OVER_WAIT_S, self.over.is_set)
        self.at_roll_over += found is not None
        return found

    def await_that(self, predicate, timeout_s):
        """Returns whether `predicate` came true in time and before the end of the faults."""
        deadline = time.monotonic() + timeout_s
        while not predicate():
            if time.monotonic() > deadline or not self.pause(0.005):
                return False
        return True

    # ---- who is who

    def leaders(self):
        return self.cluster.masters() if self.plan.options.get("keepalived") else self.masters

    def node_id(self, who):
        """Returns the number of a node that is given as a number or a role."""
        if not isinstance(who, str):
            return who
        nodes = sorted(self.cluster.nodes)
        leader = next(iter(self.leaders()), nodes[0])
        others = [node_id for node_id in nodes if node_id != leader] or [leader]
        if who == "leader":
            return leader
        if who == "lagging":
            return min(nodes, key=lambda node_id: decisions.read_position(self.cluster.nodes[node_id].cons_dir))
        return others[{"follower": 0, "follower2": min(1, len(others) - 1), "last": -1}[who]]

    def set_masters(self, node_ids):
        self.cluster.set_master(*node_ids)
        self.moved += bool(node_ids) and node_ids != self.masters
        self.masters = list(node_ids)
        self.events.add("master", nodes=self.masters)

    def look_for_masters(self):
        """Notes the leaders that keepalived has chosen."""
        if self.plan.options.get("keepalived"):
            masters = self.cluster.masters()
            if masters != self.masters:
                self.moved += bool(masters)
                self.masters = masters
                self.events.add("master", nodes=masters)

    # ---- network

    def set_rules(self, track, rules):
        with self._net_lock:
            self._rules[track] = [
                {key: self.node_id(value) if key in ("from", "to") else value for key, value in rule.items()}
                for rule in rules]
            merged = [rule for one in self._rules.values() for rule in one]
            self.fabric.ask("rules", rules=merged)
            self.events.add("net", rules=merged)

    def set_cuts(self, track, pairs):
        nodes = sorted(self.cluster.nodes)
        wanted = set()
        for pair in pairs:
            sources, targets = ([self.node_id(who)] if who else nodes for who in pair)
            wanted.update((source, target) for source in sources for target in targets if source != target)
        with self._net_lock:
            self._cuts[track] = wanted
            merged = sorted(set().union(*self._cuts.values()))
            self.fabric.ask("cut", pairs=merged)
            self.events.add("cut", pairs=merged)

    def clear_network(self):
        with self._net_lock:
            self._rules, self._cuts = {}, {}
            self.fabric.ask("rules", rules=[])
            self.fabric.ask("cut", pairs=[])
            self.events.add("cut", pairs=[])

    # ---- processes

    @contextmanager
    def one_down(self, wanted):
        """Keeps other nodes from being down, or behind after a restart, at the same time. Gives False if the faults end
        before it is this node's turn."""
        if not wanted:
            yield True
            return
        while not self._one_down.acquire(timeout=0.1):
            if self.over.is_set():
                yield False
                return
        try:
            yield not self.over.is_set()
        finally:
            self._one_down.release()

    @contextmanager
    def claim(self, who, alone=True):
        """Gives the number of a running node that a fault may hit now, or None if it does not run or the faults are
        over. With `alone`, one_down holds meanwhile."""
        with self.one_down(alone) as may:
            node_id = self.node_id(who)
            yield node_id if may and self.is_running(node_id) else None

    def down_on_purpose(self, pid):
        self._down_on_purpose.add(pid)

    def await_end(self, node_id, timeout_s=3600.0):
        """Returns about when the node's process ended, in ns. None if it still runs after `timeout_s` or at the end of
        the faults."""
        deadline = time.monotonic() + timeout_s
        while self.is_running(node_id):
            if not self.pause(0.01) or time.monotonic() > deadline:
                if self.is_running(node_id):
                    return None
        at_ns = now_ns()
        self.ended(node_id, self.cluster.processes()[node_id])  # the sampler may miss it: it is started again at once
        return at_ns

    def ended(self, node_id, process):
        """Called for every process that has ended. Any end but a planned one is a failure."""
        if process["pid"] not in self._down_on_purpose or process["exit_code"] not in (0, -SIGKILL):
            self.events.add("exit", node=node_id, pid=process["pid"], code=process["exit_code"])

    def kill(self, node_id):
        node = self.cluster.node(node_id)
        pid = node.pid()
        self._down_on_purpose.add(pid)
        self.events.add("kill", node=node_id, pid=pid, point=None)
        node.kill()
        self.arena.node_is_down(node_id)

    def cut_power(self, seed, is_careless):
        """Kills all nodes at one moment. On each disk all certain changes stay; the seed decides about the others."""
        with self._power:
            processes = self.cluster.processes()
            for process in processes.values():
                self._down_on_purpose.add(process["pid"])
            at_ns = self.events.add("power-cut", seed=seed, is_careless=is_careless)
            killed = self.cluster.holder.ask("kill_all", nodes=sorted(self.cluster.nodes))["killed"]
            for node_id in killed:
                self.events.add("kill", at_ns=at_ns, node=node_id, pid=processes[node_id]["pid"], point="power")
            for node_id, node in self.cluster.nodes.items():
                node.await_end()
                self.arena.node_is_down(node_id)
                cut = PowerCut(node.path("flashdisk"), f"{seed} {node_id}", is_careless).make()
                decided = decisions.read_decided(node.cons_dir)
                log = decided.entries() if decided else []
                self.events.add("disk-cut", node=node_id, lost=cut.lost, not_kept=cut.not_kept,
                                number=decided.number if decided else 0, log=log,
                                payloads=sorted(whole_payloads(node.payload_dir)))

    def terminate(self, node_id):
        """Ends the daemon cleanly. Returns its exit code."""
        node = self.cluster.node(node_id)
        pid = node.pid()
        self._down_on_purpose.add(pid)
        self.events.add("term", node=node_id, pid=pid)
        code = node.stop()
        self.events.add("terminated", node=node_id, code=code)
        return code

    def start(self, node_id):
        """Starts the daemon and its load. Raises LabError if it does not come up."""
        self.start_together([node_id])

    def start_together(self, node_ids):
        """As start, for several nodes at one moment."""
        spawned = {}
        with self._power:
            for node_id in node_ids:
                at_ns = now_ns()
                spawned[node_id] = at_ns, self.cluster.node(node_id).spawn()
        for node_id, (at_ns, pid) in spawned.items():
            self.cluster.node(node_id).await_started()
            self.events.add("spawn", at_ns=at_ns, node=node_id, pid=pid)
            if self.plan.options.get("keepalived") and not self.arena.has_keepalived(node_id):
                self.arena.start_keepalived(node_id)
            self.load.begin(node_id)

    def is_running(self, node_id):
        process = self.cluster.processes().get(node_id)
        return bool(process and process["running"])

    def settle(self, node_id):
        """Waits until every running node has delivered what was decided at the time of the call. Returns False if the
        faults end first or it takes too long."""
        wanted = max(decisions.read_position(node.cons_dir)[0] for node in self.cluster.nodes.values())

        def is_settled():
            return self.over.is_set() or all(decisions.delivered_number(node.cons_dir) >= wanted
                                             for node in self.cluster.nodes.values())

        try:
            wait_until(is_settled, SETTLE_S, "the cluster settles", poll_s=0.05)
        except LabError:
            return False
        return not self.over.is_set()

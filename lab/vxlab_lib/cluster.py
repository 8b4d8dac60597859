"""A cluster of real processes on this machine.

    with Cluster("/tmp/lab") as cluster:
        cluster.create(3)
        cluster.start_all(master=1)
        cluster.submit(2, ["one line", "another"]).wait()
        cluster.await_equal()

Use an object from one thread only: the nodes die with the thread that opened the laboratory.
"""

from . import network, programs
from .checker import check_journals
from .decisions import read_position
from .errors import LabError, UsageError
from .holder_client import HolderClient
from .node import Node
from .rundir import RunDir
from .submission import Submission
from .waiting import wait_until

NODES_MAX = 16
ACTIVE_TIMEOUT_S = 30.0


def takes_part(status):
    return status["active"] and status["cluster"]["may_submit"]["yes"]


class Cluster:
    def __init__(self, run_dir, build_dir=None):
        """Uses the laboratory in `run_dir`, up or not, or the place for a new one (`create`)."""
        self.dir = RunDir(run_dir)
        self.holder = HolderClient(self.dir)
        self.nodes = {}
        self._build_dir = build_dir
        self.programs = None
        if self.dir.is_lab():
            self._load()

    def _load(self):
        settings = self.dir.read_settings()
        self._settings = settings
        self.programs = programs.Programs(self._build_dir or settings["build_dir"])
        self.nodes = {
            node: Node(node, self.dir, self.programs, self.holder) for node in range(1, settings["nodes"] + 1)
        }

    def create(self, count, settings=None, detached=False):
        """Makes a new cluster of `count` nodes and opens it. `settings` are further configuration keys, the same for
        all nodes, or a function that returns those of a node object. Replaces a laboratory in the run directory. With
        `detached` it stays up when the caller ends."""
        if not 1 <= count <= NODES_MAX:
            raise UsageError(f"a cluster has 1 to {NODES_MAX} nodes, not {count}")
        found = programs.Programs(self._build_dir or programs.default_build_dir())
        if self.dir.holder_pid():
            raise LabError(f"a laboratory is up in {self.dir.path} already: `vxlab down` ends it")
        self.dir.prepare()
        self.dir.write_settings({"nodes": count, "build_dir": found.build_dir, "partition": []})
        self._load()
        self.open(detached)
        for node in self.nodes.values():
            node.create(count, settings(node) if callable(settings) else settings or {})

    def open(self, detached=False):
        """Brings up the laboratory, with no node running yet."""
        self.holder.start(self.programs.node_view, detached)

    def close(self):
        """Ends all nodes and the laboratory. The run directory stays."""
        self.holder.end()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def node(self, node_id):
        if node_id not in self.nodes:
            raise UsageError(f"there is no node {node_id}: the cluster has nodes 1 to {len(self.nodes)}")
        return self.nodes[node_id]

    def start(self, node_id):
        node = self.node(node_id)
        node.start()
        blocked = network.blocked_by(self.partition_parts(), node_id)
        if blocked:
            node.control.block(blocked)

    def start_all(self, master=None):
        for node_id in self.nodes:
            self.start(node_id)
        if master:
            self.set_master(master)
        self.await_active()

    def stop(self, node_id):
        return self.node(node_id).stop()

    def kill(self, node_id):
        self.node(node_id).kill()

    def restart(self, node_id):
        if self.node(node_id).is_running():
            self.stop(node_id)
        self.start(node_id)

    def running(self):
        return [node_id for node_id, state in self.processes().items() if state["running"]]

    def processes(self):
        """Returns node id -> {"pid", "running", "exit_code"} of the process started last."""
        return {int(node): state for node, state in self.holder.ask("state")["nodes"].items() if node.isdigit()}

    def set_master(self, *node_ids):
        """Says MASTER to these nodes and BACKUP to all others, BACKUP first."""
        for node_id in node_ids:
            self.node(node_id)
        for node_id, node in self.nodes.items():
            if node_id not in node_ids:
                node.write_state("BACKUP")
        for node_id in node_ids:
            self.nodes[node_id].write_state("MASTER")

    def masters(self):
        """Returns the nodes that were told to lead."""
        return [node_id for node_id, node in self.nodes.items() if node.vrrp_state() == "MASTER"]

    def partition_parts(self):
        return [set(part) for part in self.dir.read_settings()["partition"]]

    def partition(self, *parts):
        """From now on nodes of different parts do not hear each other. Without a part all nodes hear all."""
        settings = self.dir.read_settings()
        settings["partition"] = [sorted(part) for part in parts]
        self.dir.write_settings(settings)
        for node_id in self.running():
            self.nodes[node_id].control.block(network.blocked_by(parts, node_id))

    def heal(self):
        self.partition()

    def submit(self, node_id, lines, window=1, timeout_s=60):
        """Starts a Submission. `timeout_s`: from the arrival of a line at the daemon until it gives up."""
        return Submission(self.node(node_id), lines, window, timeout_s)

    def status(self, node_id):
        return self.node(node_id).control.status()

    def last_decision(self, node_id):
        """Returns (number of the last decision, entries in its log) of the node, from its file."""
        return read_position(self.node(node_id).cons_dir)

    def await_active(self, node_ids=None, timeout_s=ACTIVE_TIMEOUT_S):
        """Waits until the nodes take part. A new cluster does so when every node has heard all others."""
        for node_id in node_ids or self.nodes:
            wait_until(lambda node_id=node_id: takes_part(self.status(node_id)), timeout_s, f"node {node_id} takes part")

    def await_equal(self, node_ids=None, timeout_s=60.0):
        """Waits until the journals have the same length, compares them, and returns them."""
        node_ids = list(node_ids or self.nodes)
        counts = {}

        def are_level():
            for node_id in node_ids:
                counts[node_id] = self.status(node_id)["journal"]["lines"]
            return len(set(counts.values())) == 1

        wait_until(are_level, timeout_s, lambda: f"journals of equal length; they have {counts}", poll_s=0.05)
        journals = [self.nodes[node_id].journal() for node_id in node_ids]
        check_journals(journals)
        return journals

"""keepalived chooses the leader in a network of its own: it passes over a node that must not lead."""

import os
import shutil
import sqlite3
import tempfile
import unittest
from contextlib import closing

from scenario import BUILD_DIR, wait_until

from vxlab_lib.chaos import private_space
from vxlab_lib.chaos.arena import Arena
from vxlab_lib.chaos.build import Build
from vxlab_lib.chaos.load import send_some
from vxlab_lib.chaos.plan import Plan

ELECTION_S = 30.0
MORE_THAN_A_LOG = 300


class Wire(unittest.TestCase):
    def setUp(self):
        path = tempfile.mkdtemp(prefix="wire-", dir=private_space.WORK_ROOT)
        self.addCleanup(shutil.rmtree, path)
        plan = Plan(seed=1, nodes=3, faults=[], seconds=0, tracks=[], load={}, options={"keepalived": True})
        self.arena = Arena(path, Build(BUILD_DIR), plan)
        self.addCleanup(self.arena.close)
        self.arena.open()
        self.cluster = self.arena.cluster
        self.cluster.start_all()
        for node in self.cluster.nodes:
            self.arena.start_keepalived(node)
        self.await_master(3)

    def await_master(self, node):
        wait_until(lambda: self.cluster.masters() == [node] and self.cluster.node(node).state() == "MASTER", ELECTION_S,
                   lambda: f"node {node} leads; MASTER are {self.cluster.masters()}")

    def cluster_of(self, node):
        return self.cluster.status(node)["cluster"]

    def test_a_diverged_master_is_passed_over_until_a_state_mends_it(self):
        one, three = self.cluster.node(1), self.cluster.node(3)
        self.assertEqual(send_some(one, 20, 30), 20)
        self.cluster.await_equal()
        self.cluster.stop(3)
        self.arena.node_is_down(3)
        self.await_master(2)
        with closing(sqlite3.connect(three.path("flashdisk", "kesh.store"))) as store:
            with store:
                store.execute("UPDATE payload SET hash = zeroblob(32) WHERE n = (SELECT max(n) FROM payload)")
        self.cluster.start(3)
        self.arena.start_keepalived(3)
        for node, other in ((1, 3), (2, 3), (3, 1), (3, 2)):
            wait_until(lambda node=node, other=other: any(
                peer["node"] == other and peer["verdict"] == "diverged" for peer in self.cluster_of(node)["peers"]),
                10.0, f"node {node} sees that node {other} has diverged")
        self.assertIsNotNone(self.cluster_of(3)["barred"])
        self.assertIsNone(self.cluster_of(2)["barred"])
        self.await_master(2)
        self.assertEqual(send_some(three, 20, 30), 20)
        self.assertEqual(self.cluster.masters(), [2])
        with open(three.log_path, encoding="utf-8") as log:
            self.assertIn("DIVERGED", log.read())
        self.assertEqual(send_some(one, MORE_THAN_A_LOG, 60), MORE_THAN_A_LOG)  # the next log begins with a state
        self.await_master(3)
        self.assertEqual(send_some(one, 20, 30), 20)
        self.assertEqual([journal.count for journal in self.cluster.await_equal()], [MORE_THAN_A_LOG + 60] * 3)
        self.assertTrue([name for name in os.listdir(three.path("flashdisk")) if ".aside-" in name])


if __name__ == "__main__":
    private_space.enter("1g")
    unittest.main()

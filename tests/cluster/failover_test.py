"""Nodes die by kill -9 under load; the others go on, and the lost ones catch up."""

import os
import random
import unittest

from scenario import Scenario


class Failover(Scenario):
    def test_leader_dies_and_comes_back(self):
        parts = {1: self.submit(1, 400, window=1), 2: self.submit(2, 400), 3: self.submit(3, 400)}
        self.await_acknowledged(parts[1], 40)  # it is not done before the others
        self.cluster.kill(1)
        self.cluster.set_master(2)
        for node in (2, 3):
            parts[node].wait()
        parts[1].join(10.0)
        self.assertIsNotNone(parts[1].error)
        self.cluster.start(1)
        self.check_all()
        self.submit(1, 20).wait()
        self.check_all()

    def test_any_node_dies_again_and_again(self):
        seed = int(os.environ.get("VX_SEED", random.randrange(1 << 16)))
        print(f"VX_SEED={seed}")
        source = random.Random(seed)
        for _ in range(4):
            leader = self.cluster.masters()[0]
            parts = {node: self.submit(node, 150) for node in (1, 2, 3)}
            victim = source.choice((1, 2, 3))
            self.await_acknowledged(parts[victim], source.randrange(1, 100))
            self.cluster.kill(victim)
            if victim == leader:
                self.cluster.set_master(victim % 3 + 1)
            for node in {1, 2, 3} - {victim}:
                parts[node].wait()
            parts[victim].join(10.0)
            self.cluster.start(victim)
            self.check_all()


if __name__ == "__main__":
    unittest.main()

"""The network splits, with a MASTER on each side."""

import unittest

from scenario import Scenario, wait_until


class Partition(Scenario):
    def test_two_masters_and_a_split(self):
        self.submit(1, 50).wait()
        self.cluster.partition({1}, {2, 3})
        alone = self.submit(1, 5)
        self.cluster.node(2).write_state("MASTER")
        # More than a log: what node 1 misses cannot be read off the log that it finds afterwards.
        self.submit(2, 400, window=1).wait()
        self.submit(3, 50).wait()
        self.assertEqual(len(alone.acknowledged), 0, "a minority acknowledged a line")
        self.assertTrue(self.cluster.status(1)["active"])
        dropped = self.cluster.status(2)["messages"]["dropped"]
        self.assertGreater(dropped["blocked"], 0, dropped)
        self.cluster.heal()
        self.submit(3, 50).wait()
        self.cluster.set_master(2)
        alone.wait()
        self.check_all()

    def test_a_follower_is_cut_off(self):
        self.cluster.partition({3}, {1, 2})
        cut_off = self.submit(3, 5)
        self.submit(2, 300, window=1).wait()
        self.assertEqual(len(cut_off.acknowledged), 0)
        self.cluster.heal()
        cut_off.wait()
        self.check_all()

    def test_two_masters_without_a_split(self):
        """They duel, which may be slow, but nothing is lost, doubled or ordered in two ways."""
        self.cluster.set_master(1, 2)
        parts = [self.submit(node, 60) for node in (1, 2, 3)]
        wait_until(lambda: sum(len(part.acknowledged) for part in parts) > 30, 40.0, "30 lines under two leaders")
        self.cluster.set_master(2)
        for part in parts:
            part.wait()
        self.check_all()


if __name__ == "__main__":
    unittest.main()

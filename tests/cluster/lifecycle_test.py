"""Clean stops and starts, and nodes that freeze for a while."""

import unittest

from scenario import Scenario


class Lifecycle(Scenario):
    def test_each_role_stops_under_load_and_starts_again(self):
        for victim in (3, 1):
            parts = {node: self.submit(node, 150) for node in (1, 2, 3)}
            self.await_acknowledged(parts[victim], 20)
            self.assertEqual(self.cluster.stop(victim), 0)
            if victim == 1:
                self.cluster.set_master(2)
            for node in {1, 2, 3} - {victim}:
                parts[node].wait()
            parts[victim].join(10.0)
            self.cluster.start(victim)
            self.check_all()

    def test_whole_cluster_stops_and_goes_on_where_it_was(self):
        self.submit(2, 300, window=1).wait()
        before = self.check_all()[0]
        for node in (3, 2, 1):
            self.assertEqual(self.cluster.stop(node), 0)
        self.cluster.start_all()
        self.submit(3, 30).wait()
        after = self.check_all()[0]
        self.assertEqual(after.lines[: before.count], before.lines)

    def test_frozen_nodes(self):
        """A leader that freezes, and thaws as one of two MASTERs: it must neither decide alone nor stay behind."""
        self.submit(1, 50).wait()
        self.cluster.node(1).pause()
        self.cluster.node(2).write_state("MASTER")
        self.submit(2, 300, window=1).wait()
        self.cluster.node(1).resume()
        self.submit(3, 50).wait()
        self.cluster.set_master(2)
        self.submit(1, 50).wait()
        self.check_all()


if __name__ == "__main__":
    unittest.main()

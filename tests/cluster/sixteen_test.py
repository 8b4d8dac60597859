"""The largest cluster."""

import unittest

from scenario import Scenario


class Sixteen(Scenario):
    nodes = 16

    def test_sixteen_nodes_agree_and_survive_seven(self):
        for part in [self.submit(node, 30, window=1) for node in (1, 5, 11, 16)]:
            part.wait()
        self.check_all()
        for node in range(1, 8):
            self.cluster.kill(node)
        self.cluster.set_master(8)
        for part in [self.submit(node, 20, window=1) for node in (8, 12, 16)]:
            part.wait()
        self.check_all(range(8, 17))
        self.cluster.start(1)
        self.check_all([1, *range(8, 17)])


if __name__ == "__main__":
    unittest.main()

"""What the scenarios share: a cluster per test, and what must hold in the end."""

import os
import shutil
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
BUILD_DIR = os.environ["VX_BUILD_DIR"]
sys.path.insert(0, os.environ["VX_LAB_DIR"])

from vxlab_lib.checker import check_journals  # noqa: E402
from vxlab_lib.cluster import Cluster  # noqa: E402
from vxlab_lib.waiting import wait_until  # noqa: E402

LOG_LINES_SHOWN = 15


def lines(name, count):
    return [f"{name} {number}".encode() for number in range(count)]


def has_failed(case):
    """Whether a test, or a part of it (`subTest`), has failed so far."""
    outcome = case._outcome.result
    return any(getattr(one, "test_case", one) is case for one, _ in outcome.failures + outcome.errors)


class Scenario(unittest.TestCase):
    """One cluster on the real disk of the build tree. What was submitted through `submit` is checked by `check_all`."""

    nodes = 3
    settings = {}

    def setUp(self):
        self.path = tempfile.mkdtemp(prefix="lab-", dir=BUILD_DIR)
        self.addCleanup(shutil.rmtree, self.path)
        self.cluster = self.make_cluster()
        self.addCleanup(self.cluster.close)
        self.addCleanup(self.show_logs_of_failure)
        self.submissions = []
        self.cluster.create(self.nodes, self.settings)
        self.before_start()
        self.cluster.start_all(master=1)

    def make_cluster(self):
        return Cluster(self.path, BUILD_DIR)

    def before_start(self):
        """For what has to be there before the first node runs."""

    def show_logs_of_failure(self):
        if not has_failed(self):
            return
        for node in self.cluster.nodes.values():
            print(f"--- end of the log of node {node.id}", file=sys.stderr)
            with open(node.log_path, encoding="utf-8", errors="replace") as log:
                sys.stderr.writelines(log.readlines()[-LOG_LINES_SHOWN:])

    def log_of(self, node):
        with open(self.cluster.node(node).log_path, encoding="utf-8", errors="replace") as log:
            return log.read()

    def await_log(self, node, text, timeout_s=20.0):
        """The daemon's log is written by a thread of its own, so a line may come after what it tells."""
        wait_until(lambda: text in self.log_of(node), timeout_s, f"node {node} logs: {text}")

    def submit(self, node, count, window=4, timeout_s=60):
        name = f"node {node}, part {len(self.submissions)}, line"
        self.submissions.append(self.cluster.submit(node, lines(name, count), window, timeout_s))
        return self.submissions[-1]

    def await_acknowledged(self, part, count, timeout_s=30.0):
        wait_until(lambda: len(part.acknowledged) >= count or part.is_done(), timeout_s,
                   lambda: f"{count} lines of node {part.node.id}; {len(part.acknowledged)} are acknowledged")
        self.assertGreaterEqual(len(part.acknowledged), count, part.error)

    def check_all(self, nodes=None):
        """All journals equal, nothing doubled, and every acknowledged line in each of them."""
        journals = self.cluster.await_equal(nodes)
        acknowledged = {}
        for part in self.submissions:
            acknowledged.update(part.texts())
        check_journals(journals, acknowledged)
        return journals

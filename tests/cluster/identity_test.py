"""Who belongs to a cluster: others on the same network change nothing, and a node keeps its lines when its identity
changes, wherever the change is interrupted."""

import os
import subprocess
import unittest

from scenario import BUILD_DIR, Scenario, wait_until

from vxlab_lib.checker import check_journals
from vxlab_lib.journal import read_journal
from vxlab_lib.node import Node

BAD_CONFIG = 3
KILLED = -9
CRASH_POINTS_MAX = 200


def addresses(first_node, first_byte):
    return {f"messaging.node[{first_node + i}].address": f"127.1.0.{first_byte + i}" for i in range(3)}


class Neighbours(Scenario):
    """Both sides have each other's addresses in their configuration: else each drops what it hears of the other."""

    settings = addresses(11, 101)

    def guest(self, key, number, name, nodes):
        """Returns a node that has this number in a cluster of this name, and addresses of its own."""
        node = Node(key, self.cluster.dir, self.cluster.programs, self.cluster.holder)
        node.number, node.cluster_name = number, name
        node.create(nodes, addresses(1, 101) | addresses(11, 1))
        self.cluster.nodes[key] = node
        return node

    def strangers_of(self, node):
        return self.cluster.status(node)["cluster"]["stranger"]

    def test_two_clusters_on_one_network(self):
        for key in (11, 12, 13):
            self.guest(key, key - 10, "elsewhere", 3)
            self.cluster.start(key)
        self.cluster.node(11).write_state("MASTER")
        self.cluster.await_active()
        here = self.submit(2, 300)
        there = self.submit(12, 300)
        here.wait()
        there.wait()
        for part, nodes in ((here, (1, 2, 3)), (there, (11, 12, 13))):
            check_journals(self.cluster.await_equal(nodes), part.texts())
            self.assertEqual(self.cluster.status(nodes[0])["journal"]["lines"], 300)
        self.assertEqual(self.strangers_of(1)["cluster"], "elsewhere")
        self.assertEqual(self.strangers_of(13)["cluster"], "lab")

    def test_a_double_stops_itself_and_its_original(self):
        self.submit(1, 20).wait()
        self.guest(11, 1, "lab", 3).start()
        for node in (1, 11):
            self.await_log(node, "another daemon has the number of this node")
            wait_until(lambda node=node: not self.cluster.status(node)["active"], 20.0, f"node {node} stops")
        self.cluster.set_master(2)
        self.submit(3, 20).wait()
        self.cluster.stop(11)
        del self.cluster.nodes[11]
        self.cluster.restart(1)
        self.submit(1, 20).wait()
        self.assertEqual([one.count for one in self.check_all()], [60, 60, 60])

    def test_a_node_that_missed_a_reform(self):
        self.submit(3, 20).wait()
        self.check_all()
        for node in (1, 2, 3):
            self.cluster.stop(node)
        for node in (1, 2):
            self.cluster.node(node).reform(2, "--without", "3")
        for node in (1, 2, 3):
            self.cluster.node(node).start()
        self.cluster.set_master(1)
        self.cluster.await_active((1, 2))
        self.submit(2, 300).wait()
        wait_until(lambda: any(one["node"] == 3 and one["generation"] == 1
                               for one in self.cluster.status(1)["cluster"]["peers"]), 10.0, "node 1 hears node 3")
        self.assertEqual(self.cluster.status(3)["journal"]["lines"], 20)
        self.assertIn("other_cluster", self.cluster.status(3)["messages"]["peers"][0]["dropped"])
        self.await_log(3, "node 1 (127.1.0.1) are dropped: they are of another cluster")
        self.cluster.stop(3)
        self.cluster.node(3).reform(2)
        self.cluster.start(3)
        self.submit(3, 20).wait()
        self.assertEqual([one.count for one in self.check_all()], [340, 340, 340])


class Interrupted(Scenario):
    """configure and reform of node 3, killed before each change of a file in turn."""

    def command(self, rule, subcommand, *arguments):
        """Returns the exit code and the words of a subcommand for node 3, which ends where `rule` says."""
        node = self.cluster.node(3)
        with open(node.path("rules"), "w", encoding="ascii") as file:
            file.write(rule + "\n")
        faults = ["LD_PRELOAD=" + os.path.join(BUILD_DIR, "lib", "libvx_disk_faults.so"),
                  "VX_DISK_FAULTS=" + node.path("rules")]
        done = subprocess.run(node.view("env", *faults, self.cluster.programs.kesh, subcommand, "--config",
                                        node.path("kesh.conf"), *arguments),
                              capture_output=True, text=True, check=False, timeout=30)
        return done.returncode, done.stdout + done.stderr

    def kill_everywhere(self, calls, next_command):
        """Gives the command that `next_command` returns again and again, killed before each such call in turn. Gives
        each that was killed, for the caller to look at what is left, and then gives it once more."""
        for call in calls:
            for count in range(1, CRASH_POINTS_MAX):
                arguments = next_command()
                code, words = self.command(f"kill_before {call} {count}", *arguments)
                if code == 0:
                    break
                self.assertEqual(code, KILLED, words)
                yield arguments
                code, words = self.command("", *arguments)
                self.assertEqual(code, 0, f"{call} {count}: {words}")
            else:
                self.fail(f"{call}: it is killed again and again, and never gets through")
            self.assertGreater(count, 1, f"{call}: there is no such call")

    def interrupt_everywhere(self, generation, subcommand, *arguments):
        """Each command is for a new generation. Returns (the last one, how often the daemon refused meanwhile)."""
        refused = 0

        def next_command():
            nonlocal generation
            generation += 1
            return (subcommand, *arguments, "--generation", str(generation), "--yes")

        for whole in self.kill_everywhere(("rename:*", "unlink:*", "sync:*", "open:*"), next_command):
            if os.path.exists(self.cluster.node(3).path("flashdisk", "kesh.store.configuring")):
                code, words = self.command("", "run")
                self.assertEqual(code, BAD_CONFIG, words)
                self.assertIn(" ".join(("kesh", *whole)).removesuffix(" --yes"), words)
                refused += 1
        return generation, refused

    def test_restore(self):
        self.submit(3, 20).wait()
        self.check_all()
        copy = self.cluster.dir.file("backup")
        self.assertEqual(subprocess.run(self.cluster.node(3).kesh("backup", copy), cwd=self.cluster.node(3).dir,
                                        check=False).returncode, 0)
        self.submit(3, 20).wait()
        self.cluster.stop(3)
        killed = list(self.kill_everywhere(("rename:host/*", "unlink:host/*", "sync:host/*", "open:host/*"),
                                           lambda: ("restore", copy)))
        self.assertGreater(len(killed), 3)
        self.cluster.start(3)
        self.submit(3, 20).wait()
        self.check_all()

    def test_configure(self):
        self.submit(3, 20).wait()
        self.check_all()
        self.cluster.stop(3)
        configure = ("configure", "--nodes", "3", "--id", "3", "--cluster", "lab")
        _, refused = self.interrupt_everywhere(1, *configure)
        self.assertGreater(refused, 10)
        directory = self.cluster.node(3).path("flashdisk")
        aside = [name for name in os.listdir(directory) if ".aside-" in name and not name.endswith("-wal")]
        kept = [read_journal(os.path.join(directory, name), 3, False).count for name in aside]
        self.assertEqual(sorted(kept)[-1:], [20], aside)
        self.assertEqual(self.command("", *configure, "--generation", "1", "--yes")[0], 0)
        self.cluster.start(3)
        self.submit(3, 20).wait()
        self.check_all()

    def test_reform(self):
        self.submit(3, 20).wait()
        self.check_all()
        for node in (1, 2, 3):
            self.cluster.stop(node)
        generation, refused = self.interrupt_everywhere(1, "reform")
        self.assertGreater(refused, 10)
        for node in (1, 2):
            self.cluster.node(node).reform(generation)
        self.cluster.start_all(master=1)
        self.submit(3, 20).wait()
        self.assertEqual([one.count for one in self.check_all()], [40, 40, 40])


if __name__ == "__main__":
    unittest.main()

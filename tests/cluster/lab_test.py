"""The laboratory itself: views that are private, and nothing that stays behind."""

import os
import select
import signal
import subprocess
import unittest

from scenario import BUILD_DIR, Scenario, wait_until
from vxlab_lib.checker import check_journals
from vxlab_lib.errors import CheckFailed
from vxlab_lib.journal import Journal, Line

VIEW = os.path.join(BUILD_DIR, "bin", "vx-node-view")


def mounts():
    with open("/proc/self/mountinfo", encoding="utf-8") as file:
        return file.read()


class View(unittest.TestCase):
    def view(self, *arguments):
        return subprocess.run([VIEW, *arguments], capture_output=True, text=True, check=False)

    def test_private_and_gone_at_the_end(self):
        before = mounts(), os.listdir("/"), os.listdir("/run")
        script = "echo x >/flashdisk/cons/a && echo y >/var/run/b && cat /run/b && readlink /proc/self/ns/net && exit 7"
        result = self.view("--tmp", "--net-new", "--", "sh", "-c", script)
        self.assertEqual(result.returncode, 7, result.stderr)
        written, network = result.stdout.splitlines()
        self.assertEqual(written, "y")
        self.assertNotEqual(network, os.readlink("/proc/self/ns/net"))
        self.assertEqual((mounts(), os.listdir("/"), os.listdir("/run")), before)

    def test_errors(self):
        self.assertEqual(self.view("--tmp", "--", "/nowhere/at/all").returncode, 127)
        self.assertEqual(self.view("--tmp", "--", "/etc/passwd").returncode, 126)
        refused = self.view("--flashdisk", "/nowhere", "--", "true")
        self.assertEqual(refused.returncode, 125)
        self.assertIn("/nowhere", refused.stderr)

    def test_dies_with_its_parent(self):
        script = f"{VIEW} --tmp -- sh -c 'echo $$; exec sleep 600' & wait"
        parent = subprocess.Popen(["sh", "-c", script], stdout=subprocess.PIPE, text=True)
        child = os.pidfd_open(int(parent.stdout.readline()))
        parent.kill()
        parent.communicate()
        wait_until(lambda: has_ended(child), 10.0, "the command ends with its parent")


def has_ended(pidfd):
    """A process that has ended is readable through its descriptor, also when nobody has reaped it yet."""
    return bool(select.select([pidfd], [], [], 0)[0])


def journal_of(*lines, node=1, repeats=()):
    """`lines` are (number, hash, tag, text), all submitted once."""
    return Journal(node, [Line(number, hash_, tag, 1, text) for number, hash_, tag, text in lines], 0, set(repeats))


class JournalCheck(unittest.TestCase):
    """The judge of all other scenarios has to see what is wrong."""

    def test_finds_each_fault(self):
        one, two, three = (1, "0a", "1.00.1", b"text"), (2, "0b", "1.00.2", b"te\x01"), (3, "0c", "1.00.3", b"")
        good = journal_of(one, two, three)
        check_journals([good, journal_of(one, two, three, node=2, repeats=[("1.00.2", 2)])])
        faults = {
            "gap": (one, three),
            "tag twice": (one, two, (3, "0c", "1.00.1", b"text")),
            "shorter": (one, two),
            "other hash": (one, two, (3, "0d", "1.00.3", b"")),
            "other order": ((1, "0a", "1.00.2", b"te\x01"), (2, "0b", "1.00.1", b"text"), three),
        }
        for name, lines in faults.items():
            with self.subTest(name), self.assertRaises(CheckFailed):
                check_journals([good, journal_of(*lines, node=2)])
        for name, acknowledged in {"missing": {"2.00.1": b"x"}, "other text": {"1.00.1": b"texts"}}.items():
            with self.subTest(name), self.assertRaises(CheckFailed):
                check_journals([good], acknowledged)


class Laboratory(Scenario):
    def test_nodes_die_with_the_holder(self):
        nodes = [os.pidfd_open(node.pid()) for node in self.cluster.nodes.values()]
        self.cluster.node(2).pause()
        os.kill(self.cluster.dir.holder_pid(), signal.SIGKILL)
        for node in nodes:
            wait_until(lambda node=node: has_ended(node), 10.0, "a node ends with the holder")
        self.assertIsNone(self.cluster.dir.holder_pid())

    def test_settled_commands(self):
        vxlab = [os.path.join(os.environ["VX_LAB_DIR"], "vxlab"), "--dir", self.path, "--bin", BUILD_DIR]

        def call(*arguments, **options):
            return subprocess.run([*vxlab, *arguments], capture_output=True, text=True, timeout=50, check=False,
                                  **options)

        self.assertEqual(call("up", "3").returncode, 5, "a second laboratory in the same directory")
        self.assertEqual(call("kesh", "2", "submit", "-", input="one\ntwo\n").returncode, 0)
        self.check_all()
        self.assertEqual(call("kesh", "3", "journal").stdout, "one\ntwo\n")
        self.assertEqual(call("kill", "9").returncode, 2)
        self.assertEqual(call("kill", "3").returncode, 0)
        self.assertIn("signal 9", call("status").stdout)
        self.assertEqual(call("kesh", "1", "say", "hello there").returncode, 0)
        wait_until(lambda: "node 1: hello there" in call("kesh", "2", "heard").stdout, 5.0, "node 2 hears node 1")
        self.assertEqual(call("down").returncode, 0)
        self.assertEqual(call("status").returncode, 4)


if __name__ == "__main__":
    unittest.main()

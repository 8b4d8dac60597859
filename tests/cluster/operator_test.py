"""What operators, scripts and impatient clients do to a daemon: nothing acknowledged goes, and it always answers."""

import contextlib
import filecmp
import json
import os
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
import time
import unittest
import zlib

from prometheus_client.parser import text_string_to_metric_families
from scenario import Scenario, wait_until

from vxlab_lib import control
from vxlab_lib.errors import LabError

LISTEN = "127.1.0.1:9817"
BAD_CONFIG, UNREACHABLE, REFUSED, UNKNOWN = 3, 4, 5, 6
SOON_S = 10  # a command that forgets its deadline takes at least a minute, and a busy machine some seconds


class Operator(Scenario):
    def settings(self, node):
        return {"metrics.listen": LISTEN} if node.id == 1 else {}

    def path_of(self, node, name):
        return self.cluster.node(node).path("flashdisk", name)

    def test_the_master_starts_without_its_store(self):
        """It must not hand its emptiness to the others with the next log, not even after a restart of all."""
        self.submit(1, 350, window=1).wait()
        self.cluster.kill(1)
        os.rename(self.path_of(1, "kesh.store"), self.path_of(1, "elsewhere"))
        self.cluster.start(1)
        for node in (1, 2, 3):
            self.cluster.kill(node)
        self.cluster.start_all(master=1)
        self.await_log(1, "this node may not lead")
        self.cluster.set_master(2)
        self.submit(2, 300, window=1).wait()
        self.cluster.set_master(1)
        self.submit(3, 300, window=1).wait()
        self.assertEqual([one.base for one in self.check_all()], [0, 0, 0])

    def told_by(self, node):
        """Returns the decision that the node has told node 1."""
        peers = self.cluster.status(1)["cluster"]["peers"]
        return next((one["decision"] for one in peers if one["node"] == node), None)

    def test_the_journal_of_an_earlier_build_is_taken_over_once(self):
        self.submit(1, 20).wait()
        self.check_all()
        records = [f"L {number} {number:016x} 1.00000000000000ff.{number} 1 old {number}" for number in range(1, 41)]
        old = "".join(f"{zlib.crc32(record.encode()):08x} {record}\n" for record in records)
        for node in (1, 2, 3):
            self.cluster.stop(node)
            os.remove(self.path_of(node, "kesh.store"))
            with open(self.path_of(node, "journal"), "w", encoding="ascii") as file:
                file.write(old)
        self.submissions.clear()
        self.cluster.start_all(master=1)
        self.submit(2, 300, window=1).wait()
        self.assertEqual([(one.base, one.count) for one in self.check_all()], [(40, 340)] * 3)
        self.cluster.stop(3)
        os.remove(self.path_of(3, "kesh.store"))  # now the others tell it, not its old journal
        self.cluster.start(3)
        self.submit(3, 20).wait()
        self.assertEqual([(one.base, one.count) for one in self.check_all()], [(40, 360)] * 3)
        with open(self.path_of(3, "journal"), encoding="ascii") as file:
            self.assertEqual(file.read(), old)
        self.assertIn("lines 39 to 40 are not kept on this node", self.run_on(1, "journal", "--since", "39").stderr)
        rows = [json.loads(row) for row in self.run_on(1, "journal", "--since", "359", "--json").stdout.splitlines()]
        self.assertEqual([row["line"] for row in rows], [359, 360])

    def test_a_disk_of_yesterday(self):
        """Its store is filled anew; with its records the node stops, since it has forgotten votes."""
        self.submit(3, 20).wait()
        self.cluster.stop(3)
        shutil.copytree(self.path_of(3, ""), self.path_of(3, "../yesterday"))
        self.cluster.start(3)
        self.submit(3, 20).wait()
        self.cluster.stop(3)
        for name in os.listdir(self.path_of(3, "../yesterday")):
            if name.startswith("kesh.store"):
                shutil.copy(self.path_of(3, "../yesterday/" + name), self.path_of(3, name))
        self.assertIn("records   do not fit", self.cluster.node(3).offline("verify"))
        self.cluster.start(3)
        self.submit(3, 20).wait()
        self.check_all()
        self.assertEqual(self.cluster.status(3)["journal"]["rejoined"], 1)
        wait_until(lambda: self.told_by(3) == self.cluster.status(3)["decision"]["number"], 20.0,
                   "node 1 has heard of node 3's decisions")
        self.cluster.stop(3)
        shutil.rmtree(self.path_of(3, "cons"))
        os.rename(self.path_of(3, "../yesterday/cons"), self.path_of(3, "cons"))
        self.cluster.node(3).start()
        wait_until(lambda: not self.cluster.status(3)["active"], 20.0, "node 3 stops")
        self.await_log(3, "THE DISK WENT BACK")
        wait_until(lambda: [one["role"] for one in self.cluster.status(1)["cluster"]["peers"]][1] == "stopped", 10.0,
                   "node 1 hears that node 3 is stopped")
        unheard = self.cluster.status(3)["messages"]["dropped"]["filtered_in"]
        self.submit(1, 20).wait()
        self.assertGreater(self.cluster.status(3)["messages"]["dropped"]["filtered_in"], unheard, "it must not vote")
        self.cluster.stop(3)
        self.cluster.node(3).configure(3)
        self.cluster.start(3)
        self.submit(3, 20).wait()
        self.check_all()

    def run_on(self, node, *arguments):
        one = self.cluster.node(node)
        return subprocess.run(one.kesh(*arguments), cwd=one.dir, capture_output=True, check=True, text=True, timeout=20)

    def code_of(self, node, *arguments, timeout_s=20):
        one = self.cluster.node(node)
        return subprocess.run(one.kesh(*arguments), cwd=one.dir, capture_output=True, check=False,
                              timeout=timeout_s).returncode

    def kesh_submit(self, node, text, timeout_s):
        """Returns (exit code, seconds) of a submission of this text."""
        one = self.cluster.node(node)
        began = time.monotonic()
        done = subprocess.run(one.kesh("submit", "--timeout", str(timeout_s)), cwd=one.dir, input=text,
                              capture_output=True, check=False, timeout=60)
        return done.returncode, time.monotonic() - began

    def test_without_a_quorum_it_keeps_deadlines_and_answers(self):
        self.submit(1, 20).wait()
        for node in (2, 3):
            self.cluster.kill(node)
        code, seconds = self.kesh_submit(1, b"in doubt\n", 2)
        self.assertEqual(code, UNKNOWN)
        self.assertLess(seconds, SOON_S)
        one = self.cluster.node(1)
        abandoned = [subprocess.Popen(one.kesh("submit"), cwd=one.dir, stdin=subprocess.PIPE, stderr=subprocess.DEVNULL)
                     for _ in range(130)]
        for client in abandoned:
            client.stdin.write(b"abandoned\n")
            client.stdin.flush()
        wait_until(lambda: self.cluster.status(1)["submissions"]["open"] >= 130, 20.0, "130 lines are open")
        for client in abandoned:
            client.kill()
            client.communicate()
        wait_until(lambda: "only 1 of 3 nodes heard, a quorum is 2" in self.cluster.status(1)["cluster"]["sentence"], 15.0,
                   "node 1 says that it hears nobody")
        for arguments, code in ((["status"], 0), (["health", "--live"], 0), (["health", "--ready"], REFUSED)):
            self.assertEqual(self.code_of(1, *arguments, timeout_s=5), code)
        code, seconds = self.kesh_submit(1, b"behind them\n", 1)
        self.assertIn(code, (REFUSED, UNKNOWN))
        self.assertLess(seconds, SOON_S)
        began = time.monotonic()
        self.assertEqual(self.code_of(1, "leave"), 0)
        self.assertEqual(self.cluster.stop(1), 0)
        self.assertLess(time.monotonic() - began, SOON_S)
        self.cluster.start_all(master=1)
        self.submit(1, 20).wait()
        self.check_all()

    def metrics_of(self, node):
        """Returns {(sample name, labels): value}."""
        one = self.cluster.node(node)
        return self.samples_of(subprocess.run(one.kesh("metrics"), cwd=one.dir, capture_output=True, text=True,
                                              check=True).stdout)

    def http_of(self, path):
        """Returns what node 1 answers at metrics.listen."""
        ask = f"import urllib.request as web; print(web.urlopen('http://{LISTEN}{path}', timeout=10).read().decode())"
        return self.cluster.node(1).run_inside(["/usr/bin/python3", "-c", ask])

    def samples_of(self, text):
        """Returns {(sample name, labels): value}. The text must be what Prometheus reads."""
        families = list(text_string_to_metric_families(text))
        self.assertEqual([family.name for family in families if family.type == "unknown" or not family.samples], [])
        return {(sample.name, *sorted(sample.labels.items())): sample.value
                for family in families for sample in family.samples}

    def check_alert_rules(self, samples):
        """They name only what there is."""
        path = os.path.join(os.environ["VX_LAB_DIR"], "..", "host", "prometheus", "kesh.rules.yml")
        with open(path, encoding="utf-8") as file:
            rules = re.findall(r"^ *expr: (.*)$", file.read(), re.MULTILINE)
        self.assertGreater(len(rules), 5)
        self.assertLessEqual(set(re.findall(r"kesh_\w+", " ".join(rules))), {name for name, *_ in samples})
        told = {label for _, *labels in samples for label in labels}
        for name, values in re.findall(r'(reason|result)=~?"([^"]*)"', " ".join(rules)):
            self.assertLessEqual({(name, value) for value in values.split("|")}, told)

    def test_metrics_count_what_happens(self):
        before = self.metrics_of(1)
        self.submit(1, 20).wait()
        self.check_all()
        wait_until(lambda: self.metrics_of(2)[("kesh_leader_changes_total",)] == 0 and
                   self.metrics_of(2)[("kesh_ordering",)] == 1, 10.0, "node 2 sees the leader")
        after = self.metrics_of(1)
        for name, more in (("kesh_submissions_total", 20), ("kesh_submission_seconds_count", 20)):
            key = (name, ("result", "acknowledged")) if name.endswith("total") else (name,)
            self.assertEqual(after[key] - before[key], more, name)
        asked = self.samples_of(self.http_of("/metrics"))
        self.assertEqual(asked.keys(), after.keys())
        self.assertEqual(asked["kesh_journal_lines",], 20)
        self.assertEqual(asked["kesh_commit_seconds_count",], asked["kesh_payloads_applied",])
        for kind, least in (("record", 2), ("register", 1), ("payload", 1)):  # each payload needs at least so many
            self.assertGreaterEqual(asked["kesh_save_seconds_count", ("file", kind)],
                                    least * asked["kesh_payloads_applied",], kind)
        for channel in ("3", "4", "5", "7"):
            self.assertGreater(asked["kesh_datagrams_total", ("channel", channel), ("direction", "sent")], 0, channel)
        self.assertEqual(asked["kesh_roll_over_seconds_count",], 1)  # the first log
        self.assertGreater(asked["kesh_roll_over_seconds_sum",], 0)
        self.assertGreater(asked["kesh_number_space_used_ratio", ("numbers", "identifier")], 0)
        self.check_alert_rules(asked)
        for path in ("/", "/metrics/", "/../etc/passwd"):
            with self.assertRaisesRegex(LabError, "404"):
                self.http_of(path)
        self.assertEqual(after["kesh_submission_seconds_bucket", ("le", "+Inf")], 20)
        self.assertEqual(after[("kesh_journal_lines",)], 20)
        self.assertGreater(after[("kesh_decision",)], 0)
        self.assertLess(after["kesh_peer_last_heard_seconds", ("node", "2")], 5)
        self.cluster.set_master(2)
        wait_until(lambda: self.metrics_of(3)[("kesh_leader_changes_total",)] == 1, 15.0, "node 3 counts the change")
        self.cluster.kill(2)
        self.cluster.kill(1)
        wait_until(lambda: self.metrics_of(3)[("kesh_ordering",)] == 0, 15.0, "node 3 says that nothing is ordered")
        wait_until(lambda: self.metrics_of(3)[("kesh_not_ordering_seconds_total",)] > 1, 15.0, "it counts for how long")
        self.cluster.kill(3)
        self.cluster.start(3)
        self.assertIn(("kesh_peer_last_heard_seconds", ("node", "1")), self.metrics_of(3), "a node that it never heard")

    def test_commands_notice_a_daemon_that_hangs_or_dies(self):
        self.submit(1, 20).wait()
        one = self.cluster.node(1)
        self.assertEqual((self.code_of(1, "journal"), self.code_of(1, "heard")), (0, 0))
        with subprocess.Popen(one.kesh("journal", "--follow"), cwd=one.dir, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as follows, contextlib.ExitStack() as at_end:
            at_end.callback(follows.kill)
            for _ in range(20):
                self.assertTrue(follows.stdout.readline())
            one.signal(signal.SIGSTOP)
            self.assertEqual(self.code_of(1, "leave", "--timeout", "0.2"), UNREACHABLE)
            self.assertEqual(self.code_of(1, "stop", "--timeout", "0.2"), UNREACHABLE)
            code, seconds = self.kesh_submit(1, b"nobody takes it\n", 1)
            self.assertEqual(code, UNREACHABLE)
            self.assertLess(seconds, SOON_S)
            self.assertEqual(self.code_of(1, "vrrp", "MASTER"), 0)
            self.cluster.kill(1)
            self.assertEqual(follows.wait(10), UNREACHABLE)

    def test_the_service_manager_is_told(self):
        one = self.cluster.node(1)
        self.cluster.stop(1)
        directory = os.open(one.path("run"), os.O_PATH)
        self.addCleanup(os.close, directory)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(f"/proc/self/fd/{directory}/notify.sock")  # the whole path may be too long for an address
            manager.settimeout(20)
            one.environment = {"NOTIFY_SOCKET": "/run/notify.sock"}

            def hear(word):
                heard = [manager.recv(4096).decode()]
                while heard[-1] != word:
                    heard.append(manager.recv(4096).decode())
                return heard

            self.cluster.start(1)
            before = hear("READY=1")
            self.assertTrue(before[0].startswith("EXTEND_TIMEOUT_USEC="))
            self.assertNotIn("WATCHDOG=1", before)
            hear("WATCHDOG=1")
            one.signal(signal.SIGSTOP)
            manager.settimeout(2)
            with self.assertRaises(TimeoutError, msg="a daemon that hangs feeds no watchdog"):
                for _ in range(100):
                    manager.recv(4096)
            one.signal(signal.SIGCONT)
            manager.settimeout(20)
            hear("WATCHDOG=1")
            self.cluster.stop(1)
            hear("STOPPING=1")
            # A manager that does not read for a while: nobody waits for it, and it hears what matters later.
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other, self.assertRaises(BlockingIOError):
                other.setblocking(False)
                while True:
                    other.sendto(b"something", manager.getsockname())
            self.cluster.start(1)
            hear("READY=1")

    def test_requests_and_files_that_cannot_be_right(self):
        one = self.cluster.node(1)
        for field in ("-1", "1e300", "NaN", "null", '"7"', "1.5"):
            for request in ('{"op": "journal", "since": %s}', '{"op": "submit", "window": %s}',
                            '{"op": "probe", "count": %s}',
                            '{"op": "submit", "timeout_s": %s, "window": 1}'):
                if "timeout_s" in request and field == "1.5":
                    continue
                with self.assertRaises(LabError, msg=request % field):
                    with control.connect(one.path("run"), "node 1", request % field):
                        pass
        self.cluster.stop(1)
        os.mkfifo(one.path("fifo"))
        with open(one.path("empty"), "wb"):
            pass
        for name, why in (("fifo", "not a regular file"), ("empty", "empty"), ("run", "not a regular file"),
                          ("absent", "No such file")):
            done = subprocess.run(one.view(one.kesh("run")[0], "run", "--config", one.path(name)), cwd=one.dir,
                                  capture_output=True, text=True, check=False, timeout=10)
            self.assertEqual(done.returncode, BAD_CONFIG, name)
            self.assertRegex(done.stderr, f"{name}.*{why}")
        with open(one.path("bad"), "w", encoding="ascii") as file:
            file.write("kesh.strat = yes\nkesh.start = perhaps\nkesh.store = x\nmessaging.keys = /none\n")
        for subcommand in ("run", "check"):
            done = subprocess.run(one.view(one.kesh("run")[0], subcommand, "--config", one.path("bad")), cwd=one.dir,
                                  capture_output=True, text=True, check=False, timeout=10)
            self.assertEqual(done.returncode, BAD_CONFIG, subcommand)
            for told in ("bad:1: unknown key kesh.strat; did you mean kesh.start?", 'bad:2: kesh.start: "perhaps" is not',
                         'bad:3: kesh.store: "x" is not', "bad:4: messaging.keys: /none: "):
                self.assertEqual(done.stderr.count(told), 1, f"{subcommand}: {told}\n{done.stderr}")
        with open(one.path("run", "kesh.sock"), "wb") as file:
            file.write(b"somebody's")
        self.assertEqual((one.spawn(), one.await_end())[1], BAD_CONFIG)
        with open(one.path("run", "kesh.sock"), "rb") as file:
            self.assertEqual(file.read(), b"somebody's")
        os.remove(one.path("run", "kesh.sock"))
        store = self.path_of(1, "kesh.store")
        os.rename(store, store + ".own")
        shutil.copy(store + ".own", store + ".newer")
        with sqlite3.connect(store + ".newer") as newer:
            newer.execute("PRAGMA user_version = 1000")
        newer.close()
        with open(store + ".notes", "wb") as file:
            file.write(b"somebody's notes, which are longer than the head of a store" * 10)
        for kind in (".newer", ".notes"):
            shutil.copy(store + kind, store)
            self.assertEqual((one.spawn(), one.await_end())[1], BAD_CONFIG, kind)
            self.assertTrue(filecmp.cmp(store, store + kind, shallow=False), kind)
        os.rename(store + ".own", store)
        self.cluster.start(1)
        self.submit(1, 20).wait()
        self.check_all()

        for node in (1, 2, 3):
            self.cluster.stop(node)
        one.offline("configure", "--single", "--generation", "2", "--yes")
        one.start()
        self.cluster.set_master(1)
        self.submit(1, 20).wait()
        self.assertEqual(len(one.journal().lines), 20, "a cluster of its own, with a store of its own")


if __name__ == "__main__":
    unittest.main()

"""Disks that fail, and files that are not what they should be: one node leaves or is given what it lost, the others go
on."""

import os
import shutil
import sqlite3
import struct
import subprocess
import unittest
from contextlib import closing

from scenario import BUILD_DIR, Scenario, wait_until
from vxlab_lib.checker import check_journals
from vxlab_lib.errors import LabError
from vxlab_lib.journal import STORE_PARTS
from vxlab_lib.node import write_by_rename


BAD_CONFIG = 3


class Disk(Scenario):
    def spoil(self, node, name):
        """A directory where the temporary file should be: the next save fails, for root too."""
        path = self.cluster.node(node).path("flashdisk", "cons", name + ".tmp")
        os.mkdir(path)
        return path

    def await_isolated(self, node):
        wait_until(lambda: not self.cluster.status(node)["active"], 20.0, f"node {node} isolates itself")
        self.await_log(node, "Isolating from cluster ...")

    def test_each_save_that_fails_isolates_its_node_only(self):
        for node, name in ((3, "paxos_decide"), (3, "paxos_deliver"), (2, "msg_id")):
            with self.subTest(name):
                obstacle = self.spoil(node, name)
                if name == "msg_id":
                    part = self.submit(node, 1, timeout_s=1)
                    part.join(20.0)
                    self.assertIsNotNone(part.error)
                    self.submissions.remove(part)
                self.submit(1, 30).wait()
                self.await_isolated(node)
                self.submit(1, 30).wait()
                os.rmdir(obstacle)
                self.cluster.restart(node)
                self.submit(node, 10).wait()
                self.check_all()

    def test_leader_loses_its_disk(self):
        obstacle = self.spoil(1, "paxos_decide")
        part = self.submit(2, 100)
        self.await_isolated(1)
        self.cluster.set_master(2)
        part.wait()
        self.check_all([2, 3])
        os.rmdir(obstacle)
        self.cluster.restart(1)
        self.check_all()

    def replace_record(self, name, content):
        """Node 3, which must be down, finds this in its file. Returns what was there."""
        whole = self.cluster.node(3).durable(name)
        with open(self.cluster.node(3).path("flashdisk", "cons", name), "wb") as file:
            file.write(content)
        return whole

    def test_a_log_of_the_wrong_form_keeps_its_node_out(self):
        self.submit(1, 10).wait()
        self.check_all()
        self.cluster.stop(3)
        whole = self.replace_record("paxos_decide", b"\x01\0\0\0\xfb\0\0\0" + bytes(1250))  # 251 entries
        self.cluster.node(3).spawn()
        self.assertEqual(self.cluster.node(3).await_end(), BAD_CONFIG)
        self.submit(2, 10).wait()
        self.replace_record("paxos_decide", whole)
        self.cluster.restart(3)
        self.check_all()

    def test_without_its_last_delivery_a_node_compares_its_store_with_the_others(self):
        self.submit(1, 10).wait()
        self.check_all()
        self.cluster.stop(3)
        self.replace_record("paxos_deliver", b"\x01\x02\x03")  # short
        self.cluster.start(3)
        self.submit(3, 10).wait()
        self.check_all()

    def test_a_store_that_is_lost_or_cut_is_filled_by_the_others(self):
        path = self.cluster.node(3).path("flashdisk", "kesh.store")

        def move_away(names):
            for name in names:
                if os.path.exists(path + name):
                    os.rename(path + name, path + name + ".elsewhere")

        for what, spoil in (("all of it is gone", lambda: move_away(("", "-wal"))),
                            ("its -wal alone is left", lambda: move_away(("",))),
                            ("half of it", lambda: os.truncate(path, os.path.getsize(path) // 2)),
                            ("nothing of it", lambda: os.truncate(path, 0))):
            with self.subTest(what):
                self.submit(2, 20).wait()
                self.cluster.kill(3)
                self.submit(1, 20).wait()
                spoil()
                self.cluster.start(3)
                self.submit(3, 10).wait()
                self.assertEqual([one.base for one in self.check_all()], [0, 0, 0])

    def lose_disk(self, node, names):
        for name in names:
            path = self.cluster.node(node).path("flashdisk", name)
            shutil.rmtree(path) if os.path.isdir(path) else os.remove(path)

    def lose_store(self, node):
        present = os.listdir(self.cluster.node(node).path("flashdisk"))
        self.lose_disk(node, [one for one in STORE_PARTS if one in present])

    def test_a_machine_is_replaced_while_the_others_go_on(self):
        self.submit(3, 20).wait()
        self.cluster.kill(3)
        self.lose_disk(3, os.listdir(self.cluster.node(3).path("flashdisk")))
        os.mkdir(self.cluster.node(3).path("flashdisk", "cons"))
        part = self.submit(1, 100, window=1)
        self.cluster.node(3).configure(3)
        self.cluster.start(3)
        self.submit(3, 20).wait()
        part.wait()
        self.assertGreater(self.cluster.status(3)["messages"]["dropped"]["filtered_in"], 0, "it did not vote at first")
        self.cluster.kill(2)
        self.submit(1, 5).wait()  # now its vote is needed
        self.cluster.start(2)
        self.check_all()

    def test_a_cluster_whose_majority_lost_its_records_is_reformed(self):
        self.submit(2, 20).wait()
        self.cluster.stop(1)
        self.cluster.set_master(2)
        self.submit(3, 20).wait()  # which node 1 does not have: it may not go first
        copy = self.cluster.dir.file("backup")
        subprocess.run(self.cluster.node(2).kesh("backup", copy), cwd=self.cluster.node(2).dir, check=True)
        for node in (2, 3):
            self.cluster.stop(node)
            self.lose_disk(node, ["cons"])
            os.mkdir(self.cluster.node(node).path("flashdisk", "cons"))
        for node in (1, 2, 3):  # somebody starts them before he knows
            self.cluster.node(node).spawn()
        for node in (2, 3):
            self.assertEqual(self.cluster.node(node).await_end(), BAD_CONFIG)
        self.cluster.stop(1)
        self.assertIn("fault     none", self.cluster.node(2).offline("verify"))
        self.lose_store(3)  # what it had comes from the backup
        self.cluster.node(3).offline("restore", copy)
        self.assertIn("fault     none", self.cluster.node(3).offline("verify"))
        for node in (1, 2, 3):
            self.cluster.node(node).reform(2)
            self.assertIn("records   fit\n", self.cluster.node(node).offline("verify"))
        self.cluster.start_all(master=1)
        self.await_log(1, " payloads, and goes first")
        self.cluster.set_master(2)
        self.submit(1, 20).wait()
        self.check_all()

    def is_complete(self, node):
        try:
            return not self.cluster.status(node)["journal"]["incomplete"]
        except LabError:
            return False  # it has not come up, or it dies

    def begin_without_node_3(self):
        """It is configured anew, and joins with the first decision of generation 2, without a submission."""
        self.cluster.node(3).generation = 2
        self.cluster.node(3).configure(3)
        for node in (1, 2, 3):
            self.cluster.node(node).start()
        self.cluster.set_master(1)
        wait_until(lambda: "cluster: this node has joined" in self.log_of(3).rpartition("kesh: starting")[2], 20.0,
                   "node 3 joins")
        self.submit(3, 20).wait()
        self.submit(1, 20).wait()
        self.assertEqual([one.count for one in self.check_all()], [60, 60, 60])

    def test_two_machines_that_are_replaced_at_once_wait_for_a_person(self):
        self.submit(3, 20).wait()
        copy = self.cluster.dir.file("backup")
        subprocess.run(self.cluster.node(1).kesh("backup", copy), cwd=self.cluster.node(1).dir, check=True)
        for node in (2, 3):
            self.cluster.kill(node)
            self.lose_disk(node, os.listdir(self.cluster.node(node).path("flashdisk")))
            os.mkdir(self.cluster.node(node).path("flashdisk", "cons"))
            self.cluster.node(node).configure(3)
        for node in (2, 3):
            self.cluster.node(node).start()
        for node in (2, 3):
            self.await_log(node, "a majority has no past")
        wait_until(lambda: "take part, a quorum is 2" in self.cluster.status(1)["cluster"]["sentence"], 10.0,
                   "node 1 says that too few take part")
        for node in (1, 2, 3):
            self.cluster.stop(node)
        self.lose_store(2)
        self.cluster.node(2).offline("restore", copy)
        self.cluster.node(1).reform(2, "--without", "3")
        self.cluster.node(2).reform(2, "--without", "3", "--yes")  # its records tell of what the backup has not
        self.begin_without_node_3()

    def test_a_reform_of_different_histories_waits_for_a_person(self):
        self.submit(2, 20).wait()
        self.check_all()
        for node in (1, 2, 3):
            self.cluster.stop(node)
        store = self.cluster.node(3).path("flashdisk", "kesh.store")
        with closing(sqlite3.connect(store)) as database, database:
            database.execute("UPDATE payload SET hash = zeroblob(32) WHERE n = (SELECT max(n) FROM payload)")
        for node in (1, 2, 3):
            self.cluster.node(node).reform(2)
        for node in (1, 2, 3):
            self.cluster.node(node).start()
        self.cluster.set_master(1)
        self.await_log(1, "node 3 has another history")
        self.assertEqual([self.cluster.node(node).state() for node in (1, 2, 3)], ["BACKUP"] * 3)
        for node in (1, 2, 3):
            self.cluster.stop(node)
        for node in (1, 2):
            self.cluster.node(node).reform(2, "--without", "3")
        self.begin_without_node_3()  # the person's word: its store is put aside

    def make_disk_fail_on_command(self, node):
        """Returns the path of the rules that the node's next processes obey."""
        one = self.cluster.node(node)
        rules = one.path("disk_faults")
        one.environment = {"LD_PRELOAD": os.path.join(BUILD_DIR, "lib", "libvx_disk_faults.so"), "VX_DISK_FAULTS": rules}
        return rules

    def test_a_node_that_dies_while_its_store_is_replaced_goes_on(self):
        self.submit(1, 20).wait()
        self.cluster.stop(3)
        rules = self.make_disk_fail_on_command(3)
        path = self.cluster.node(3).path("flashdisk", "kesh.store")
        killed = 0
        for rule in [f"kill_before rename:host/* {count}" for count in (1, 2, 3)] + ["kill_before rename:paxos_deliver 1"]:
            with self.subTest(rule):
                os.truncate(path, os.path.getsize(path) // 2)
                write_by_rename(rules, rule + "\n")
                self.cluster.node(3).spawn()
                wait_until(lambda: not self.cluster.node(3).is_running() or self.is_complete(3), 30.0,
                           "node 3 ends, or is complete")
                killed += not self.cluster.node(3).is_running()
                os.remove(rules)
                if not self.cluster.node(3).is_running():
                    self.cluster.start(3)
                self.submit(3, 5).wait()
                wait_until(lambda: self.is_complete(3), 30.0, "node 3 is complete")
                self.cluster.stop(3)
        self.assertGreaterEqual(killed, 3)
        self.cluster.start(3)
        self.assertEqual([one.base for one in self.check_all()], [0, 0, 0])

    def die_at_each_commit(self, rules):
        """Starts node 3 again and again, each time to die at a later commit of its store, until it outlives all that it
        makes before it has caught up. Returns how often it died."""
        for count in range(1, 30):
            write_by_rename(rules, f"kill_before sync:host/kesh.store-wal {count}\n")
            self.cluster.node(3).spawn()
            wait_until(lambda: not self.cluster.node(3).is_running() or self.has_caught_up(), 30.0,
                       "node 3 ends, or has caught up")
            if self.cluster.node(3).is_running():
                return count - 1
        raise AssertionError("it never catches up")

    def has_caught_up(self):
        try:
            status = self.cluster.status(3)
            # Before the library runs the store may not have been marked yet.
            return status["active"] and not status["journal"]["incomplete"] and status["journal"]["lines"] == self.lines_in_all
        except LabError:
            return False

    def last_state_of_node_3(self):
        """The number of payloads in the state that the node, which must be down, adopted last; 0: none."""
        with closing(sqlite3.connect(self.cluster.node(3).path("flashdisk", "kesh.store"))) as store:
            return store.execute("SELECT value FROM meta WHERE key = 'state_n'").fetchone()[0]

    def test_a_node_that_dies_at_any_commit_of_a_state_keeps_or_extends_its_store(self):
        self.lines_in_all = 20
        self.submit(1, self.lines_in_all).wait()
        self.check_all()
        rules = self.make_disk_fail_on_command(3)
        self.cluster.stop(3)
        for what, more in (("kept", 0), ("extended", 490)):
            with self.subTest(what):
                state_before = self.last_state_of_node_3()
                if more:
                    self.submit(1, more, window=1).wait()  # two logs: what is not in the present one comes as a state
                    self.lines_in_all += more
                else:
                    self.replace_record("paxos_deliver", b"\x01\x02\x03")  # so that it asks for a state
                self.assertGreater(self.die_at_each_commit(rules), 0)
                os.remove(rules)
                self.assertEqual([one.base for one in self.check_all()], [0, 0, 0])
                self.cluster.stop(3)
                if more:
                    self.assertGreater(self.last_state_of_node_3(), state_before)
                else:
                    self.assertEqual(len(self.cluster.node(3).durable("paxos_deliver")), 5)
                self.assertFalse([name for name in os.listdir(self.cluster.node(3).path("flashdisk")) if "aside" in name])

    def test_a_node_that_dies_or_fails_at_any_step_of_a_delivery_goes_on(self):
        self.cluster.stop(3)
        rules = self.make_disk_fail_on_command(3)
        for rule, exit_code in (("kill_before write:host/kesh.store-wal 1", -9),  # in the hook, nothing committed
                                ("kill_before sync:host/kesh.store-wal 1", -9),
                                ("kill_after sync:host/kesh.store-wal 1", -9),  # committed; the hook has not returned
                                ("kill_before rename:paxos_deliver 1", -9),  # it has returned, and that is not saved
                                ("kill_after rename:paxos_deliver 1", -9),
                                ("eio host/kesh.store*", 7)):  # the commit fails, so the hook must not return
            with self.subTest(rule):
                self.cluster.start(3)
                self.submit(3, 2).wait()
                write_by_rename(rules, rule + "\n")
                self.submit(1, 10).wait()
                wait_until(lambda: not self.cluster.processes()[3]["running"], 20.0, "node 3 ends")
                self.assertEqual(self.cluster.processes()[3]["exit_code"], exit_code)
                os.remove(rules)
        self.cluster.start(3)
        self.submit(3, 10).wait()
        self.check_all()

    def test_a_payload_of_a_later_build_stops_all_and_is_not_passed_over(self):
        later_kind = struct.pack("<4sBQI", b"KPL2", 1, 7, 2)
        for sequence, kind in ((1, 1), (2, 99)):  # a line, which must not be applied either
            later_kind += struct.pack("<BQII", kind, sequence, 1, 4) + b"text"
        self.submit(2, 20).wait()
        self.check_all()
        self.cluster.node(1).control.distribute(later_kind)
        for attempt in (1, 2):
            for node in (1, 2, 3):
                with self.subTest(f"start {attempt}, node {node}"):
                    wait_until(lambda: not self.cluster.processes()[node]["running"], 20.0, "it ends")
                    self.assertEqual(self.cluster.processes()[node]["exit_code"], 7)
                    self.assertEqual(self.log_of(node).count("cannot be read: item 2 of 2 has an unknown kind"), attempt)
            if attempt == 1:
                for node in (1, 2, 3):
                    self.cluster.node(node).spawn()
        check_journals([node.journal() for node in self.cluster.nodes.values()], self.submissions[0].texts())


class SmallState(Scenario):
    settings = {"state.max": "65536"}

    def test_a_backup_of_another_node_brings_the_older_lines(self):
        self.submit(1, 1500, window=64).wait()  # more than a state carries
        copy = self.cluster.dir.file("backup")
        subprocess.run(self.cluster.node(1).kesh("backup", copy), cwd=self.cluster.node(1).dir, check=True)
        three = self.cluster.node(3)
        self.cluster.kill(3)
        shutil.rmtree(three.path("flashdisk"))
        os.makedirs(three.path("flashdisk", "cons"))
        self.submit(2, 20).wait()
        three.configure(3)
        three.offline("restore", copy)
        self.cluster.start(3)
        self.submit(3, 20).wait()
        self.assertEqual([(one.base, one.count) for one in self.check_all()], [(0, 1540)] * 3)


if __name__ == "__main__":
    unittest.main()

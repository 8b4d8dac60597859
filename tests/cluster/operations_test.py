"""docs/operations.md does what it says: its blocks run under load on machines of a network of their own, from the first
to the last, and what it shows is what they print. What was acknowledged on the way is in all journals.

VX_FIGURES=1 prints how long the procedures took.
"""

import os
import re
import shutil
import sys
import tempfile
import time
import unittest

from scenario import BUILD_DIR, has_failed, wait_until

from machine import Load, Site, enter_own_namespaces, install_tree, longest_gap, raise_build_number
from procedures import DOCUMENT, NODES, Block, bash, read_sections, run_block

CLUSTER_DIR = os.path.join(os.path.dirname(os.environ["VX_LAB_DIR"]), "host", "kesh", "cluster")
FIGURES = os.environ.get("VX_FIGURES")
LOG_LINES_SHOWN = 25
SMALL_DISK_MB = 64
UNDOES = "Go back to a backup"  # the section that takes back what was acknowledged
NONSENSE = "nonsense that an application wrote"
ALL_AT_ONCE = ["# on each node", "cd /root/packages", "systemctl stop keepalived kesh", "apt-get install -y ./*.deb",
               "systemctl start kesh keepalived", "until kesh health --ready; do sleep 0.1; done"]


class Operations(unittest.TestCase):
    def setUp(self):
        self.path = tempfile.mkdtemp(prefix="operations-", dir=BUILD_DIR)
        self.addCleanup(shutil.rmtree, self.path)
        self.trees = [os.path.join(self.path, name) for name in ("first", "next", "last")]
        for number, tree in enumerate(self.trees):
            install_tree(BUILD_DIR, tree)
            for _ in range(number):
                raise_build_number(tree)
        os.mkdir(os.path.join(self.path, "site"))
        self.site = Site(os.path.join(self.path, "site"))
        self.addCleanup(self.site.close)
        self.addCleanup(self.show_logs_of_failure)
        self.acknowledged = set()
        for node in NODES:
            self.new_machine(node)

    def show_logs_of_failure(self):
        look = ("kesh status; ls -l /flashdisk; cd /var/log; for log in kesh.log kesh.out keepalived.out; "
                f"do tail -n {LOG_LINES_SHOWN} $log; done")
        for machine in self.site.machines.values() if has_failed(self) else ():
            print(f"--- {machine.name}", bash(machine, look).stdout, file=sys.stderr)

    def new_machine(self, node, **options):
        machine = self.site.add(node, **options)
        machine.deliver(self.trees[0])
        machine.boot()

    def lose_records(self, node, also_store):
        machine = self.site.machines[node]
        machine.power_off()
        disk = os.path.join(machine.dir, "flashdisk")
        shutil.rmtree(os.path.join(disk, "cons"))
        for name in os.listdir(disk) if also_store else []:
            if name.startswith("kesh.store"):
                os.remove(os.path.join(disk, name))
        machine.boot()

    def before(self, section):
        """What happened, of which the section tells."""
        machines = self.site.machines
        if section == "Power cut":
            for machine in machines.values():
                machine.power_off()
            for machine in machines.values():
                machine.boot()
        elif section == "Replace a machine":
            machines[3].remove()
            self.new_machine(3, disk_mb=SMALL_DISK_MB)
        elif section == UNDOES:
            self.assertEqual(bash(machines[1], f"echo {NONSENSE} | kesh submit").returncode, 0)
        elif section == "Upgrade with a new build number":
            for machine in machines.values():
                machine.deliver(self.trees[1])
        elif section == "Reform":
            self.lose_records(2, also_store=False)
            self.lose_records(3, also_store=True)
        elif section == "Disk full":
            bash(machines[3], f"head -c {SMALL_DISK_MB}M /dev/zero >/flashdisk/core.1")

    def run_blocks(self, name, blocks):
        """Runs them under load, and prints how long they took."""
        loads = [Load(machine) for machine in self.site.machines.values()]
        began = time.time()
        try:
            for block in blocks:
                if FIGURES:
                    print(f"  {time.time() - began:5.1f} s {block.place}", flush=True)
                run_block(self.site, block)
        finally:
            ended = time.time()
            acknowledged = [row for load in loads for row in load.end()]
        if name == UNDOES:
            self.acknowledged.clear()
        else:
            self.acknowledged.update(line for _, line in acknowledged)
        if FIGURES:
            print(f"{name}: {ended - began:.1f} s; nothing was acknowledged for at most "
                  f"{longest_gap(acknowledged, began, ended):.1f} s", flush=True)

    def check_journals(self):
        """All nodes have the same lines, and all that were acknowledged since the first day, but what was undone."""
        journals = []

        def are_equal():
            printed = [bash(machine, "kesh journal") for machine in self.site.machines.values()]
            journals[:] = [one.stdout for one in printed]
            return len(set(journals)) == 1 and not any(one.returncode for one in printed)

        wait_until(are_equal, 30.0, "the journals are equal")
        lines = set(journals[0].splitlines())
        self.assertLessEqual(self.acknowledged, lines)
        self.assertNotIn(NONSENSE, lines)

    def test_every_block(self):
        for section, blocks in read_sections().items():
            self.before(section)
            self.run_blocks(section, blocks)
            self.check_journals()
        self.assertGreater(len(self.acknowledged), 30)
        for machine in self.site.machines.values():
            told = bash(machine, "cat /var/log/keepalived.out").stdout
            self.assertIn(" STATE", told)
            self.assertNotIn("rounding", told, "keepalived takes another interval than the one that ships")
        if FIGURES:
            for machine in self.site.machines.values():
                machine.deliver(self.trees[2])
            self.run_blocks("For comparison, a new build number on all nodes at once", [Block(0, ALL_AT_ONCE)])


class Reasons(unittest.TestCase):
    def test_the_tables_name_what_kesh_says(self):
        """A reason that the program can give, and for which nobody finds what to do."""
        with open(DOCUMENT, encoding="utf-8") as file:
            told = " ".join(file.read().split())
        reasons = []
        for name, before in (("ordering", ""), ("lead", ""), ("newcomer", ""), ("reform", ""),
                             ("cluster_link", r"(?:return|not_yet =|[?:]) ")):
            with open(os.path.join(CLUSTER_DIR, name + ".cc"), encoding="utf-8") as file:
                code = re.sub(r'"\s*\n\s*"', "", re.sub(r"//.*|#include.*", "", file.read()))
            found = [text.strip(" :;,") for text in re.findall(before + r'"([^"\n]*)"', code)]
            reasons += [text for text in found if len(text.split()) > 1 and not text.startswith("cluster: ")]
        self.assertGreater(len(reasons), 50)
        self.assertEqual([text for text in reasons if text not in told], [])


if __name__ == "__main__":
    enter_own_namespaces()
    unittest.main()

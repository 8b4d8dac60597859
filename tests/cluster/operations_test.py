"""docs/operations.md does what it says: each of its blocks runs on machines of a network of their own, from the first
to the last, and what it shows is what they print.

    ```sh                  a block for a shell. Its first line says where: "# on node 2", "# on nodes 2 and 3", "# on each
    # on node 2            node" (at the same time), "# on each node in turn". It stops at the first command whose exit
    kesh check  # exit 3   code is not 0 or the one that is said behind it.
    ```
    ```text                right behind it: these lines stand in what each of the nodes printed, in this order. An
    ordering … node 2      ellipsis stands for any text.
    ```

VX_FIGURES=1 prints how long the procedures took.
"""

import itertools
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from dataclasses import dataclass, field

from scenario import BUILD_DIR, wait_until

from machine import Site, enter_own_namespaces

SOURCE_DIR = os.path.dirname(os.environ["VX_LAB_DIR"])
DOCUMENT = os.path.join(SOURCE_DIR, "docs", "operations.md")
BLOCK_S = 60
FIGURES = os.environ.get("VX_FIGURES")
LOG_LINES_SHOWN = 25
NODES = (1, 2, 3)
SMALL_DISK_MB = 64


# One line after the other, until its input ends. What was acknowledged, and when, stands in a file.
LOAD = """
while read -t 0.1; [ $? -gt 128 ]; do
  line="$HOSTNAME at $EPOCHREALTIME"
  echo "$line" | kesh submit --timeout 10 >/dev/null 2>&1 && echo "$EPOCHREALTIME $line"
done
"""


class Load:
    """Submissions on a machine while a procedure goes on."""

    def __init__(self, machine):
        self._process = subprocess.Popen(machine.command("bash", "-c", LOAD), stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)

    def end(self):
        """Returns [(when, line)] of what was acknowledged."""
        told = self._process.communicate(timeout=BLOCK_S)[0]
        return [(float(row.split(" ", 1)[0]), row.split(" ", 1)[1]) for row in told.splitlines()]


@dataclass
class Block:
    section: str
    line: int
    script: list
    expected: list = field(default_factory=list)

    @property
    def place(self):
        return f"operations.md:{self.line}"

    def nodes(self):
        """Returns (the nodes, whether they do it one after the other)."""
        told = re.match(r"# on (each node|nodes? ((?:\d+(?:, | and )?)+))( in turn)?", self.script[0])
        if not told:
            raise AssertionError(f"{self.place}: the first line does not say where")
        return NODES if told[1] == "each node" else tuple(map(int, re.findall(r"\d+", told[2]))), bool(told[3])

    def bash(self):
        """Returns the script with a test of each exit code that is said behind its command."""
        checked = [re.sub(r"^(.*\S)\s+# exit (\d+)\b.*$", r"code=0; { \1; } || code=$?; test $code = \2", line)
                   for line in self.script]
        return "\n".join(["set -e", *checked])

    def check_output(self, node, output):
        rest = output
        for line in self.expected:
            found = re.search("^ *" + ".*".join(map(re.escape, line.strip().split("…"))) + " *$", rest, re.MULTILINE)
            if not found:
                raise AssertionError(f"{self.place}: node {node} does not print: {line}\n{output}")
            rest = rest[found.end():]


def read_blocks(text):
    """Returns the blocks of the document, in its order."""
    blocks, section, fence = [], "", None
    for number, line in enumerate(text.splitlines(), 1):
        if line.strip().startswith("```"):
            fence = None if fence else line.strip()[3:]
            if fence == "sh":
                blocks.append(Block(section, number, []))
        elif fence == "sh":
            blocks[-1].script.append(line.strip())
        elif fence == "text":
            blocks[-1].expected.append(line)
        elif fence is None and line.startswith("## "):
            section = line[3:]
    return blocks


def install_tree(build_dir, prefix):
    subprocess.run(["cmake", "--install", build_dir, "--strip", "--prefix", prefix], check=True, capture_output=True)


def raise_build_number(program):
    """The same program but for the number that it carries."""
    def readelf(*words):
        return subprocess.run(["readelf", "-W", *words, program], check=True, capture_output=True, text=True).stdout

    address = int(re.search(r"(\w+) .* vx_firmware_dova_build_nr", readelf("--dyn-syms"))[1], 16)
    section, offset = (int(word, 16) for word in re.search(r" \.rodata +PROGBITS +(\w+) (\w+)", readelf("-S")).groups())
    with open(program, "r+b") as file:
        file.seek(address - section + offset)
        number = int.from_bytes(file.read(4), "little")
        file.seek(-4, os.SEEK_CUR)
        file.write((number + 1).to_bytes(4, "little"))


class Operations(unittest.TestCase):
    def setUp(self):
        self.path = tempfile.mkdtemp(prefix="operations-", dir=BUILD_DIR)
        self.addCleanup(shutil.rmtree, self.path)
        self.acknowledged = set()
        install_tree(BUILD_DIR, self.tree("first", "usr"))
        shutil.copytree(self.tree("first"), self.tree("next"), symlinks=True)
        raise_build_number(self.tree("next", "usr", "bin", "kesh"))
        os.mkdir(os.path.join(self.path, "site"))
        self.site = Site(os.path.join(self.path, "site"))
        self.addCleanup(self.site.close)
        self.addCleanup(self.show_logs_of_failure)
        for node in NODES:
            self.new_machine(node)

    def tree(self, *parts):
        return os.path.join(self.path, *parts)

    def show_logs_of_failure(self):
        outcome = self._outcome.result
        if any(test is self for test, _ in outcome.failures + outcome.errors):
            for node, machine in self.site.machines.items():
                print(self.bash(node, "kesh status; kesh --version; ls -l /flashdisk").stdout, file=sys.stderr)
                for name in ("kesh.log", "kesh.out", "keepalived.out"):
                    print(f"--- end of {name} of {machine.name}", file=sys.stderr)
                    if os.path.exists(machine.path("var/log/" + name)):
                        with open(machine.path("var/log/" + name), encoding="utf-8", errors="replace") as log:
                            sys.stderr.writelines(log.readlines()[-LOG_LINES_SHOWN:])

    def new_machine(self, node, **options):
        machine = self.site.add(node, **options)
        machine.deliver(self.tree("first"))
        machine.boot()
        return machine

    def bash(self, node, script):
        return subprocess.run(self.site.machines[node].command("bash", "-c", script), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=BLOCK_S, check=False)

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
        elif section == "Upgrade with a new build number":
            for machine in machines.values():
                machine.deliver(self.tree("next"))
        elif section == "Reform":
            for node in (2, 3):
                machines[node].power_off()
                disk = os.path.join(machines[node].dir, "flashdisk")
                for name in os.listdir(disk):
                    if name == "cons":
                        shutil.rmtree(os.path.join(disk, name))
                    elif node == 3 and name.startswith("kesh.store"):
                        os.remove(os.path.join(disk, name))
                machines[node].boot()
        elif section == "Disk full":
            self.bash(3, f"head -c {SMALL_DISK_MB}M /dev/zero >/flashdisk/core.1")
            self.bash(1, "yes | head -2000 | kesh submit")
            wait_until(lambda: self.bash(3, "kesh health --ready").returncode != 0, 30.0, "node 3 has no room")

    def run_block(self, block):
        nodes, is_in_turn = block.nodes()
        results = {}

        def run_on(node):
            try:
                results[node] = self.bash(node, block.bash())
            except subprocess.TimeoutExpired as error:
                results[node] = subprocess.CompletedProcess([], None, (error.output or b"").decode(errors="replace"))

        for group in [[node] for node in nodes] if is_in_turn else [nodes]:
            threads = [threading.Thread(target=run_on, args=(node,)) for node in group]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            for node in group:
                self.assertEqual(results[node].returncode, 0, f"{block.place}, node {node}:\n{results[node].stdout}")
                block.check_output(node, results[node].stdout)

    def run_section(self, section, blocks):
        """Runs its blocks under load. Returns (seconds, the longest time in which nothing was acknowledged)."""
        self.before(section)
        loads = [Load(machine) for machine in self.site.machines.values()]
        began = time.time()
        try:
            for block in blocks:
                if FIGURES:
                    print(f"  {time.time() - began:5.1f} s {block.place}", flush=True)
                self.run_block(block)
        finally:
            ended = time.time()
            acknowledged = [row for load in loads for row in load.end()]
        self.acknowledged.update(line for _, line in acknowledged)
        moments = [began, *sorted(when for when, _ in acknowledged if began < when < ended), ended]
        return ended - began, max(after - before for before, after in itertools.pairwise(moments))

    def check_journals(self):
        """All nodes have the same lines, and all that were acknowledged since the first day."""
        journals = []

        def are_equal():
            journals[:] = [self.bash(node, "kesh journal").stdout for node in NODES]
            return len(set(journals)) == 1

        wait_until(are_equal, 30.0, "the journals are equal")
        self.assertLessEqual(self.acknowledged, set(journals[0].splitlines()))

    def test_every_block(self):
        with open(DOCUMENT, encoding="utf-8") as file:
            blocks = read_blocks(file.read())
        for section in dict.fromkeys(block.section for block in blocks):
            seconds, gap = self.run_section(section, [block for block in blocks if block.section == section])
            self.check_journals()
            if FIGURES:
                print(f"{section}: {seconds:.1f} s; nothing was acknowledged for at most {gap:.1f} s", flush=True)
        self.assertGreater(len(self.acknowledged), 100)


class Reasons(unittest.TestCase):
    def test_the_tables_name_what_kesh_says(self):
        """A reason that the program can give, and for which nobody finds what to do."""
        with open(DOCUMENT, encoding="utf-8") as file:
            told = " ".join(file.read().split())
        reasons = []
        for name, before in (("ordering", ""), ("lead", ""), ("newcomer", ""), ("reform", ""),
                             ("cluster_link", r"(?:return|not_yet =|[?:]) ")):
            with open(os.path.join(SOURCE_DIR, "host", "kesh", "cluster", name + ".cc"), encoding="utf-8") as file:
                code = re.sub(r'"\s*\n\s*"', "", re.sub(r"//.*|#include.*", "", file.read()))
            found = [text.strip(" :;,") for text in re.findall(before + r'"([^"\n]*)"', code)]
            reasons += [text for text in found if len(text.split()) > 1 and not text.startswith("cluster: ")]
        self.assertGreater(len(reasons), 50)
        self.assertEqual([text for text in reasons if text not in told], [])


if __name__ == "__main__":
    enter_own_namespaces()
    unittest.main()

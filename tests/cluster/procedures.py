"""The procedures of docs/operations.md, and how they are run on machines.

    ```sh                  a block for a shell. Its first line says where: "# on node 2", "# on nodes 2 and 3", "# on each
    # on node 2            node" (at the same time), "# on each node in turn". It stops at the first command whose exit
    kesh check  # exit 3   code is not 0 or the one that is said behind it.
    ```
    ```text                right behind it: these lines stand in what each of the nodes printed, in this order. An
    ordering … node 2      ellipsis stands for any text.
    ```
"""

import os
import re
import subprocess
import threading
from dataclasses import dataclass, field

DOCUMENT = os.path.join(os.path.dirname(os.environ["VX_LAB_DIR"]), "docs", "operations.md")
BLOCK_S = 120
NODES = (1, 2, 3)


@dataclass
class Block:
    line: int  # of the document
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


def read_sections():
    """Returns {section: its blocks} in the document's order."""
    with open(DOCUMENT, encoding="utf-8") as file:
        text = file.read()
    sections, section, fence = {}, "", None
    for number, line in enumerate(text.splitlines(), 1):
        if line.strip().startswith("```"):
            fence = None if fence else line.strip()[3:]
            if fence == "sh":
                sections.setdefault(section, []).append(Block(number, []))
            elif fence not in ("text", None):
                raise AssertionError(f"operations.md:{number}: a block of {fence!r} that nobody runs")
        elif fence == "sh":
            sections[section][-1].script.append(line.strip())
        elif fence == "text":
            sections[section][-1].expected.append(line)
        elif fence is None and line.startswith("## "):
            section = line[3:]
    return sections


def bash(machine, script):
    """Returns the completed process; its exit code is None if it took too long."""
    try:
        return subprocess.run(machine.command("bash", "-c", script), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=BLOCK_S, check=False)
    except subprocess.TimeoutExpired as late:
        return subprocess.CompletedProcess(late.cmd, None, (late.output or b"").decode(errors="replace"))


def run_block(site, block):
    nodes, is_in_turn = block.nodes()
    results = {}

    def run_on(node):
        results[node] = bash(site.machines[node], block.bash())

    for group in [[node] for node in nodes] if is_in_turn else [nodes]:
        threads = [threading.Thread(target=run_on, args=(node,)) for node in group]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for node in group:
            if results[node].returncode != 0:
                raise AssertionError(f"{block.place}, node {node}: exit code {results[node].returncode}\n"
                                     f"{results[node].stdout}")
            block.check_output(node, results[node].stdout)

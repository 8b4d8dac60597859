"""Three processes of examples/minimal_host.c, each with its own /flashdisk and /run, in one private network."""

import os
import subprocess

from vxlab_lib.rundir import write_by_rename
from vxlab_lib.waiting import wait_until

TIMEOUT_S = 60.0


class MinimalNode:
    def __init__(self, number, program, path, view):
        self.number = number
        self.submitted = []
        self._program = program
        self._path = path
        self._view = view
        self._process = None
        os.makedirs(os.path.join(path, "flashdisk"))
        os.makedirs(os.path.join(path, "run"))
        write_by_rename(self._file("run", "node_state"), "MASTER\n" if number == 1 else "BACKUP\n")
        with open(self._file("conf"), "w", encoding="utf-8") as file:
            file.write(f"cluster.supported = yes\nlog.file = {self._file('log')}\n")

    def _file(self, *parts):
        return os.path.join(self._path, *parts)

    def start(self):
        command = [*self._view, "--flashdisk", self._file("flashdisk"), "--run", self._file("run"), "--",
                   self._program, self._file("conf"), str(self.number)]
        with open(self._file("output"), "ab") as output, open(self._file("errors"), "ab") as errors:
            self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=output, stderr=errors, text=True)

    def submit(self, count):
        """Hands the lines over. The node submits one after the other."""
        lines = [f"of node {self.number}, {len(self.submitted) + i}" for i in range(count)]
        self.submitted += lines
        self._process.stdin.write("".join(line + "\n" for line in lines))
        self._process.stdin.flush()

    def stop(self):
        """SIGTERM. Standard input stays open meanwhile. Returns the exit code."""
        self._process.terminate()
        code = self._process.wait(TIMEOUT_S)
        self._process.stdin.close()
        return code

    def kill(self):
        if self._process and self._process.poll() is None:
            self._process.kill()
            self.stop()

    def _lines(self):
        with open(self._file("output"), encoding="utf-8") as file:
            return [line.split(" ", 2) for line in file.read().splitlines(keepends=True) if line.endswith("\n")]

    def snapshots(self):
        """Returns up to which place each of them brought the node."""
        return [int(place) for place, _, text in self._lines() if text.startswith("snapshot, ")]

    def order(self):
        """Returns place -> (checksum of all up to it, text) of the lines delivered here. No place comes twice."""
        order = {}
        for place, checksum, text in self._lines():
            if not text.startswith("snapshot, "):
                assert int(place) not in order, f"node {self.number} delivered {place} twice"
                order[int(place)] = checksum, text.strip().split(" ", 1)[1]
        return order

    def last_place(self):
        lines = self._lines()
        return int(lines[-1][0]) if lines else 0

    def last_words(self):
        with open(self._file("log"), encoding="utf-8") as log, open(self._file("errors"), encoding="utf-8") as errors:
            return log.read()[-2000:] + errors.read()[-2000:]


class MinimalCluster:
    def __init__(self, view, path, programs):
        # The network exists once the keeper has said a word. It ends when its input is closed.
        self._keeper = subprocess.Popen([view, "--tmp", "--net-new", "--", "sh", "-c", "echo up; exec cat"],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self._keeper.stdout.readline() == "up\n"
        network = [view, "--net-pid", str(self._keeper.pid)]
        self.nodes = {number: MinimalNode(number, program, os.path.join(path, f"node{number}"), network)
                      for number, program in programs.items()}

    def start_all(self):
        for node in self.nodes.values():
            node.start()
        return self.nodes.values()

    def await_lines(self, count, nodes=None):
        for node in nodes or self.nodes.values():
            wait_until(lambda node=node: node.last_place() >= count, TIMEOUT_S,
                       lambda node=node: f"{count} lines on node {node.number}: {node.last_words()}")

    def close(self):
        for node in self.nodes.values():
            node.kill()
        self._keeper.communicate()

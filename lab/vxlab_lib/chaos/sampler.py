"""Samples every node from outside ten times a second: files, memory, descriptors, threads."""

import json
import os
import threading
import time

from .. import decisions
from .events import now_ns

PERIOD_S = 0.1
PROCESS_EVERY = 5  # reads /proc once in so many rounds, since that costs more than the files
CLOCK_TICK_MS = 1000 // os.sysconf("SC_CLK_TCK")


def process_figures(pid):
    """Returns memory, descriptors, threads by name and processor time of a process; {} if it is gone."""
    try:
        with open(f"/proc/{pid}/statm", encoding="ascii") as file:
            rss_kb = int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
        if fields[0] in "ZX":  # dead, even if a frozen thread is not reaped yet
            return {}
        tasks = {}
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/comm", encoding="utf-8", errors="replace") as file:
                name = file.read().strip()
            tasks[name] = tasks.get(name, 0) + 1
        return {"rss_kb": rss_kb, "fds": len(os.listdir(f"/proc/{pid}/fd")), "tasks": tasks,
                "cpu_ms": (int(fields[11]) + int(fields[12])) * CLOCK_TICK_MS}
    except (OSError, IndexError, ValueError):
        return {}


def file_figures(directory):
    """Returns the state of the library's files of a node, as the fields of a sample."""
    decided = decisions.read_decided(directory)
    counter = decisions.read_file(directory, "msg_id", 5)
    delivered = decisions.read_delivered(directory)
    sizes = {}
    try:
        with os.scandir(directory) as entries:
            for entry in entries:
                try:
                    sizes[entry.name] = entry.stat().st_size
                except FileNotFoundError:
                    pass
    except OSError:
        pass
    return {
        "batch": decided.number if decided else 0,
        "count": decided.count if decided else 0,
        "crc": f"{decided.crc():08x}" if decided else None,
        "first": decided.entry(0) if decided and decided.count else None,
        "last": decided.entry(decided.count - 1) if decided and decided.count else None,
        "entries": decided.count if decided else 0,
        "msg_id": int.from_bytes(counter, "little") if len(counter) == 4 else None,
        "deliver": delivered,
        "regs": sorted(int(name[7:]) for name in sizes if name.startswith("rb_reg.") and name[7:].isdigit()),
        "sizes": sizes,
        "payloads": count_files(os.path.join(directory, "payloads")),
        "tmp": sum(name.endswith(".tmp") for name in sizes),
    }


def count_files(directory):
    try:
        return len(os.listdir(directory))
    except OSError:
        return None


class Sampler:
    """Writes samples.jsonl. `processes()` returns node -> {"pid", "running", "exit_code"}. `ended(node, process)` is
    called once for every process that has ended. `look()` is called in every round."""

    def __init__(self, path, nodes, processes, ended, look):
        self._file = open(path, "w", encoding="utf-8")
        self._nodes = nodes
        self._processes = processes
        self._ended = ended
        self._look = look
        self._seen = {}  # node -> pid of the process whose end was reported
        self._round = 0
        self._stop = threading.Event()
        self.logs = []  # first entries of the logs seen, the newest last
        self.position = {}  # node -> (number, count)
        self._thread = threading.Thread(target=self._run, name="sampler", daemon=True)
        self._thread.start()

    def close(self):
        """Takes one more sample of every node, running or not, and ends."""
        self._stop.set()
        self._thread.join()
        self._sample(all_nodes=True)
        self._file.close()

    def roll_overs(self):
        return max(0, len(self.logs) - 1)

    def _run(self):
        period_s = PERIOD_S * (1 if len(self._nodes) <= 5 else 3)
        while not self._stop.wait(period_s):
            self._sample()

    def _sample(self, all_nodes=False):
        processes = self._processes()
        self._look()
        for node_id, node in self._nodes.items():
            process = processes.get(node_id)
            running = bool(process and process["running"])
            if process and not running and self._seen.get(node_id) != process["pid"]:
                self._seen[node_id] = process["pid"]
                self._ended(node_id, process)
            if not running and not all_nodes:
                continue
            figures = {"t": now_ns(), "node": node_id, "pid": process["pid"] if running else None,
                       **file_figures(node.cons_dir)}
            self._note_log(node_id, figures)
            if running and ((self._round + node_id) % PROCESS_EVERY == 0 or all_nodes):
                figures.update(process_figures(process["pid"]))
            self._file.write(json.dumps(figures) + "\n")
        self._round += 1

    def _note_log(self, node_id, figures):
        self.position[node_id] = (figures["batch"], figures["count"])
        first = figures["first"]
        if first and first not in self.logs:
            self.logs.append(first)


def await_log(nodes, low, high, deadline, is_over):
    """Waits until the longest log has low to high entries. Returns its length, or None at the deadline."""
    while time.monotonic() < deadline and not is_over():
        _, count = max(decisions.read_position(node.cons_dir) for node in nodes)
        if low <= count <= high:
            return count
        time.sleep(0.003)
    return None

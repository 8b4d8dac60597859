"""Measures a cluster: submissions by role, payload size and number of submitters, relative to the cost of a save."""

import csv
import os
import random
import string
import time
from dataclasses import dataclass

from .bench_durable import RollOvers, count_disk, find_library, print_ratios, print_roll_overs, read_counts
from .durable_save import measure_save_us, percentile
from .errors import UsageError
from .programs import DURABLE
from .waiting import wait_until

# Durable saves in series on the critical path of one submission.
SAVES_IN_SERIES = {"leader": 5, "follower": 6}
SAVES_OF_PAYLOADS = 2  # further ones with durable payloads: at the submitter, and at the others
HOST_FLUSHES = 1  # the host also flushes its store before the hook returns
STATES_MB = [0, 1, 4, 16, 64]
COUNT_MIN = 10
COUNT_MAX = 3000
WARM_UP = 5
BULK_SIZE = 1_000_000  # from this size on each payload is also watched until all nodes have it
BYTES_PER_CELL_MAX = 400_000_000
BYTES_UNDER_WAY_MAX = 40_000_000
IDLE_S = 10.0
# Small snapshots, so that the library is measured and not the journal that each new log carries.
SETTINGS = {"state.max": 1 << 20, "log.level": "warning"}

COLUMNS = ["nodes", "durable", "role", "payload_bytes", "submitters", "submissions", "median_ms", "p99_ms", "per_s",
           "save_ms", "save_at_once_ms", "saves_in_series", "ratio", "ratio_at_once", "all_nodes_median_ms",
           "node_saves", "node_bytes"]


@dataclass
class Plan:
    nodes: list
    roles: list
    sizes: list
    submitters: list
    cell_s: float
    durable: bool = False  # measure each combination with durable payloads too


def payload(size, seed):
    """A line of `size` bytes that does not compress."""
    source = random.Random(seed)
    block = "".join(source.choices(string.ascii_letters + string.digits, k=min(size, 4096))).encode()
    return (block * (size // len(block) + 1))[:size]


class Bench:
    def __init__(self, cluster, progress):
        self._cluster = cluster
        self._progress = progress
        self._durable = False
        self._counts_disk = False

    def run(self, plan):
        """Returns the rows (dictionaries by COLUMNS), one per combination; the idle load in percent of one core, per
        size of cluster; and, with durable payloads, the cost of new logs (see print_roll_overs)."""
        warn_of_load(self._progress)
        self._counts_disk = plan.durable
        kinds = [False, True] if plan.durable else [False]
        rows, idle, roll_overs = [], {}, {}
        for count in plan.nodes:
            for self._durable in kinds:
                idle[count] = self._one_cluster(plan, count, rows)
            for state_mb in STATES_MB if plan.durable else []:
                for durable in kinds:
                    measured = RollOvers(self._cluster, self._progress, SETTINGS).measure(count, durable, state_mb)
                    roll_overs[count, durable, state_mb] = measured
        return rows, idle, roll_overs

    def _one_cluster(self, plan, count, rows):
        self._progress.say(f"{count} nodes come up{', with durable payloads' if self._durable else ''}")
        self._cluster.create(count, {**SETTINGS, **DURABLE[self._durable]})
        for node in self._cluster.nodes.values() if self._counts_disk else []:
            count_disk(node, find_library(self._cluster.programs.build_dir))
        try:
            self._cluster.start_all(master=1)
            idle = self._idle_percent()
            for role in plan.roles:
                for size in plan.sizes:
                    for submitters in plan.submitters:
                        if size * submitters > BYTES_UNDER_WAY_MAX:
                            self._progress.say(f"left out: {submitters} payloads of {size} bytes at once")
                            continue
                        rows.append(self._cell(count, role, size, submitters, plan.cell_s))
        finally:
            self._cluster.close()
        return idle

    def _idle_percent(self):
        self._progress.say(f"idle load over {IDLE_S:g} s")
        before, start = self._cpu_s(), time.monotonic()
        time.sleep(IDLE_S)
        return 100.0 * (self._cpu_s() - before) / (time.monotonic() - start)

    def _cpu_s(self):
        ticks = 0
        for node in self._cluster.nodes.values():
            with open(f"/proc/{node.pid()}/stat", encoding="utf-8") as file:
                fields = file.read().rpartition(")")[2].split()
            ticks += int(fields[11]) + int(fields[12])
        return ticks / os.sysconf("SC_CLK_TCK")

    def _cell(self, count, role, size, submitters, cell_s):
        node = 1 if role == "leader" else 2
        if node not in self._cluster.nodes:
            raise UsageError("a follower needs at least 2 nodes")
        name = f"{count} nodes, {role}, {size} bytes, {submitters} submitters"
        warm_up = self._submit(node, size, submitters, WARM_UP, name)
        one_s = max(1e-4, percentile(warm_up.latencies_us(), 50) / 1e6)
        wanted = int(cell_s / one_s * submitters)
        submissions = max(COUNT_MIN, min(COUNT_MAX, wanted, BYTES_PER_CELL_MAX // size))
        before = self._yardsticks_us(node)
        everywhere_ms = None
        counts_before = self._disk_counts()
        start = time.monotonic()
        if size >= BULK_SIZE and submitters == 1:
            times, everywhere_ms = self._one_by_one(node, size, submissions, name)
        else:
            times = self._submit(node, size, submitters, submissions, name).latencies_us()
        duration_s = time.monotonic() - start
        alone_us, at_once_us = (sum(each) / 2 for each in zip(before, self._yardsticks_us(node)))
        node_saves, node_bytes = (
            (after - earlier) / len(times) / count for after, earlier in zip(self._disk_counts(), counts_before))
        median_us = percentile(times, 50)
        saves = SAVES_IN_SERIES[role] + (SAVES_OF_PAYLOADS if self._durable else 0)
        flushes = saves + HOST_FLUSHES
        return dict(zip(COLUMNS, [
            count, "yes" if self._durable else "no", role, size, submitters, len(times), round(median_us / 1000, 2),
            round(percentile(times, 99) / 1000, 2), round(len(times) / duration_s, 1), round(alone_us / 1000, 3),
            round(at_once_us / 1000, 3), saves, round(median_us / (flushes * alone_us), 2),
            round(median_us / (flushes * at_once_us), 2), everywhere_ms,
            *([round(node_saves, 1), round(node_bytes)] if self._counts_disk else [None, None])]))

    def _disk_counts(self):
        return read_counts(self._cluster.nodes.values()) if self._counts_disk else (0, 0)

    def _yardsticks_us(self, node):
        """Median cost in us of a durable save of this node alone, and of one while all nodes save."""
        everywhere = [each.path("flashdisk") for each in self._cluster.nodes.values()]
        return measure_save_us([self._cluster.node(node).path("flashdisk")]), measure_save_us(everywhere)

    def _submit(self, node, size, submitters, submissions, name):
        lines = [payload(size, number % 8) for number in range(submissions)]
        part = self._cluster.submit(node, lines, submitters)
        timeout_s = 120.0

        def is_done():
            self._progress.update(f"{name}: {len(part.acknowledged)}/{submissions}")
            return part.is_done()

        wait_until(is_done, timeout_s, f"{name}: all acknowledged", poll_s=0.005)
        return part.wait(1.0)

    def _one_by_one(self, node, size, submissions, name):
        """Returns (sorted latencies in us, median ms until every node has delivered the payload). The nodes are polled
        every few milliseconds, which limits the precision of the second figure."""
        times, everywhere = [], []
        for number in range(submissions):
            self._progress.update(f"{name}: {number}/{submissions}")
            wanted = self._count(node) + 1
            start = time.monotonic()
            part = self._cluster.submit(node, [payload(size, number % 8)])
            wait_until(lambda wanted=wanted: all(self._count(each) >= wanted for each in self._cluster.nodes), 60.0,
                       f"{name}: on every node", poll_s=0.002)
            everywhere.append(1000 * (time.monotonic() - start))
            times += part.wait(60.0).latencies_us()
        return sorted(times), round(percentile(sorted(everywhere), 50), 1)

    def _count(self, node):
        return self._cluster.status(node)["journal"]["lines"]


def warn_of_load(progress):
    """A save waits for kernel threads. A busy machine makes it many times dearer, and the ratio worthless."""
    load, cores = os.getloadavg()[0], os.cpu_count() or 1
    if load > cores / 2:
        progress.say(f"WARNING: this machine is busy (load {load:.1f} on {cores} cores): the figures will not be good")


def print_table(rows, idle, roll_overs, stream):
    titles = ["nodes", "durable", "role", "payload", "submitters", "n", "median ms", "p99 ms", "per s", "save ms",
              "at once", "saves", "ratio", "at once", "all nodes ms", "node saves", "node bytes"]
    table = [titles] + [["" if row[column] is None else str(row[column]) for column in COLUMNS] for row in rows]
    widths = [max(len(line[i]) for line in table) for i in range(len(titles))]
    for line in table:
        print("  ".join(text.rjust(width) for text, width in zip(line, widths)), file=stream)
    print("\nratio = median / (flushes in series x one durable save, measured just before and after on the same disk);\n"
          "flushes in series: the library's saves, and one of the host's store\n"
          "at once: one while every node makes one, as most of those in series do (the nodes share this disk)",
          file=stream)
    if roll_overs:
        print("node saves, node bytes: the library's, per submission and node", file=stream)
        print_ratios(rows, COLUMNS[:1] + COLUMNS[2:5], stream)
        print_roll_overs(roll_overs, stream)
    for count, percent in idle.items():
        print(f"idle cluster of {count} nodes: {percent:.1f} % of one core", file=stream)


def write_csv(rows, path):
    with open(path, "w", newline="", encoding="utf-8") as file:
        writer = csv.DictWriter(file, COLUMNS)
        writer.writeheader()
        writer.writerows(rows)

"""What durable payloads cost: the same rows with and without them, and how long a new log delays ordering."""

import os
import struct
from statistics import median

from .decisions import LOG_ENTRIES_MAX, read_position
from .programs import DURABLE

ROLL_OVERS = 3
LINE_BYTES = 100
NEIGHBOURS = 2  # the submission that meets a new log is searched this far around the expected one
LINE_TIMEOUT_S = 120.0
FILL_TIMEOUT_S = 600.0
FILL_BYTES = 1000  # of a line that fills the state
FILL_WINDOW = 4096
MEGABYTE = 1 << 20
STATE_MAX_LOW = 64 << 10  # the smallest that kesh allows
COUNTS = struct.Struct("<QQQQ")  # lab/disk_faults/disk_counts.h


def count_disk(node, library):
    """Makes the node count its saves and bytes from its next start on."""
    node.environment = {"LD_PRELOAD": library, "VX_DISK_COUNTS": node.path("disk_counts")}


def read_counts(nodes):
    """Returns (saves, bytes) of all these nodes: the sync() calls, and the bytes written below /flashdisk/cons. The
    host's own files are not counted."""
    saves = written = 0
    for node in nodes:
        with open(node.path("disk_counts"), "rb") as file:
            syncs, _, library_bytes, _ = COUNTS.unpack(file.read())
        saves, written = saves + syncs, written + library_bytes
    return saves, written


class RollOvers:
    """Ordering stops while a new log begins. The latency of the submission that meets it shows for how long."""

    def __init__(self, cluster, progress, settings):
        self._cluster = cluster
        self._progress = progress
        self._settings = settings

    def measure(self, count, durable, state_mb):
        """Fills the journal until a state has its full size, then submits at the leader one by one. Returns (median ms
        of all submissions, [ms of each that met a new log])."""
        state_max = max(STATE_MAX_LOW, state_mb * MEGABYTE)
        self._progress.say(f"{count} nodes, {'durable' if durable else 'not durable'}, a state of {state_mb} MB")
        self._cluster.create(count, {**self._settings, **DURABLE[durable], "state.max": state_max})
        try:
            self._cluster.start_all(master=1)
            if state_mb:
                fill = [f"{number:0{FILL_BYTES}}".encode() for number in range(state_max // FILL_BYTES)]
                self._cluster.submit(1, fill, FILL_WINDOW).wait(FILL_TIMEOUT_S)
            entries = read_position(self._cluster.node(1).cons_dir)[1]
            # Index of the submission that meets each new log, give or take NEIGHBOURS. Each log begins with a snapshot.
            places = [LOG_ENTRIES_MAX - entries + (LOG_ENTRIES_MAX - 1) * number for number in range(ROLL_OVERS)]
            lines = [f"{number:0{LINE_BYTES}}".encode() for number in range(places[-1] + NEIGHBOURS + 1)]
            part = self._cluster.submit(1, lines).wait(LINE_TIMEOUT_S)
        finally:
            self._cluster.close()
        times = [part.acknowledged[number].latency_us / 1000 for number in range(len(lines))]
        return median(times), [max(times[max(0, place - NEIGHBOURS):place + NEIGHBOURS + 1]) for place in places]


def print_ratios(rows, keys, stream):
    """Prints the ratio of each row with durable payloads to the same row without."""
    before = {tuple(row[key] for key in keys): row for row in rows if row["durable"] == "no"}
    print("\ndurable over not durable:", file=stream)
    for row in rows:
        other = before.get(tuple(row[key] for key in keys))
        if row["durable"] == "yes" and other:
            ratios = [f"{name.replace('_ms', '')} x {row[name] / other[name]:.2f}" for name in ("median_ms", "p99_ms")]
            print("  " + ", ".join(f"{key} {row[key]}" for key in keys) + ": " + ", ".join(ratios), file=stream)


def print_roll_overs(found, stream):
    """`found`: (nodes, durable, MB of state) -> result of RollOvers.measure."""
    print("\na new log, submitting at the leader one by one (ms):", file=stream)
    for (count, durable, state_mb), (usual, met) in found.items():
        print(f"  {count} nodes, {'durable' if durable else 'not durable'}, a state of {state_mb} MB: usual "
              f"{usual:.1f}, with a new log " + ", ".join(f"{each:.0f}" for each in met), file=stream)


def find_library(build_dir):
    return os.path.join(build_dir, "lib", "libvx_disk_faults.so")

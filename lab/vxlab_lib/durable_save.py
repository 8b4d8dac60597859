"""What one durable save costs on a directory's disk. All that the cluster does is measured against it."""

import itertools
import os
import statistics
import threading
import time
from concurrent.futures import ThreadPoolExecutor

SAVE_SIZE = 1258  # bytes of the largest of the library's records


def _save_again_and_again(directory, count, ready):
    """Returns the microseconds that each save took."""
    path = os.path.join(directory, "save_probe")
    content = b"\0" * SAVE_SIZE
    times = []
    for _ in range(count):
        ready.wait()
        start = time.perf_counter_ns()
        fd = os.open(path + ".tmp", os.O_RDWR | os.O_CREAT | os.O_TRUNC, 0o600)
        os.write(fd, content)
        os.rename(path + ".tmp", path)
        os.close(fd)
        os.sync()
        times.append((time.perf_counter_ns() - start) / 1000)
    os.unlink(path)
    return times


def measure_save_us(directories, count=50):
    """Returns the median microseconds to write a temporary file, rename it and sync(). With several directories, one
    thread per directory saves at the same moment, as the nodes do when they vote."""
    ready = threading.Barrier(len(directories), timeout=60)
    with ThreadPoolExecutor(len(directories)) as savers:
        under_way = [savers.submit(_save_again_and_again, each, count, ready) for each in directories]
        return statistics.median(itertools.chain.from_iterable(each.result() for each in under_way))


def percentile(ordered, percent):
    """Returns the percentile of a sorted list, which must not be empty."""
    return ordered[min(len(ordered) - 1, len(ordered) * percent // 100)]

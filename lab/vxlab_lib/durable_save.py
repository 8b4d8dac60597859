"""What one durable save costs on a directory's disk: the yardstick for everything the cluster does."""

import os
import statistics
import time

SAVE_SIZE = 1258  # bytes of the largest of the library's records


def measure_save_us(directory, count=50):
    """Median microseconds of: write a temporary file, rename it, sync()."""
    path = os.path.join(directory, "save_probe")
    content = b"\0" * SAVE_SIZE
    times = []
    for _ in range(count):
        start = time.perf_counter_ns()
        fd = os.open(path + ".tmp", os.O_RDWR | os.O_CREAT | os.O_TRUNC, 0o600)
        os.write(fd, content)
        os.rename(path + ".tmp", path)
        os.close(fd)
        os.sync()
        times.append((time.perf_counter_ns() - start) / 1000)
    os.unlink(path)
    return statistics.median(times)


def percentile(ordered, percent):
    """Of a sorted list that is not empty."""
    return ordered[min(len(ordered) - 1, len(ordered) * percent // 100)]

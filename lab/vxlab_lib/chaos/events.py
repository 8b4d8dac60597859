"""What the orchestrator did and saw: one JSON object per line, in the order of their times."""

import json
import threading
import time


def now_ns():
    return time.clock_gettime_ns(time.CLOCK_MONOTONIC)


class EventLog:
    """events.jsonl. Any thread."""

    def __init__(self, path):
        self._file = open(path, "a", encoding="utf-8", buffering=1)
        self._lock = threading.Lock()
        self.counts = {}

    def add(self, what, at_ns=None, **fields):
        """Adds an event and returns its time in ns."""
        with self._lock:
            at_ns = at_ns or now_ns()
            self.counts[what] = self.counts.get(what, 0) + 1
            self._file.write(json.dumps({"t": at_ns, "what": what, **fields}) + "\n")
        return at_ns

    def close(self):
        self._file.close()

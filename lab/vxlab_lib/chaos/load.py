"""The steady load: every node submits, from the moment its daemon is up until the faults end."""

import json
import threading

from ..control import NodeUnreachable
from ..errors import LabError

LINE_TIMEOUT_S = 120
ENDLESS_S = 100_000  # until it is ended
FRESH_BYTES = 120


class Load:
    def __init__(self, cluster, shape):
        """`shape`: {"threads", "sizes", "pause_ms"}."""
        self._cluster = cluster
        self._shape = shape
        self._lock = threading.Lock()
        self._open = []  # sockets; closing one ends its load
        self._ended = False
        self._threads = []
        self.refused = []  # loads that a node did not take

    def begin(self, node_id):
        """Starts the load of a node whose daemon has just been started. It ends with the daemon, or with `end`."""
        self._start(node_id, threads=self._shape["threads"], bytes=self._shape["sizes"],
                    pause_ms=self._shape["pause_ms"], seconds=ENDLESS_S)

    def bulk(self, node_id, size):
        """Submits two payloads of that size in addition to the others."""
        self._start(node_id, threads=1, bytes=[size], count=2)

    def _start(self, node_id, **options):
        with self._lock:
            if self._ended:
                return
            thread = threading.Thread(target=self._run, args=(node_id, options), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _run(self, node_id, options):
        try:
            control = self._cluster.node(node_id).control
            with control.load(timeout_s=LINE_TIMEOUT_S, **options) as (stream, sock):
                with self._lock:
                    if self._ended:
                        return
                    self._open.append(sock)
                stream.readline()
        except NodeUnreachable:
            pass  # the daemon has gone; its trace shows how far it came
        except (LabError, OSError) as error:
            if not self._ended:
                self.refused.append(f"node {node_id}: {error}")

    def end(self):
        """Ends the load. No call begins after this; open calls go on."""
        with self._lock:
            self._ended = True
            for sock in self._open:
                try:
                    sock.shutdown(2)
                except OSError:
                    pass
        for thread in self._threads:
            thread.join(5.0)


def send_some(node, count, timeout_s):
    """Submits `count` lines at the node, each when the last one is acknowledged, so that each is a payload of its own.
    Returns how many were acknowledged."""
    with node.control.load(threads=1, bytes=[FRESH_BYTES], count=count, timeout_s=timeout_s) as (stream, sock):
        sock.settimeout(timeout_s + 5.0)
        try:
            return json.loads(stream.readline() or b"{}").get("acknowledged", 0)
        except (OSError, ValueError):
            return 0

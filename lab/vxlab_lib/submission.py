"""Submits lines to the cluster through one node."""

import threading
import time
from dataclasses import dataclass

from .errors import LabError


@dataclass(frozen=True)
class Acknowledged:
    tag: str  # node.life.sequence, as in the journal
    latency_us: int
    at: float  # time.monotonic() of the acknowledgement


class Submission:
    """Submits `lines` (bytes) at one node, `window` of them at a time, in the background. Lines that are open together
    may travel in one payload. Read `acknowledged` (index of the line -> Acknowledged) at any time."""

    def __init__(self, node, lines, window=1, timeout_s=60):
        self.node = node
        self.lines = lines
        self.acknowledged = {}
        self.error = None  # why it ended early
        self._request = {"op": "submit", "window": window, "timeout_s": timeout_s}
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def is_done(self):
        return not self._thread.is_alive()

    def left_over(self):
        """Returns the indices of lines without an acknowledgement: not submitted, or in doubt when their node died."""
        return [index for index in range(len(self.lines)) if index not in self.acknowledged]

    def join(self, timeout_s):
        """Waits for the end, with or without success."""
        self._thread.join(timeout_s)
        if self._thread.is_alive():
            raise LabError(f"node {self.node.id}: {len(self.left_over())} of {len(self.lines)} lines not acknowledged "
                           f"within {timeout_s:g} s")

    def wait(self, timeout_s=120.0):
        """Waits until every line is acknowledged, or raises LabError. Returns self."""
        self.join(timeout_s)
        if self.error:
            raise LabError(f"node {self.node.id}: {len(self.left_over())} of {len(self.lines)} lines not acknowledged: "
                           f"{self.error}")
        return self

    def texts(self):
        """Returns tag -> text of the acknowledged lines."""
        return {entry.tag: self.lines[index] for index, entry in list(self.acknowledged.items())}

    def latencies_us(self):
        return sorted(entry.latency_us for entry in list(self.acknowledged.values()))

    def _run(self):
        try:
            with self.node.control.open(self._request) as (answer, stream, sock):
                sock.settimeout(None)
                sender = threading.Thread(target=self._send, args=(sock,), daemon=True)
                sender.start()
                ended = self._receive(stream, f"{answer['node']}.{answer['life']}")
                sender.join()
            if not ended:
                self.error = self.error or "the node went away"
        except (LabError, OSError) as error:
            self.error = self.error or str(error)

    def _send(self, sock):
        try:
            for line in self.lines:
                sock.sendall(line + b"\n")
            sock.shutdown(1)
        except OSError:
            pass  # the receiving side reports why

    def _receive(self, stream, tag_front):
        """Returns whether the daemon has answered for every line."""
        for raw in stream:
            words = raw.decode("utf-8", "replace").split()
            if words[0] == "ok":
                number, sequence, latency_us, *_ = map(int, words[1:])
                self.acknowledged[number - 1] = Acknowledged(f"{tag_front}.{sequence}", latency_us, time.monotonic())
            elif words[0] == "done":
                return True
            else:  # refused LINE REASON, or unknown LINE SEQUENCE ATTEMPTS REASON
                self.error = self.error or " ".join(words[2 if words[0] == "refused" else 4:])
        return False

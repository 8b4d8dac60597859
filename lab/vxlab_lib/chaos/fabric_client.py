"""Talks to vx-fabric, the program that carries every datagram of a cluster and makes the network's faults."""

import json
import socket
import threading

from ..errors import LabError

ANSWER_TIMEOUT_S = 20.0
AWAIT_MS = 500


class FabricClient:
    """One connection. Any thread may send requests, one at a time. Raises LabError if the fabric is gone or refuses."""

    def __init__(self, path):
        self._path = path
        self._lock = threading.Lock()
        self._sock = self._stream = None

    def connect(self):
        """Returns False while the fabric does not listen yet."""
        sock = socket.socket(socket.AF_UNIX)
        sock.settimeout(ANSWER_TIMEOUT_S)
        try:
            sock.connect(self._path)
        except OSError:
            sock.close()
            return False
        self._sock, self._stream = sock, sock.makefile("rb")
        return True

    def ask(self, what, **arguments):
        with self._lock:
            try:
                self._sock.sendall(json.dumps({"do": what, **arguments}).encode() + b"\n")
                answer = json.loads(self._stream.readline() or b"{}")
            except (OSError, ValueError, AttributeError) as error:
                raise LabError(f"the fabric does not answer: {error}") from error
        if not answer.get("ok"):
            raise LabError(f"fabric: {what}: {answer.get('error', 'it went away')}")
        return answer

    def close(self):
        if self._sock:
            self._sock.close()
            self._stream.close()
            self._sock = self._stream = None

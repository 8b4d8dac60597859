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


class FabricWatch:
    """Calls `told(event)` for every event of the fabric, on a thread of its own, until `close`."""

    def __init__(self, path, told):
        self._client = FabricClient(path)
        if not self._client.connect():
            raise LabError(f"no fabric listens on {path}")
        self._told = told
        self._ending = False
        self._thread = threading.Thread(target=self._run, name="fabric-watch", daemon=True)
        self._thread.start()

    def close(self):
        self._ending = True
        self._thread.join()
        self._client.close()

    def _run(self):
        since = 0
        try:
            while not self._ending:
                answer = self._client.ask("await", since=since, timeout_ms=AWAIT_MS)
                since = answer["last"]
                for event in answer["events"]:
                    self._told(event)
        except LabError:
            pass  # the fabric has ended; the next request reports it

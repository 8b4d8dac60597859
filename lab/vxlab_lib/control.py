"""A node's control socket: one line of JSON as request, one as answer. Some operations go on with plain lines."""

import json
from contextlib import contextmanager

from . import json_line
from .errors import LabError

ANSWER_TIMEOUT_S = 20.0
VRRP_TIMEOUT_S = 1.0  # a frozen daemon must not hold up the others


class NodeUnreachable(LabError):
    """No daemon answers: it does not run, is not up yet, or ended during the request."""


@contextmanager
def connect(directory, what, request, timeout_s=ANSWER_TIMEOUT_S):
    """Sends the request (text goes as it is) to the socket kesh.sock in `directory`; returns (answer, stream, socket).
    `what` names the node in errors. Raises NodeUnreachable, or LabError if the node refuses."""
    try:
        with json_line.connect(directory, "kesh.sock", timeout_s) as connection:
            answer = json_line.ask(connection, request)
            if answer is None:
                raise NodeUnreachable(f"{what} went away")
            if not answer["ok"]:
                raise LabError(f"{what}: {answer['error']}")
            yield answer, connection[1], connection[0]
    except TimeoutError as error:
        raise NodeUnreachable(f"{what} does not answer within {timeout_s:g} s") from error
    except OSError as error:
        raise NodeUnreachable(f"{what} does not answer: {error.strerror}") from error


class ControlClient:
    def __init__(self, node_id, directory):
        self._what = f"node {node_id}"
        self._dir = directory

    def open(self, request, timeout_s=ANSWER_TIMEOUT_S):
        return connect(self._dir, self._what, request, timeout_s)

    def status(self, timeout_s=ANSWER_TIMEOUT_S):
        with self.open({"op": "status"}, timeout_s) as (answer, _, _):
            return answer["status"]

    def block(self, nodes):
        """Test aid: the node drops all that these nodes send, and hears all others."""
        with self.open({"op": "block", "mask": sum(1 << (node - 1) for node in nodes)}):
            pass

    def start_protocol(self):
        """Starts a library that was stopped or has isolated itself."""
        with self.open({"op": "start"}, 60.0):
            pass

    def stop_protocol(self):
        """Stops the library; the daemon goes on."""
        with self.open({"op": "leave"}, 60.0):
            pass

    def reinit(self):
        """Cleans the library up, initialises it again, and starts it if it was active."""
        with self.open({"op": "reinit"}, 60.0):
            pass

    def vrrp_changed(self):
        """The file that keepalived's word is in holds another one."""
        with self.open({"op": "vrrp"}, VRRP_TIMEOUT_S):
            pass

    def slow(self, hook, wait_ms):
        """Test aid: from now on the hook "deliver" or "state" takes `wait_ms` longer."""
        with self.open({"op": "slow", "hook": hook, "ms": wait_ms}):
            pass

    def distribute(self, payload):
        """Test aid: orders these bytes as a payload, whatever they are. Does not wait for that."""
        with self.open({"op": "distribute", "bytes": list(payload)}):
            pass

    def unbatched(self, seconds, line_bytes):
        """Test aid: payloads of one line, one after the other and past the batches. Returns what was measured."""
        with self.open({"op": "unbatched", "seconds": seconds, "bytes": line_bytes}, seconds + ANSWER_TIMEOUT_S) as (
                _, stream, _):
            return json.loads(stream.readline())

    @contextmanager
    def load(self, **options):
        """Makes the daemon submit lines of its own. Gives the stream on which it reports its totals at the end, as one
        line of JSON. Leaving the context ends the load. Options: threads, bytes (list of sizes of lines), count, seconds,
        pause_ms, timeout_s (per line: until then it is submitted again after each -1)."""
        with self.open({"op": "load", **options}) as (_, stream, sock):
            sock.settimeout(None)
            yield stream, sock

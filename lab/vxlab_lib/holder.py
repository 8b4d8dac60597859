"""The holder: the process of a laboratory that stays between commands, and the parent of all nodes.

It runs in the cluster's network namespace, starts the nodes there as its children, and answers one-line JSON requests
on lab.sock. However it dies, the kernel then kills the nodes; the namespaces end with the last process. It has a single
thread, because the kernel kills a node when the thread that started it ends.
"""

import json
import os
import selectors
import signal
import socket
import subprocess
import sys
import time

from .rundir import RunDir, short_path
from .waiting import WaitTimeout, wait_until

STOP_TIMEOUT_S = 10.0
LOCK_TIMEOUT_S = 1.0  # another process may hold it for a moment to see whether it is free
REQUEST_MAX = 1 << 20


class Connection:
    def __init__(self, sock):
        self.sock = sock
        self.received = b""


class Holder:
    def __init__(self, run_dir):
        self._dir = RunDir(run_dir)
        self._lock = self._take_lock()
        self._children = {}  # node id, or name of another program of the laboratory -> Popen
        self._waiters = []  # (connection, node id, deadline)
        self._selector = selectors.DefaultSelector()
        self._ending = False

    def run(self):
        if self._lock is None:
            print("another holder has this run directory", file=sys.stderr)
            return 1
        wake_read, wake_write = socket.socketpair()
        for end in (wake_read, wake_write):
            end.setblocking(False)
        signal.set_wakeup_fd(wake_write.fileno())
        for number in (signal.SIGCHLD, signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(number, self._on_signal)
        listener = self._listen()
        self._selector.register(listener, selectors.EVENT_READ, lambda: self._accept(listener))
        self._selector.register(wake_read, selectors.EVENT_READ, lambda: wake_read.recv(4096))
        while not self._ending:
            for key, _ in self._selector.select(self._until_next_deadline()):
                key.data()
            self._answer_waiters()
        self._stop_children()
        os.unlink(self._dir.file("lab.sock"))
        return 0

    def _take_lock(self):
        try:
            return wait_until(self._dir.take_lock, LOCK_TIMEOUT_S, "lock")
        except WaitTimeout:
            return None

    def _listen(self):
        path, fd = short_path(self._dir.path, "lab.sock")
        try:
            os.unlink(path)
        except FileNotFoundError:
            pass
        listener = socket.socket(socket.AF_UNIX)
        old_mask = os.umask(0o177)
        listener.bind(path)
        os.umask(old_mask)
        os.close(fd)
        listener.listen()
        return listener

    def _on_signal(self, number, _frame):
        if number != signal.SIGCHLD:
            self._ending = True

    def _accept(self, listener):
        sock, _ = listener.accept()
        connection = Connection(sock)
        self._selector.register(sock, selectors.EVENT_READ, lambda: self._receive(connection))

    def _drop(self, connection):
        self._waiters = [waiter for waiter in self._waiters if waiter[0] is not connection]
        self._selector.unregister(connection.sock)
        connection.sock.close()

    def _receive(self, connection):
        try:
            data = connection.sock.recv(65536)
        except OSError:
            data = b""
        connection.received += data
        if not data or len(connection.received) > REQUEST_MAX:
            self._drop(connection)
            return
        while b"\n" in connection.received:
            line, connection.received = connection.received.split(b"\n", 1)
            self._serve(connection, line)

    def _serve(self, connection, line):
        try:
            request = json.loads(line)
            answer = getattr(self, "_do_" + request["do"])(connection, request)
        except (ValueError, KeyError, TypeError, AttributeError, OSError) as error:
            answer = {"error": f"{type(error).__name__}: {error}"}
        if answer is not None:
            self._answer(connection, answer)

    def _answer(self, connection, answer):
        try:
            connection.sock.sendall(json.dumps(answer).encode() + b"\n")
        except OSError:
            pass  # the client has gone; the next read notices it too

    def _is_running(self, node):
        child = self._children.get(node)
        return child is not None and child.poll() is None

    def _do_spawn(self, _connection, request):
        node = request["node"]
        if self._is_running(node):
            return {"error": f"node {node} is running already"}
        with open(request["output"], "ab") as output:
            self._children[node] = subprocess.Popen(
                request["command"], cwd=request["dir"], stdin=subprocess.DEVNULL, stdout=output, stderr=output
            )
        return {"pid": self._children[node].pid}

    def _do_signal(self, _connection, request):
        if not self._is_running(request["node"]):
            return {"error": f"node {request['node']} is not running"}
        # Only this process reaps the child, so the number still means it.
        self._children[request["node"]].send_signal(request["signal"])
        return {}

    def _do_kill_all(self, _connection, request):
        """Sends SIGKILL to all of these nodes that run, at one moment."""
        running = [node for node in request["nodes"] if self._is_running(node)]
        for node in running:
            self._children[node].send_signal(signal.SIGKILL)
        return {"killed": running}

    def _do_wait(self, connection, request):
        self._waiters.append((connection, request["node"], time.monotonic() + request["timeout_s"]))

    def _do_state(self, _connection, _request):
        nodes = {
            str(node): {"pid": child.pid, "running": child.poll() is None, "exit_code": child.returncode}
            for node, child in self._children.items()
        }
        return {"holder": os.getpid(), "nodes": nodes}

    def _do_end(self, _connection, _request):
        self._ending = True
        return {}

    def _until_next_deadline(self):
        deadlines = [deadline for _, _, deadline in self._waiters]
        return max(0.0, min(deadlines) - time.monotonic()) if deadlines else None

    def _answer_waiters(self):
        remaining = []
        for waiter in self._waiters:
            connection, node, deadline = waiter
            if not self._is_running(node):
                child = self._children.get(node)
                self._answer(connection, {"exit_code": child.returncode if child else None})
            elif time.monotonic() >= deadline:
                self._answer(connection, {"timeout": True})
            else:
                remaining.append(waiter)
        self._waiters = remaining

    def _stop_children(self):
        """Sends SIGTERM to all at once, then SIGKILL to those that do not end."""
        running = [child for child in self._children.values() if child.poll() is None]
        for child in running:
            child.send_signal(signal.SIGTERM)
            child.send_signal(signal.SIGCONT)
        deadline = time.monotonic() + STOP_TIMEOUT_S
        for child in running:
            try:
                child.wait(max(0.0, deadline - time.monotonic()))
            except subprocess.TimeoutExpired:
                print(f"process {child.pid} does not end on SIGTERM: killed", file=sys.stderr)
                child.kill()
                child.wait()


if __name__ == "__main__":
    sys.exit(Holder(sys.argv[1]).run())

"""Starts the holder, sends it requests and ends it."""

import os
import signal
import subprocess
import sys

from . import json_line
from .errors import LabError, NoLabError
from .waiting import wait_until

START_TIMEOUT_S = 15.0
ANSWER_TIMEOUT_S = 10.0


class HolderClient:
    def __init__(self, run_dir):
        self._dir = run_dir
        self._process = None  # set when this object started the holder

    @property
    def started_here(self):
        return self._process is not None

    def start(self, node_view, detached):
        """If `detached`, the holder outlives the caller; else the kernel kills it when the calling thread ends."""
        if self._dir.holder_pid():
            raise LabError(f"a laboratory is up in {self._dir.path} already: `vxlab down` ends it")
        library_parent = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
        command = [node_view, "--net-new"] + (["--outlive-parent"] if detached else [])
        command += ["--", sys.executable, "-B", "-m", "vxlab_lib.holder", self._dir.path]
        log_path = self._dir.file("holder.log")
        with open(log_path, "ab") as log:
            self._process = process = subprocess.Popen(
                command, cwd=library_parent, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True
            )
        wait_until(
            lambda: process.poll() is not None or self._answers(),
            START_TIMEOUT_S,
            f"the holder of the laboratory answers (see {log_path})",
        )
        if process.poll() is not None:
            with open(log_path, encoding="utf-8", errors="replace") as log:
                reason = log.read().strip().splitlines()
            raise LabError("the laboratory cannot start: " + (reason[-1] if reason else f"see {log_path}"))

    def _answers(self):
        try:
            return bool(self.ask("state"))
        except NoLabError:
            return False

    def ask(self, what, answer_timeout_s=ANSWER_TIMEOUT_S, **arguments):
        """Returns the answer to one request. Raises NoLabError if there is no holder, LabError if it refuses."""
        try:
            with json_line.connect(self._dir.path, "lab.sock", answer_timeout_s) as connection:
                answer = json_line.ask(connection, {"do": what, **arguments})
        except (FileNotFoundError, NotADirectoryError, ConnectionRefusedError) as error:
            raise NoLabError(f"no laboratory is up in {self._dir.path}: `vxlab up 3` starts one") from error
        except OSError as error:
            raise LabError(f"the holder of {self._dir.path} does not answer: {error}") from error
        if answer is None or "error" in answer:
            raise LabError(answer["error"] if answer else "the holder went away")
        return answer

    def end(self, timeout_s=25.0):
        """Ends the holder and with it every node; no error if there is none. A holder that does not answer is killed,
        and the kernel then kills the nodes."""
        pid = self._dir.holder_pid()
        if pid is not None:
            self._end(pid, timeout_s)
        elif self._process:
            self._process.terminate()  # interrupted before it was up
        if self._process:
            self._process.wait()

    def _end(self, pid, timeout_s):
        with open_pidfd(pid) as process:
            if self._dir.holder_pid() != pid:
                return  # it ended by itself, and the descriptor may mean another process
            try:
                self.ask("end")
                self._await_end(timeout_s)
            except LabError:
                signal.pidfd_send_signal(process.fileno(), signal.SIGKILL)
                self._await_end(timeout_s)

    def _await_end(self, timeout_s):
        wait_until(lambda: self._dir.holder_pid() is None, timeout_s, "the laboratory ends")


def open_pidfd(pid):
    try:
        return os.fdopen(os.pidfd_open(pid), "rb", buffering=0)
    except ProcessLookupError:
        return open(os.devnull, "rb", buffering=0)

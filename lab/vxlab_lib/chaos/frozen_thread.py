"""Stops one thread of a process while all others run, as if the scheduler did not run it."""

import ctypes
import os
from contextlib import contextmanager

from ..errors import LabError

PTRACE_DETACH, PTRACE_SEIZE, PTRACE_INTERRUPT = 17, 0x4206, 0x4207
WALL = 0x40000000  # for waitpid: also wait for threads of other processes
NAME_MAX = 15  # characters of a thread's name that the kernel keeps

libc = ctypes.CDLL(None, use_errno=True)
libc.ptrace.restype = ctypes.c_long
libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]


def _ptrace(request, task, data=None):
    if libc.ptrace(request, task, None, data) < 0:
        number = ctypes.get_errno()
        raise LabError(f"thread {task} cannot be frozen: {os.strerror(number)}")


def find_task(pid, name):
    """Returns the thread of that name. Raises LabError if there is none."""
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/comm", encoding="utf-8", errors="replace") as file:
                if file.read().strip() == name[:NAME_MAX]:
                    return int(task)
    except OSError:
        pass  # the process has ended meanwhile
    raise LabError(f"process {pid} has no {name}")


@contextmanager
def frozen(pid, name):
    """Within the context the named thread stands still wherever it was. Enter and leave it on the same thread."""
    task = find_task(pid, name)
    _ptrace(PTRACE_SEIZE, task)
    status = None
    try:
        _ptrace(PTRACE_INTERRUPT, task)
        _, status = os.waitpid(task, WALL)
        yield
    finally:
        _let_go(task, status)


def _let_go(task, status):
    """Lets the thread run. Passes on a signal that arrived instead of the stop. Reaps a thread that was killed."""
    is_signal = status is not None and os.WIFSTOPPED(status) and status >> 16 == 0
    try:
        _ptrace(PTRACE_DETACH, task, os.WSTOPSIG(status) if is_signal else 0)
    except LabError:
        try:
            os.waitpid(task, WALL | os.WNOHANG)
        except ChildProcessError:
            pass

"""One thread of a process that stands still while all others run, as one does that the scheduler has forgotten."""

import ctypes
import os
from contextlib import contextmanager

from ..errors import LabError

PTRACE_DETACH, PTRACE_SEIZE, PTRACE_INTERRUPT = 17, 0x4206, 0x4207
WALL = 0x40000000  # of waitpid: threads of other processes too
NAME_MAX = 15  # what the kernel keeps of a thread's name

libc = ctypes.CDLL(None, use_errno=True)
libc.ptrace.restype = ctypes.c_long
libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]


def _ptrace(request, task, data=None):
    if libc.ptrace(request, task, None, data) < 0:
        number = ctypes.get_errno()
        raise LabError(f"thread {task} cannot be frozen: {os.strerror(number)}")


def find_task(pid, name):
    """The thread of that name. Raises LabError if there is none."""
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
    """Within the context, which is one thread's alone, the named thread stands still wherever it was."""
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
    """A signal that came in the way of the stop goes to the thread; one that was killed meanwhile is buried."""
    is_signal = status is not None and os.WIFSTOPPED(status) and status >> 16 == 0
    try:
        _ptrace(PTRACE_DETACH, task, os.WSTOPSIG(status) if is_signal else 0)
    except LabError:
        try:
            os.waitpid(task, WALL | os.WNOHANG)
        except ChildProcessError:
            pass

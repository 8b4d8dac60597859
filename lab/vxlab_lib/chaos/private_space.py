"""A private mount namespace, so that all mounts of a run end with it, however it ends.

Call it before any thread is started. It works as root, and without root if user namespaces are allowed.
"""

import ctypes
import os

from ..errors import LabError

CLONE_NEWNS = 0x00020000
CLONE_NEWUSER = 0x10000000
MS_REC = 0x4000
MS_PRIVATE = 1 << 18

WORK_ROOT = "/dev/shm"  # exists on every machine; a private tmpfs hides it after `enter`

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, what):
    if result != 0:
        raise LabError(f"{what}: {os.strerror(ctypes.get_errno())}")


def mount(source, target, kind, flags=0, data=""):
    _check(_libc.mount(source.encode(), target.encode(), kind.encode() if kind else None, ctypes.c_ulong(flags),
                       data.encode() or None), f"mount {source} on {target}")


def unmount(target):
    _check(_libc.umount2(target.encode(), 2), f"unmount {target}")  # 2: detach now, unmount with the last user


def enter(size):
    """Moves this process into a private mount namespace, with an empty tmpfs of at most `size` ("2g") at WORK_ROOT."""
    uid, gid = os.geteuid(), os.getegid()
    if uid == 0:
        _check(_libc.unshare(CLONE_NEWNS), "mount namespace")
    else:
        _check(_libc.unshare(CLONE_NEWUSER | CLONE_NEWNS),
               "namespaces are not allowed here: run it as root, or allow user namespaces")
        for name, text in (("setgroups", "deny"), ("uid_map", f"0 {uid} 1"), ("gid_map", f"0 {gid} 1")):
            with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
                file.write(text)
    mount("none", "/", None, MS_REC | MS_PRIVATE)
    mount("tmpfs", WORK_ROOT, "tmpfs", 0, f"mode=0755,size={size}")

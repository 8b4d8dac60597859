"""The run directory: all that a laboratory writes.

    lab.json            marks the directory as a laboratory's; the arguments of `up`
    lab.sock            the holder's socket
    lab.lock            locked by the holder while it runs; its process id
    holder.log          what the holder and its children print
    nodeK/kesh.conf     configuration of node K
    nodeK/kesh.log      its log
    nodeK/flashdisk/    its /flashdisk: cons/ and kesh.store
    nodeK/run/          its /run and /var/run: kesh.sock, kesh.vrrp (what keepalived said), node_state (who leads)
"""

import fcntl
import json
import os
import shutil

from .errors import LabError, UsageError

MARKER = "lab.json"


def write_by_rename(path, text):
    """Writes the file whole or not at all, so that a reader never sees half of it."""
    temporary = f"{path}.new"
    with open(temporary, "w", encoding="utf-8") as file:
        file.write(text)
    os.rename(temporary, path)


class RunDir:
    def __init__(self, path):
        self.path = os.path.realpath(path)
        if self.path == "/" or (self.path + "/").startswith(("/run/", "/var/run/", "/flashdisk/")):
            raise UsageError(f"{self.path}: nodes have their own /run and /flashdisk; choose another run directory")

    def file(self, *parts):
        return os.path.join(self.path, *parts)

    def node(self, node_id, *parts):
        return self.file(f"node{node_id}", *parts)

    def is_lab(self):
        return os.path.exists(self.file(MARKER))

    def read_settings(self):
        try:
            with open(self.file(MARKER), encoding="utf-8") as file:
                return json.load(file)
        except (OSError, ValueError) as error:
            raise LabError(f"{self.file(MARKER)}: {error}") from error

    def write_settings(self, settings):
        write_by_rename(self.file(MARKER), json.dumps(settings, indent=2) + "\n")

    def prepare(self):
        """Makes the directory, and empties one that held a laboratory before. Never touches any other directory."""
        try:
            os.makedirs(self.path, exist_ok=True)
            entries = os.listdir(self.path)
        except OSError as error:
            raise LabError(f"run directory {self.path}: {error.strerror}") from error
        if entries and not self.is_lab():
            raise UsageError(f"{self.path} is neither empty nor the run directory of a laboratory; choose another")
        for entry in entries:
            path = self.file(entry)
            if os.path.isdir(path) and not os.path.islink(path):
                shutil.rmtree(path)
            elif entry != "lab.lock":
                os.unlink(path)

    def remove(self):
        if self.is_lab():
            shutil.rmtree(self.path)

    def take_lock(self):
        """Locks the directory for the calling process and writes its id into the lock file. Returns the open file, or
        None if another process holds the lock. The kernel releases the lock when its owner ends."""
        file = open(self.file("lab.lock"), "a+", encoding="utf-8")
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            file.close()
            return None
        file.truncate(0)
        file.write(f"{os.getpid()}\n")
        file.flush()
        return file

    def holder_pid(self):
        """Returns the process id of the running holder, or None. Ignores a number that a dead one left."""
        try:
            with open(self.file("lab.lock"), encoding="utf-8") as file:
                try:
                    fcntl.flock(file, fcntl.LOCK_SH | fcntl.LOCK_NB)
                    return None
                except BlockingIOError:
                    return int(file.read() or 0) or None
        except FileNotFoundError:
            return None


def short_path(directory, name):
    """Returns a path to directory/name that fits the 107 bytes of a socket address, however deep the directory is, and
    a descriptor that keeps the path valid. Close it afterwards."""
    fd = os.open(directory, os.O_PATH | os.O_DIRECTORY)
    return f"/proc/self/fd/{fd}/{name}", fd

"""The run directory: everything that a laboratory ever writes.

    lab.json            marks the directory as ours; what `up` was asked for
    lab.sock            the holder's socket
    lab.lock            locked by the holder while it lives; its process id
    holder.log          what the holder and its children print
    nodeK/kesh.conf     configuration of node K
    nodeK/kesh.log      its log
    nodeK/flashdisk/    its /flashdisk: cons/ and journal
    nodeK/run/          its /run and /var/run: kesh.sock, node_state
"""

import fcntl
import json
import os
import shutil

from .errors import LabError, UsageError

MARKER = "lab.json"


def write_by_rename(path, text):
    """Whole or not at all: a reader never sees half a file."""
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

    def prepare(self, fresh):
        """Makes the directory; `fresh` empties one that held a laboratory before. Never touches what is not ours."""
        try:
            os.makedirs(self.path, exist_ok=True)
            entries = os.listdir(self.path)
        except OSError as error:
            raise LabError(f"run directory {self.path}: {error.strerror}") from error
        if entries and not self.is_lab():
            raise UsageError(f"{self.path} is neither empty nor the run directory of a laboratory; choose another")
        for entry in entries if fresh else []:
            path = self.file(entry)
            if os.path.isdir(path) and not os.path.islink(path):
                shutil.rmtree(path)
            elif entry != "lab.lock":
                os.unlink(path)

    def remove(self):
        if self.is_lab():
            shutil.rmtree(self.path)

    def take_lock(self):
        """Locks the directory for the calling process, whose id stands in the file then. Returns the open file, or None
        when somebody else has it. The kernel lets go of the lock with its owner."""
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
        """Process id of the living holder, or None. A number left by a dead one is never taken for it."""
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
    """A path to directory/name that fits the 107 bytes of a socket address, however deep the directory lies. The
    returned descriptor keeps it valid; close it afterwards."""
    fd = os.open(directory, os.O_PATH | os.O_DIRECTORY)
    return f"/proc/self/fd/{fd}/{name}", fd

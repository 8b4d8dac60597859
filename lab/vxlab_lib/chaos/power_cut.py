"""What a power cut leaves of a node's files, from the records of libvx_disk_faults.so (disk_undo.h has the formats).

All certain changes stay. The seed decides about the others:
- names: the changes up to some moment are kept and all later ones are undone; or all are kept, or all undone.
- content, for each file separately: kept; lost; or kept up to some byte, with zeros in the reserved space after it.

So a name may be there without its content, and the other way round. One thing is taken apart only on a careless file
system: what was written to a file before a rename is there if its new name is, but for payload files, which have
checksums. The library needs no such order with durable payloads: it flushes before it renames. Nor does the host: its
store is a database that syncs its log before it tells of success.
"""

import hashlib
import os
import random
import shutil
import struct
from dataclasses import dataclass

from ..errors import LabError
from ..node import UNDO

MAGIC = 0x31304F444E555856
HEADER = struct.Struct("<QQQ40x")
SLOT = struct.Struct("<IIQQQQQII96s104s")
PAYLOAD_HEADER = struct.Struct("<24xI4x32s")
FREE, UNDER_WAY, DONE = range(3)
CREATE, RENAME, UNLINK, DATA = range(1, 5)
FREE_TO_TEAR = "cons/payloads/"


def whole_payloads(directory):
    """(sender, id) of each payload that a node has on its disk, all of it. The library checks them in the same way."""
    for name in os.listdir(directory) if os.path.isdir(directory) else ():
        if not name.endswith(".tmp"):
            with open(os.path.join(directory, name), "rb") as file:
                content = file.read()
            header, payload = content[:PAYLOAD_HEADER.size], content[PAYLOAD_HEADER.size:]
            if len(header) == PAYLOAD_HEADER.size:
                length, digest = PAYLOAD_HEADER.unpack(header)
                if len(payload) == length and hashlib.sha256(header[:32] + payload).digest() == digest:
                    yield tuple(map(int, name.split(".")))


@dataclass
class Change:
    state: int
    kind: int
    sequence: int
    file: int
    replaced: int
    start: int
    end: int
    had_zeros: int
    has_copy: int
    name: str
    new_name: str


def read_log(path):
    """Returns (the changes that are not certain, in their order; how many could not be recorded)."""
    with open(path, "rb") as file:
        content = file.read()
    magic, _, not_kept = HEADER.unpack_from(content)
    if magic != MAGIC:
        raise LabError(f"{path} is no log of changes")
    found = []
    for *numbers, name, new_name in SLOT.iter_unpack(content[HEADER.size:]):
        if numbers[0] != FREE:
            found.append(Change(*numbers, *(text.split(b"\0", 1)[0].decode() for text in (name, new_name))))
    return sorted(found, key=lambda change: change.sequence), not_kept


class PowerCut:
    """The power cut of one node, whose process is dead. `root` is the directory that the node sees as /flashdisk."""

    def __init__(self, root, seed, is_careless=False):
        self._root = root
        self._is_careless = is_careless
        self._draw = random.Random(seed)
        self.lost = []  # sentences
        self.not_kept = 0

    def make(self):
        """Changes the files to what a power cut could have left. All of that is certain afterwards. Returns self."""
        log = self._beside("log")
        if not os.path.exists(log):
            return self
        changes, self.not_kept = read_log(log)
        names = [change for change in changes if change.kind != DATA]
        content = {}
        for change in changes:
            if change.kind == DATA:
                content.setdefault(change.file, []).append(change)
        kept = self._draw.choice([len(names), self._draw.randint(0, len(names)), 0])
        paths = self._paths()
        for file, writes in content.items():
            if file in paths:
                self._cut_content(paths[file], writes, names[:kept])
        for change in reversed(names[kept:]):
            self._undo_name(change)
        shutil.rmtree(self._beside())
        return self

    def _beside(self, *parts):
        return os.path.join(self._root, UNDO, *parts)

    def _path(self, name):
        return os.path.join(self._root, name)

    def _paths(self):
        """Returns inode -> one of its paths."""
        found = {}
        for directory, _, names in os.walk(self._root):
            for name in names:
                path = os.path.join(directory, name)
                found[os.lstat(path).st_ino] = path
        return found

    def _inode(self, name):
        try:
            return os.lstat(self._path(name)).st_ino
        except FileNotFoundError:
            return 0

    # ---- names

    def _undo_name(self, change):
        """Undoes a change of a name. Does nothing if the kill came before the change."""
        link = self._beside(f"link.{change.sequence}")
        if change.kind == CREATE:
            inode = self._inode(change.name)
            if inode and change.file in (0, inode):
                os.unlink(self._path(change.name))
                self.lost.append(f"{change.name} was not made")
        elif change.kind == RENAME and self._inode(change.new_name) == change.file:
            os.rename(self._path(change.new_name), self._path(change.name))
            if change.replaced:
                os.rename(link, self._path(change.new_name))
            self.lost.append(f"{change.new_name} was not replaced")
        elif change.kind == UNLINK and not self._inode(change.name) and os.path.exists(link):
            os.rename(link, self._path(change.name))
            self.lost.append(f"{change.name} was not removed")

    # ---- content

    def _cut_content(self, path, writes, kept_names):
        """Undoes some of `writes`, the changes of one file in their order."""
        renamed = max((change.sequence for change in kept_names
                       if change.kind == RENAME and change.file == writes[0].file and not self._is_careless and
                       not change.new_name.startswith(FREE_TO_TEAR)), default=0)
        may_go = [change for change in writes if change.sequence > renamed]
        how = self._draw.choice(["kept", "lost", "cut"])
        if not may_go or how == "kept":
            return
        first = 0 if how == "lost" else self._draw.randrange(len(may_go))
        size = os.path.getsize(path)
        for change in reversed(may_go[first:]):
            at = change.start
            if how == "cut" and change is may_go[first] and not change.has_copy:
                at = self._draw.randint(change.start, max(change.start, min(change.end, os.path.getsize(path))))
            self._undo_content(path, change, at)
        self.lost.append(f"{os.path.relpath(path, self._root)} {how}: {size} bytes, now {os.path.getsize(path)}")

    def _undo_content(self, path, change, at):
        with open(path, "r+b") as file:
            if change.has_copy:
                with open(self._beside(f"copy.{change.sequence}"), "rb") as before:
                    content = before.read()
                file.seek(change.start)
                file.write(content)
                if len(content) < change.end - change.start:
                    file.truncate()
            elif change.had_zeros:
                file.seek(at)
                file.write(bytes(max(0, min(change.end, os.path.getsize(path)) - at)))
            else:
                file.truncate(at)

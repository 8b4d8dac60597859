"""What a power cut may take away, and what it may not: a process changes files and is killed, power is cut by many
seeds, and exactly the outcomes that were possible are seen."""

import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import unittest
from contextlib import closing

from scenario import BUILD_DIR
from vxlab_lib.chaos.power_cut import PowerCut

SEEDS = 60
# Calls of the C library by name, so that they pass what is preloaded.
DRIVER = """
import ctypes, os, signal, sys
libc = ctypes.CDLL(None)
def path(name):
    return ("/flashdisk/" + name).encode()
def open_(name, flags=os.O_RDWR | os.O_CREAT | os.O_TRUNC):
    fd = libc.open(path(name), flags, 0o600)
    assert fd >= 0, name
    return fd
def write(fd, text):
    assert libc.write(fd, text, len(text)) == len(text)
def save(name, text, synced=True):
    fd = open_(name + ".tmp")
    write(fd, text)
    assert libc.rename(path(name + ".tmp"), path(name)) == 0
    libc.close(fd)
    if synced:
        libc.sync()
def append(name, text):
    fd = open_(name, os.O_RDWR | os.O_CREAT | os.O_APPEND)
    write(fd, text)
    return fd
"""
# Rows 1 to 40 are synced, a part of them over an older part of the -wal. The last three are not.
DATABASE = """
import sqlite3
store = sqlite3.connect("/flashdisk/store", isolation_level=None)
store.executescript("PRAGMA journal_mode = WAL; PRAGMA wal_autocheckpoint = 0; CREATE TABLE row (n, text)")
libc.sync()
for n in range(1, 44):
    if n == 30:
        store.execute("PRAGMA wal_checkpoint(RESTART)")
    if n == 41:
        store.execute("PRAGMA synchronous = NORMAL")
    store.execute("INSERT INTO row VALUES (?, ?)", (n, "x" * 3000))
"""
NEXT = "---"  # what follows is done by another process
KILL = "\nos.kill(os.getpid(), signal.SIGKILL)\n"
PART = {b"", b"n", b"ne", b"new"}


def after(old, parts):
    return {old + part for part in parts}


# what, the driver's calls, [files looked at], every outcome: contents of these, None for no file
CASES = [
    ("a synced save", 'save("cons/a", b"old"); save("cons/a", b"new")', ["cons/a"], {(b"new",)}),
    ("a save that is not synced", 'save("cons/a", b"old"); save("cons/a", b"new", False)', ["cons/a"],
     {(b"old",), (b"new",)}),
    ("the first save of a record", 'save("cons/a", b"new", False)', ["cons/a"], {(None,), (b"new",)}),
    ("names keep their order", 'save("cons/a", b"1"); save("cons/a", b"2", False); save("cons/b", b"3", False)',
     ["cons/a", "cons/b"], {(b"1", None), (b"2", None), (b"2", b"3")}),
    ("a record, and what a hook wrote before it", 'append("journal", b"old"); save("cons/a", b"1")\n'
     'append("journal", b"new"); save("cons/a", b"2", False)', ["journal", "cons/a"],
     {(content, record) for content in after(b"old", PART) for record in (b"1", b"2")}),
    ("a hook that flushes", 'append("journal", b"old"); save("cons/a", b"1")\n'
     'libc.fdatasync(append("journal", b"new")); save("cons/a", b"2", False)', ["journal", "cons/a"],
     {(b"oldnew", b"1"), (b"oldnew", b"2")}),
    ("flushed content, a name that is not", 'fd = append("journal", b"new"); libc.fsync(fd)', ["journal"],
     {(None,), (b"new",)}),
    ("a flushed directory", 'save("cons/a", b"old")\nfd = open_("cons/a.tmp"); write(fd, b"new"); libc.fsync(fd)\n'
     'libc.rename(path("cons/a.tmp"), path("cons/a")); libc.fsync(open_("cons", os.O_RDONLY | os.O_DIRECTORY))',
     ["cons/a"], {(b"new",)}),
    ("a payload", 'save("cons/payloads/1.2", b"new", False)', ["cons/payloads/1.2"],
     {(None,), *((part,) for part in PART)}),
    ("a payload whose room is reserved", 'fd = open_("cons/payloads/1.2"); libc.posix_fallocate(fd, ctypes.c_long(0), '
     'ctypes.c_long(3)); libc.sync(); write(fd, b"new")', ["cons/payloads/1.2"],
     {(b"new",), (b"ne\0",), (b"n\0\0",), (b"\0\0\0",)}),
    ("a process that goes on with what another one left", 'save("cons/a", b"old"); save("cons/a", b"new", False)' + NEXT +
     'append("journal", b"")', ["cons/a"], {(b"old",), (b"new",)}),
    ("a process that makes certain what another one left", 'save("cons/a", b"old"); save("cons/a", b"new", False)' + NEXT +
     'libc.sync()', ["cons/a"], {(b"new",)}),
    ("a removed file", 'save("cons/a", b"old"); libc.unlink(path("cons/a"))', ["cons/a"], {(b"old",), (None,)}),
    ("removed for good", 'save("cons/a", b"old"); libc.unlink(path("cons/a")); libc.sync()', ["cons/a"], {(None,)}),
    ("an end that was cut off", 'append("journal", b"oldnew"); libc.sync()\n'
     'libc.ftruncate(append("journal", b""), ctypes.c_long(3))', ["journal"], {(b"old",), (b"oldnew",)}),
    ("a part overwritten, and more behind it", 'fd = open_("journal"); write(fd, b"older"); libc.sync()\n'
     'libc.pwrite(fd, b"newest", ctypes.c_size_t(6), ctypes.c_long(2))', ["journal"], {(b"older",), (b"olnewest",)}),
    ("overwritten in place", 'fd = open_("journal"); write(fd, b"old"); libc.sync()\n'
     'libc.pwrite(fd, b"new", ctypes.c_size_t(3), ctypes.c_long(0))', ["journal"], {(b"old",), (b"new",)}),
]


class Cut(unittest.TestCase):
    def setUp(self):
        self.path = tempfile.mkdtemp(prefix="power-", dir=BUILD_DIR)
        self.addCleanup(shutil.rmtree, self.path)
        self.root = os.path.join(self.path, "flashdisk")

    def run_driver(self, code):
        view = [os.path.join(BUILD_DIR, "bin", "vx-node-view"), "--flashdisk", self.root, "--run",
                os.path.join(self.path, "run"), "--", "env", "VX_DISK_UNDO=/flashdisk/.undo",
                "LD_PRELOAD=" + os.path.join(BUILD_DIR, "lib", "libvx_disk_faults.so"), sys.executable, "-c"]
        done = subprocess.run([*view, DRIVER + code + KILL], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, -9, done.stderr)

    def content(self, name):
        try:
            with open(os.path.join(self.root, name), "rb") as file:
                return file.read()
        except FileNotFoundError:
            return None

    def outcome(self, code, names, seed, is_careless=False):
        os.makedirs(os.path.join(self.root, "cons", "payloads"))
        os.makedirs(os.path.join(self.path, "run"), exist_ok=True)
        for part in code.split(NEXT):
            self.run_driver(part)
        cut = PowerCut(self.root, seed, is_careless).make()
        self.assertEqual(cut.not_kept, 0)
        self.assertNotIn(".undo", os.listdir(self.root))
        found = tuple(self.content(name) for name in names)
        shutil.rmtree(self.root)
        return found

    def test_leaves_what_was_certain_and_any_part_of_the_rest(self):
        for what, code, names, possible in CASES:
            with self.subTest(what):
                found = set()
                for seed in range(SEEDS):
                    found.add(self.outcome(code, names, seed))
                    if found == possible and seed >= 12:
                        break
                self.assertEqual(found, possible)

    def rows_of_database(self, seed):
        os.makedirs(os.path.join(self.path, "run"), exist_ok=True)
        os.makedirs(self.root)
        self.run_driver(DATABASE)
        PowerCut(self.root, seed).make()
        with closing(sqlite3.connect(os.path.join(self.root, "store"))) as store:
            self.assertEqual(store.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
            rows = [n for n, in store.execute("SELECT n FROM row ORDER BY n")]
        shutil.rmtree(self.root)
        return rows

    def test_a_database_keeps_what_it_has_synced(self):
        found = set()
        for seed in range(SEEDS):
            rows = self.rows_of_database(seed)
            self.assertEqual(rows, list(range(1, len(rows) + 1)))
            found.add(len(rows))
            if {40, 43} <= found:
                break
        self.assertLessEqual({40, 43}, found)
        self.assertGreaterEqual(min(found), 40)

    def test_a_careless_file_system_may_keep_a_name_without_its_content(self):
        found = {self.outcome('save("cons/a", b"old"); save("cons/a", b"new", False)', ["cons/a"], seed, True)
                 for seed in range(SEEDS)}
        self.assertEqual(found, {(b"old",), *((part,) for part in PART)})


if __name__ == "__main__":
    unittest.main()

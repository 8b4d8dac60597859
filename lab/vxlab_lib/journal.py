"""Reads a node's journal out of its store, a SQLite database, independently of the program that wrote it. The hashes of
the payloads are computed anew from their items."""

import hashlib
import os
import shutil
import sqlite3
import struct
import tempfile
from contextlib import closing, contextmanager
from dataclasses import dataclass, field
from urllib.parse import quote

from .errors import CheckFailed

STORE = "kesh.store"  # in /flashdisk
STORE_PARTS = (STORE, STORE + "-wal")  # all that a killed daemon leaves of it
LINE = 1  # kind of an item
MAGIC = b"KPL2"
HEAD = struct.Struct("<BQI")  # of a payload, behind the magic: origin, life, items
ITEM = struct.Struct("<BQII")  # kind, sequence, attempt, length; the text follows
UNSIGNED = (1 << 64) - 1  # SQLite's integers have a sign
READ_TIMEOUT_S = 10.0


@dataclass(frozen=True)
class Line:
    number: int
    hash: str  # 12 hexadecimal digits of H(n), 4 of the position in payload n
    tag: str  # node.life.sequence
    attempt: int
    text: bytes
    n: int = 0  # the payload's number in the order


@dataclass
class Journal:
    node: int
    lines: list = field(default_factory=list)
    base: int = 0  # lines before the first one that is kept
    repeats: set = field(default_factory=set)  # (tag, attempt) of items that came again under a later attempt

    @property
    def count(self):
        return self.lines[-1].number if self.lines else self.base

    @property
    def hash(self):
        return self.lines[-1].hash if self.lines else ""


@contextmanager
def _opened(path, in_use):
    """Gives a connection. Nothing is changed at `path`: the last connection to a database that nobody uses would remove
    its -wal, so such a database is copied first."""
    if in_use:
        with closing(sqlite3.connect(f"file:{quote(path)}?mode=ro", timeout=READ_TIMEOUT_S, uri=True)) as connection:
            yield connection
        return
    with tempfile.TemporaryDirectory(prefix="store-") as directory:
        copy = os.path.join(directory, "copy")
        for suffix in ("", "-wal"):
            if os.path.exists(path + suffix):
                shutil.copyfile(path + suffix, copy + suffix)
        with closing(sqlite3.connect(copy)) as connection:
            yield connection


def read_journal(path, node, in_use=False):
    """Reads the store at `path`; the journal is empty if there is none. `in_use`: its daemon runs. Raises CheckFailed
    for a store that is damaged or contradicts itself."""
    journal = Journal(node)
    if not os.path.exists(path):
        return journal
    try:
        with _opened(path, in_use) as store:
            store.execute("BEGIN")  # one look for all tables
            _read(store, journal, path)
    except sqlite3.Error as error:
        raise CheckFailed(f"{path}: {error}") from error
    return journal


def _read(store, journal, path):
    meta = dict(store.execute("SELECT key, value FROM meta WHERE key IN ('base_n', 'base_hash', 'base_lines')"))
    n, before, journal.base = meta["base_n"], bytes(meta["base_hash"]), meta["base_lines"]
    items = store.execute("SELECT n, position, kind, sequence, attempt, line, is_repeat, text FROM item "
                          "ORDER BY n, position")
    item = items.fetchone()
    for row in store.execute("SELECT n, hash, origin, life, first_line, lines, items FROM payload ORDER BY n"):
        n += 1
        number, hash_, origin, life, first_line, lines, count = row
        if number != n or first_line != journal.count + 1:
            raise CheckFailed(f"{path}: payload {number} begins with line {first_line}; expected are payload {n}, line "
                              f"{journal.count + 1}")
        own = []
        while item and item[0] == n:
            own.append(item)
            item = items.fetchone()
        if len(own) != count or [one[1] for one in own] != list(range(count)):
            raise CheckFailed(f"{path}: payload {n} has not the {count} items that it should have")
        if not count:  # its items are not kept
            if journal.lines:
                raise CheckFailed(f"{path}: payload {n} lacks its items, earlier ones do not")
            journal.base = first_line + lines - 1
        elif hash_ != hashlib.sha256(before + _bytes(origin, life, own)).digest():
            raise CheckFailed(f"{path}: payload {n} has not the bytes that its hash tells")
        before = hash_
        _add_lines(journal, f"{origin}.{life & UNSIGNED:016x}", hash_.hex()[:12], own)
    if item:
        raise CheckFailed(f"{path}: an item belongs to payload {item[0]}, which is not there")


def _bytes(origin, life, items):
    """Returns the payload as it was distributed."""
    parts = [MAGIC, HEAD.pack(origin, life & UNSIGNED, len(items))]
    for _, _, kind, sequence, attempt, _, _, text in items:
        parts += [ITEM.pack(kind, sequence & UNSIGNED, attempt, len(text)), text]
    return b"".join(parts)


def _add_lines(journal, author, hash_, items):
    for n, position, kind, sequence, attempt, line, is_repeat, text in items:
        tag = f"{author}.{sequence & UNSIGNED}"
        if is_repeat:
            journal.repeats.add((tag, attempt))
        elif kind == LINE:
            journal.lines.append(Line(line, f"{hash_}{position:04x}", tag, attempt, bytes(text), n))

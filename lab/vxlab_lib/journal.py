"""Reads a node's journal file independently of the program that wrote it."""

import re
import zlib
from dataclasses import dataclass, field

from .errors import CheckFailed, LabError


@dataclass(frozen=True)
class Line:
    number: int
    hash: str
    tag: str  # node.life.sequence
    attempt: int
    text: bytes


@dataclass
class Journal:
    node: int
    lines: list = field(default_factory=list)
    base: int = 0  # lines applied before the first one in the file
    base_hash: str = ""
    repeated: int = 0  # delivered again under a later attempt: not a fault
    redelivered: int = 0  # the last line before a crash, again after it: not a fault
    doubled: int = 0  # delivered twice: a fault

    @property
    def count(self):
        return self.lines[-1].number if self.lines else self.base

    @property
    def hash(self):
        return self.lines[-1].hash if self.lines else self.base_hash


def parse_record(raw, where):
    """Returns (kind, Line) of one record without its newline."""
    crc, _, rest = raw.partition(b" ")
    if len(crc) != 8 or int(crc, 16) != zlib.crc32(rest):
        raise CheckFailed(f"{where}: the record is damaged")
    fields = rest.split(b" ", 5)
    kind, number, running_hash, tag, attempt = (word.decode() for word in fields[:5])
    return kind, Line(int(number), running_hash, tag, int(attempt), unescape(fields[5]))


def unescape(text):
    """Undoes \\\\ and \\xHH."""
    if b"\\" not in text:
        return text
    return re.sub(rb"\\(\\|x[0-9a-f]{2})", lambda found: bytes.fromhex(found[1][1:].decode()) or b"\\", text)


def read_journal(path, node):
    """Reads the file. Leaves out a record without its newline, which is still being written."""
    journal = Journal(node)
    try:
        with open(path, "rb") as file:
            content = file.read()
    except FileNotFoundError:
        return journal
    except OSError as error:
        raise LabError(f"{path}: {error.strerror}") from error
    for number, raw in enumerate(content.split(b"\n")[:-1], 1):
        kind, line = parse_record(raw, f"{path}:{number}")
        if kind == "L":
            journal.lines.append(line)
        elif kind == "S":
            journal.base, journal.base_hash = line.number, line.hash
            counters = [int(word) for word in line.text.split()[:3]]
            journal.repeated, journal.doubled, journal.redelivered = counters
        elif kind == "R":
            journal.repeated += 1
        elif kind == "A":
            journal.redelivered += 1
        elif kind == "D":
            journal.doubled += 1
        else:
            raise CheckFailed(f"{path}:{number}: unknown kind of record {kind!r}")
    return journal

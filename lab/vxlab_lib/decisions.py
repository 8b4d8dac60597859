"""Reads the library's durable files while it writes them (each is replaced whole, by rename)."""

import os
import struct
import zlib
from dataclasses import dataclass

LOG_ENTRIES_MAX = 250
ENTRY = struct.Struct("<BI")


@dataclass(frozen=True)
class Decided:
    number: int  # of the last decision
    count: int  # entries in its log
    log: bytes  # count and 250 entries, 1254 bytes

    def entry(self, index):
        return ENTRY.unpack_from(self.log, 4 + index * ENTRY.size)

    def entries(self):
        return [self.entry(index) for index in range(self.count)]

    def crc(self):
        return zlib.crc32(self.log)

    def number_of(self, entry):
        """Returns the number of the decision that added `entry`; 0 if this log does not name it."""
        for index in range(self.count - 1, -1, -1):
            if self.entry(index) == entry:
                return self.number - self.count + 1 + index
        return 0


def read_file(directory, name, size):
    try:
        with open(os.path.join(directory, name), "rb") as file:
            return file.read(size)
    except OSError:
        return b""


def read_decided(directory):
    """Returns the node's last decision, or None if there is no whole record."""
    return decode_decided(read_file(directory, "paxos_decide", 1259))


def decode_decided(content):
    if len(content) != 1258:
        return None
    number, count = struct.unpack_from("<II", content)
    return Decided(number, count, content[4:]) if count <= LOG_ENTRIES_MAX else None


def read_position(directory):
    """Returns (number, count) of the last decision; (0, 0) if there is none."""
    content = read_file(directory, "paxos_decide", 8)
    return struct.unpack("<II", content) if len(content) == 8 else (0, 0)


def read_delivered(directory):
    """Returns (sender, message id) of the last delivery, or None."""
    content = read_file(directory, "paxos_deliver", 6)
    return ENTRY.unpack(content) if len(content) == ENTRY.size else None


def delivered_number(directory):
    """Returns the number of the decision that the node delivered last, or 0 if its own log does not name it."""
    decided, delivered = read_decided(directory), read_delivered(directory)
    return decided.number_of(delivered) if decided and delivered else 0

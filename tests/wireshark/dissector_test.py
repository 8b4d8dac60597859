"""The dissector on datagrams made by hand: what it tells of a sound one, and that it flags each that does not fit."""

import struct
import sys
import tempfile
import unittest
from struct import pack

sys.dont_write_bytecode = True

from tshark import dissect, info_of  # noqa: E402

PORT_BASE = 17480
OTHER_PORT = 9999
LINKTYPE_IPV4 = 228
SENDER = bytes((127, 1, 0, 2))
GROUP = bytes((224, 0, 0, 81))
DECIDE_TAIL = bytes(5 * 248 + 1)
HELLO = (b'{"cluster":"lab","decision":12,"n":10,"node":2,"reason":"\\"node\\":7","role":"leader","standing":"member",'
         b'"top":13}')


def frame(channel, payload, bulk=0, length=None):
    return b"VX" + bytes((bulk, channel)) + pack("<QI4sI", 0x112233445566, 10000, SENDER,
                                                  len(payload) if length is None else length) + payload


def entry(submitter, number):
    return pack("<BI", submitter, number)


def data(type_, submitter, number, *more, source=2):
    return pack("<HB", type_, source) + entry(submitter, number) + pack(f"<{len(more)}I", *more)


def decide(count, *entries):
    return pack("<II5xI", 0, 9, count) + b"".join(entries) + DECIDE_TAIL


SOUND = [
    (3, pack("<III", 0, 7, 2), "READ_REQ register 7 round 2"),
    (3, pack("<IIIII", 1, 7, 2, 0, 0), "READ_ACK register 7 round 2 write round 0 no value"),
    (3, pack("<IIIII", 1, 7, 2, 1, 5) + entry(1, 7), "READ_ACK register 7 round 2 write round 1 value 1.7"),
    (3, pack("<III", 2, 7, 2), "READ_NACK register 7 round 2"),
    (3, pack("<IIII", 3, 7, 2, 5) + entry(16, 0xffffffff), "WRITE_REQ register 7 round 2 value 16.4294967295"),
    (3, pack("<III", 4, 7, 2), "WRITE_ACK register 7 round 2"),
    (3, pack("<III", 5, 7, 2), "WRITE_NACK register 7 round 2"),
    (4, decide(2, entry(1, 4), entry(2, 3)), "DECIDE 9 2.3, log of 2"),
    (4, pack("<I", 1) + entry(2, 7) + bytes(3), "FORWARD 2.7"),
    (5, data(0, 2, 7), "OFFER 2.7"),
    (5, data(1, 1, 7, 0, 0xffffffff), "REQ 1.7"),
    (5, data(1, 1, 7, 1400, 2800), "REQ 1.7 2800 bytes at 1400"),
    (5, data(2, 1, 7, 1400, 1405, 5) + b"piece", "DATA 1.7 5 bytes at 1400 of 1405"),
    (5, data(3, 1, 7), "COMPLETE 1.7"),
    (5, data(4, 1, 7, source=0), "MISSING 1.7"),
    (6, pack("<II", 0, 9) + b"KS1\x02hello", "message of type 0, 9 bytes node 2 says: hello"),
    (6, pack("<II", 7, 3) + b"abc", "message of type 7, 3 bytes"),
    (7, b"VXP\x01" + pack("<BBHIII", 1, 2, 0, 9, 5, 30) + bytes(10), "PROBE 5 of node 2, 30 bytes"),
    (7, b"VXP\x01" + pack("<BBHIII", 2, 2, 0, 9, 5, 30), "PROBE answer 5 of node 2, 30 bytes"),
    (7, HELLO, 'HELLO member, leader, decision 12, 10 payloads (\\"node\\":7)'),
]

OFFER = frame(5, data(0, 2, 7))

# Port, datagram and a part of the fault.
UNSOUND = [
    (5, b"V", "2 bytes wanted, 1 left"),
    (5, OFFER[:23], "4 bytes wanted, 3 left"),
    (5, b"W" + OFFER[1:], "not of the messaging service"),
    (5, frame(5, data(0, 2, 7), bulk=2), "bulk is 2"),
    (4, OFFER, "channel 5 on port 17484"),
    (5, frame(8, b""), "channel 8"),
    (5, OFFER[:-1], "7 bytes behind the envelope instead of 8"),
    (5, OFFER + b"x", "9 bytes behind the envelope instead of 8"),
    (5, frame(5, data(0, 2, 7), length=0xffffffff), "instead of 4294967295"),
    (3, frame(3, pack("<III", 6, 7, 2)), "channel 3 has no type 6"),
    (3, frame(3, pack("<IIII", 3, 7, 2, 4) + b"1234"), "a value of 4 bytes"),
    (3, frame(3, pack("<IIII", 3, 7, 2, 0xfffffff0) + b"1234"), "4294967280 bytes wanted, 4 left"),
    (4, frame(4, pack("<I", 2) + bytes(8)), "channel 4 has no type 2"),
    (4, frame(4, decide(0, entry(1, 4), entry(2, 3))), "a log of 0 entries"),
    (4, frame(4, decide(251, entry(1, 4), entry(2, 3))), "a log of 251 entries"),
    (4, frame(4, decide(2, entry(1, 4), entry(17, 3))), "17.3 identifies nothing"),
    (5, frame(5, data(5, 2, 7)), "channel 5 has no type 5"),
    (5, frame(5, data(0, 2, 0)), "2.0 identifies nothing"),
    (5, frame(5, data(0, 2, 7, source=0)), "from node 0"),
    (5, frame(5, data(3, 2, 7, source=17)), "from node 17"),
    (5, frame(5, data(2, 1, 7, 1, 1405, 1400) + bytes(1400)), "no piece begins at 1 of 1405"),
    (5, frame(5, data(2, 1, 7, 0, 20, 19) + bytes(20)), "a piece of 19 bytes at 0 of 20"),
    (5, frame(5, data(2, 1, 7, 0, 20, 20) + bytes(20)), "bytes of records in a payload that has room for 12"),
    (6, frame(6, pack("<II", 0, 0xffffffff) + b"abc"), "4294967295 bytes wanted, 3 left"),
    (7, frame(7, b"VXP\x01" + pack("<BBHIII", 3, 2, 0, 9, 5, 20)), "a probe of kind 3"),
    (7, frame(7, b"VXP\x01" + pack("<BBHIII", 1, 2, 0, 9, 5, 31) + bytes(10)), "a probe of 30 bytes says 31"),
    (7, frame(7, HELLO.replace(b'"top"', b'"pot"')), "a hello without top"),
    (7, frame(7, b"{" + bytes(1399) + b"}"), "a hello of 1401 bytes"),
]


class Dissector(unittest.TestCase):
    def dissect(self, datagrams, options=()):
        """Dissects (UDP port, bytes, how many of the last bytes the capture lacks)."""
        with tempfile.NamedTemporaryFile(suffix=".pcap") as capture:
            capture.write(pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, LINKTYPE_IPV4))
            for port, datagram, lacking in datagrams:
                udp = struct.pack(">HHHH", 40000, port, 8 + len(datagram), 0) + datagram
                packet = struct.pack(">BBHIBBH", 0x45, 0, 20 + len(udp), 0, 1, 17, 0) + SENDER + GROUP + udp
                captured = packet[:len(packet) - lacking]
                capture.write(pack("<IIII", 0, 0, len(captured), len(packet)) + captured)
            capture.flush()
            frames = dissect(capture.name, options=options)
        self.assertEqual(len(frames), len(datagrams))
        return frames

    def test_tells_what_is_sound(self):
        told = self.dissect([(PORT_BASE + channel, frame(channel, message), 0) for channel, message, _ in SOUND])
        for (_, _, info), one in zip(SOUND, told):
            with self.subTest(info):
                self.assertEqual(info_of(one), "node 2: " + info)
                self.assertEqual(one["vx.fault"] + one["vx.rest"], [])

    def test_flags_what_is_cut_or_longer(self):
        """The first 40 prefixes of each message, the longest one, three bytes more, and a capture that lacks bytes."""
        changed = [(channel, message[:size], 0) for channel, message, _ in SOUND
                   for size in {*range(min(len(message), 40)), len(message) - 1}]
        changed += [(channel, message + b"\0\0\0", 0) for channel, message, _ in SOUND]
        changed += [(channel, message, 2) for channel, message, _ in SOUND]
        told = self.dissect([(PORT_BASE + channel, frame(channel, message), lacking)
                             for channel, message, lacking in changed])
        for (channel, message, lacking), one in zip(changed, told):
            with self.subTest(channel=channel, message=message, lacking=lacking):
                flags = one["vx.fault"] + one["vx.rest"]
                self.assertEqual(len(flags), 1)
                self.assertEqual(lacking > 0, "not captured whole" in flags[0])

    def test_flags_what_is_out_of_range(self):
        told = self.dissect([(PORT_BASE + channel, datagram, 0) for channel, datagram, _ in UNSOUND])
        for (_, _, fault), one in zip(UNSOUND, told):
            with self.subTest(fault):
                self.assertIn(fault, " ".join(one["vx.fault"]))
                self.assertIn(one["vx.fault"][0], info_of(one))

    def test_other_ports(self):
        """Elsewhere only what a receiver would accept is a message; the first port is a preference."""
        datagrams = [(OTHER_PORT, OFFER, 0), (OTHER_PORT, OFFER[:-1], 0), (PORT_BASE + 5, OFFER[:-1], 0)]
        for base, ours in ((PORT_BASE, [True, False, True]), (OTHER_PORT - 5, [True, True, False])):
            told = self.dissect(datagrams, options=("-o", f"vx.port_base:{base}"))
            self.assertEqual(["vx" in one["frame.protocols"][0].split(":") for one in told], ours)


if __name__ == "__main__":
    unittest.main()

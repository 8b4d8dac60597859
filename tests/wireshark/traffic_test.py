"""The dissector on the traffic of a real cluster: it understands all of it, and shows what the test knows of it."""

import os
import signal
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../cluster"))

from scenario import Scenario, wait_until  # noqa: E402
from tshark import dissect, info_of  # noqa: E402

from vxlab_lib import programs  # noqa: E402

SHORT, LATER = b"a line of one piece", b"a line after the change"
LONG = b"a line of several pieces " * 200
FAREWELL = "a message to all"
END, END_PORT = b"the end of the capture", 9

PIECE_SIZE = 1400
AROUND_A_LINE = 8 + 8 + 17 + 17  # headers of payload, record, items and item

FIELDS = ("ip.src", "vx.node", "vx.channel", "vx.id", "vx.paxos.number", "vx.paxos.entry", "vx.data.from",
          "vx.data.offset", "vx.data.total", "vx.data.length", "vx.item.text", "vx.hello.node", "vx.probe.asker",
          "vx.say.node", "vx.say.text", "json.key", "udp.dstport", "vx.seal.key", "vx.seal.sender")

CONVERSATION = {"READ_REQ", "READ_ACK", "WRITE_REQ", "WRITE_ACK", "DECIDE", "FORWARD", "OFFER", "REQ", "DATA",
                "COMPLETE", "HELLO", "message"}


class Traffic(Scenario):
    options = ()

    def before_start(self):
        self.capture = self.cluster.dir.file("traffic.pcapng")
        output = self.cluster.dir.file("dumpcap.log")
        self.cluster.holder.ask("spawn", node="dumpcap", dir=self.path, output=output,
                                command=["dumpcap", "-i", "lo", "-f", "udp", "-w", self.capture])
        wait_until(lambda: "File: " in self.read(output).decode(), 10.0, lambda: f"a capture: {self.read(output)}")

    @staticmethod
    def read(path):
        with open(path, "rb") as file:
            return file.read()

    def end_capture(self):
        """What was sent before is then in the file."""
        node = self.cluster.node(2)
        programs.run(node.kesh("say", FAREWELL), "send a cluster message", cwd=node.dir)
        send = f"import socket; socket.socket(type=socket.SOCK_DGRAM).sendto({END!r}, ('127.0.0.1', {END_PORT}))"
        self.cluster.holder.ask("spawn", node="end", dir=self.path, output=self.cluster.dir.file("end.log"),
                                command=["/usr/bin/python3", "-c", send])
        wait_until(lambda: END in self.read(self.capture), 10.0, "the end is captured")
        self.cluster.holder.ask("signal", node="dumpcap", signal=int(signal.SIGINT))
        self.assertIn("exit_code", self.cluster.holder.ask("wait", 25.0, node="dumpcap", timeout_s=20.0))

    def converse(self):
        """Each line travels in a payload of its own."""
        self.cluster.submit(1, [SHORT]).wait()
        self.cluster.submit(2, [LONG]).wait()
        node = self.cluster.node(3)
        programs.run(node.kesh("probe", "--count", "1"), "probe", cwd=node.dir)
        self.cluster.kill(1)
        self.cluster.set_master(2)
        self.cluster.submit(3, [LATER]).wait()
        self.cluster.await_equal((2, 3))
        self.end_capture()

    def frames_that_say(self, *words):
        return [frame for frame in self.frames if info_of(frame).split()[2:2 + len(words)] == list(words)]

    def test_conversation(self):
        self.converse()
        frames = dissect(self.capture, *FIELDS, options=self.options)
        self.assertEqual(sum(frame["udp.dstport"] == [str(END_PORT)] for frame in frames), 1)
        self.frames = [frame for frame in frames if frame["udp.dstport"] != [str(END_PORT)]]
        self.check_seals()
        self.check_all_understood()
        for text, submitter, leader in ((SHORT, 1, 1), (LONG, 2, 1), (LATER, 3, 2)):
            with self.subTest(text[:30]):
                self.check_way_of(text, str(submitter), str(leader))
        self.check_log()
        said = [frame for frame in self.frames if frame["vx.say.text"]]
        self.assertEqual([(frame["vx.say.node"], frame["vx.say.text"]) for frame in said], [(["2"], [FAREWELL])])
        answers = self.frames_that_say("PROBE", "answer")
        self.assertEqual({(frame["vx.node"][0], frame["vx.probe.asker"][0]) for frame in answers},
                         {("1", "3"), ("2", "3")})
        hellos = self.frames_that_say("HELLO")
        self.assertEqual({frame["vx.hello.node"][0] for frame in hellos}, {"1", "2", "3"})
        for frame in hellos:
            self.assertIn("session", frame["json.key"])

    def check_seals(self):
        self.assertFalse(any(frame["vx.seal.key"] for frame in self.frames))

    def check_all_understood(self):
        self.assertEqual([info_of(frame) for frame in self.frames if frame["vx.fault"] or frame["vx.rest"]], [])
        self.assertEqual({frame["frame.protocols"][0].split(":")[4] for frame in self.frames}, {"vx"})
        self.assertLessEqual(CONVERSATION, {info_of(frame).split()[2] for frame in self.frames})
        for frame in self.frames:
            self.assertEqual(frame["ip.src"], [f"127.1.0.{frame['vx.node'][0]}"])
            self.assertIn(frame["vx.data.from"] or frame["vx.hello.node"] or frame["vx.node"], [frame["vx.node"]])

    def check_way_of(self, text, submitter, leader):
        """A payload is offered, asked for, sent in pieces, held by a majority, forwarded and decided."""
        id_ = next(frame["vx.id"][0] for frame in self.frames if frame["vx.item.text"] == [text.decode()])
        self.assertEqual(id_.split(".")[0], submitter)
        self.assertEqual({frame["vx.node"][0] for frame in self.frames_that_say("OFFER", id_)}, {submitter})
        self.assertTrue(self.frames_that_say("REQ", id_))
        total = len(text) + AROUND_A_LINE
        pieces = {tuple(int(frame[f"vx.data.{field}"][0]) for field in ("offset", "length", "total"))
                  for frame in self.frames_that_say("DATA", id_)}
        self.assertEqual(pieces, {(at, min(PIECE_SIZE, total - at), total) for at in range(0, total, PIECE_SIZE)})
        self.assertTrue(self.frames_that_say("COMPLETE", id_))
        forwards = {frame["vx.node"][0] for frame in self.frames_that_say("FORWARD", id_)}
        # A leader, too, forwards before it knows that it leads.
        self.assertIn(forwards, ({submitter}, {submitter} - {leader}))
        decides = [frame for frame in self.frames_that_say("DECIDE") if frame["vx.id"] == [id_]]
        self.assertEqual(decides[0]["vx.node"], [leader])

    def check_log(self):
        """What is decided was offered, and the last log is the order of the journals."""
        offered = {frame["vx.id"][0] for frame in self.frames_that_say("OFFER")}
        last = max(self.frames_that_say("DECIDE"), key=lambda frame: int(frame["vx.paxos.number"][0]))
        self.assertLessEqual(set(last["vx.paxos.entry"]), offered)
        texts = {frame["vx.id"][0]: frame["vx.item.text"] for frame in self.frames if frame["vx.item.text"]}
        order = [text for entry in last["vx.paxos.entry"] for text in texts.get(entry, [])]
        self.assertEqual(order, [line.text.decode() for line in self.cluster.node(3).journal().lines])


class SealedTraffic(Traffic):
    """The same under a key; greetings are left out of what Traffic looks at."""
    KEY = "5a" * 32

    def settings(self, node):
        path = self.cluster.dir.file("kesh.keys")
        if not os.path.exists(path):
            with open(os.open(path, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="ascii") as file:
                file.write(f"seal 7 {self.KEY}\n")
        self.options = ("-o", f"vx.keys:{path}")
        return {"messaging.keys": path}

    def check_seals(self):
        self.assertEqual({frame["vx.seal.key"][0] for frame in self.frames}, {"7"})
        self.assertEqual([frame for frame in self.frames if frame["ip.src"] != [f"127.1.0.{frame['vx.seal.sender'][0]}"]], [])
        greetings = self.frames_that_say("greeting,")
        self.assertEqual({frame["vx.seal.sender"][0] for frame in greetings}, {"1", "2", "3"})
        self.frames = [frame for frame in self.frames if frame not in greetings]
        unopened = dissect(self.capture)
        self.assertTrue(any("sealed with key 7," in info_of(frame) for frame in unopened))
        self.assertFalse(any("HELLO" in info_of(frame) for frame in unopened))


if __name__ == "__main__":
    unittest.main()

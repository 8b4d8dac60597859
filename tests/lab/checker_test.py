"""The checker of the cluster's promises: a good episode passes, and each broken one is called what it is."""

import os
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.environ.get("VX_LAB_DIR") or os.path.join(HERE, "../../lab"))

from episode_builder import STATE, THREADS, Builder, tag  # noqa: E402
from vxlab_lib.checker import CouldNotRun, check  # noqa: E402

LOST = "CONS: PAXOS DATA: data lost - skipped (id=3/2)"


def swapped(one, other):
    """Every node delivers these two the other way round, at each other's times."""
    def change(builder):
        for node in (1, 2, 3):
            order = builder.order.setdefault(node, list(builder.plan))
            a, b = order[one], order[other]
            order[one], order[other] = (*b[:3], a[3]), (*a[:3], b[3])
    return change


def fail_first(builder):
    """The first call of node 1 ends before its line is delivered."""
    builder.trace[1] = [(1.5, "return 1 1 1 -1") if words == "return 1 1 1 0" else (at_s, words)
                        for at_s, words in builder.trace[1]]


def lose_fifth_on_3(builder):
    builder.order[3] = builder.plan[:4] + builder.plan[5:]


def repeat_last(between):
    """Node 2 gets its last payload again, after what stands between in its trace."""
    def change(builder):
        trace = builder.trace[2]
        del trace[-4:]
        deliveries = [words.split() for _, words in trace if words.startswith("deliver")]
        last = [words for words in deliveries if words[1] == deliveries[-1][1]]
        end = last[-1][5:]
        trace += [*between, *((21, " ".join(["deliver", str(21 * 10**9), *words[2:4], "doubled", *end])) for words in last)]
    return change


def crash_repeat(lines_between=()):
    def change(builder):
        repeat_last([(20, "begin 11"), (20.1, "start-call"), (20.2, "start-return 0"), *lines_between])(builder)
        builder.events += [(19, "kill", {"node": 2, "point": None})]
    return change


STOP_REPEAT = repeat_last([(19, "stop-call"), (19.1, "stop-return 0"), (20.1, "start-call"), (20.2, "start-return 0")])


def rejoin(*items):
    """Node 2 starts once more, is given the state, and then payloads of one item: (origin, sequence, outcome)."""
    def change(builder):
        end = " ".join([words for _, words in builder.trace[2] if words.startswith("deliver")][-1].split()[-2:])
        builder.trace[2] += [(76, "begin 11"), (76, "rejoin the records name another payload"), (76, "start-call"),
                             (76, "start-return 0")]
        builder.trace[2] += [(77, f"adopt {77 * 10**9 + kind} {kind} 99 {end}") for kind in range(4)]
        builder.trace[2] += [(77, "adopted kept 4")]
        builder.trace[2] += [(78 + at / 10, f"deliver {78 * 10**9 + at} {tag(origin, sequence)} 1 {outcome} {end}")
                             for at, (origin, sequence, outcome) in enumerate(items)]
    return change


def no_op(origin, sequence):
    def change(builder):
        for node in (1, 2, 3):
            end = " ".join([words for _, words in builder.trace[node] if words.startswith("deliver")][-1].split()[-2:])
            builder.insert(node, 19.1, f"deliver {19 * 10**9} {tag(origin, sequence)} 1 no-op {end}")
    return change


def in_log(node, line, at_s=19):
    return lambda builder: builder.log[node].append((at_s, line))


def sample(node, at_s, **values):
    def change(builder):
        like = next(one for one in builder.samples if one["node"] == node and one["t"] >= at_s)
        like.update(values)
    return change


def event(at_s, what, **more):
    return lambda builder: builder.events.append((at_s, what, more))


def trace(node, at_s, words):
    return lambda builder: builder.insert(node, at_s, words)


def cut_return(node, sequence, result=None):
    """The call stays open, or returns `result` after the end of the faults."""
    def change(builder):
        builder.trace[node] = [line for line in builder.trace[node] if line[1] != f"return 1 {sequence} 1 0"]
        if result is not None:
            builder.insert(node, 64, f"return 1 {sequence} 1 {result}")
    return change


def wire(*line):
    return lambda builder: builder.wire.append(list(line))


def grow(builder):
    builder.samples += [{"t": 20 + step / 10, "node": 1, "pid": 99, "first": [1, step], "rss_kb": 9000 + 900 * step,
                         "batch": 9, "count": 5, "crc": "09"} for step in range(200)]
    for number, one in enumerate(builder.samples[-200:]):
        one["first"], one["batch"], one["crc"] = [1, number // 3], 100 + number, f"{number:x}"


def spin(at_s):
    return lambda builder: builder.log[2].extend(
        [(at_s, "CONS: CONSENSOUS: propose ... (batch_id=10, round=2)")] * 100)


def not_on_disk(name, *nodes):
    return lambda builder: [builder.payloads[node].remove(name) for node in nodes]


def fall(cut_s):
    """Power is cut, and the first sample of node 2 since then shows the decision before the last."""
    return [event(cut_s, "power-cut"), sample(2, 12.7, batch=5, count=1, crc="00000005", first=STATE)]


def power_cut(holders):
    """Node 1 alone knows the decision that names payload 7/3; only the holders have that on disk. All have the state."""
    return [event(12.65, "power-cut"), *(
        event(12.7, "disk-cut", node=node, number=9 if node == 1 else 8, log=[[1, 2], [3, 7]] if node == 1 else [[1, 2]],
              payloads=[[1, 2]] + [[3, 7]] * (node in holders)) for node in (1, 2, 3))]


# what is wrong, [changes before make], [changes after], what is named (then what may follow; None: held)
CASES = [
    ("nothing", [], [], None),
    ("another order on one node", [lambda b: b.order.update({3: b.plan[:5] + [*b.plan[6:8], b.plan[5], b.plan[8]]})], [],
     "I1 I5 I6 I9"),
    ("delivered twice", [], [trace(2, 19, f"deliver {19 * 10**9} {tag(1, 3)} 1 doubled 8 00000000000000aa")], "I1 I2"),
    ("never submitted", [], [lambda b: b.replace(1, "call 1 3 1 99", "call 1 5 1 99"),
                             lambda b: b.replace(1, "return 1 3 1 0", "return 1 5 1 0")], "I3 I6"),
    ("damaged", [], [trace(2, 19, f"damaged {19 * 10**9} 0 77")], "I3"),
    ("half a full state", [], [lambda b: b.trace[2].remove(next(x for x in b.trace[2] if " 2 99 4 " in x[1]))], "I3"),
    ("own order", [swapped(0, 3)], [fail_first], "I4 I5 I3"),
    ("acknowledged too early", [lambda b: b.plan.__setitem__(2, (3, 1, 1, 6))],
     [cut_return(3, 1), trace(3, 2.5, "return 1 1 1 0")], "I5 I6"),
    ("a lost acknowledgement, no restart", [lose_fifth_on_3], [], "I1 I6 I9"),
    ("the number fell", [], [sample(2, 10, batch=2, count=2, crc="00000002", first=(1, 2))], "I7"),
    ("a short file", [], [sample(2, 10, sizes={"paxos_deliver": 4})], "I7"),
    ("two logs for a number", [], [wire(8.1, 2, "decide", 4, 4, 255, "1.2", "once")], "I8"),
    ("never equal", [], [lambda b: b.events.__setitem__(slice(None), [e for e in b.events if e[1] != "equal"])], "I9"),
    ("a crash of a node that was to be killed", [], [event(50, "exit", node=2, pid=10, code=-11),
                                                     event(49, "kill", node=2, pid=10, point="x")], "P"),
    ("late equal", [], [lambda b: b.events[5][2].update(after_s=31)], "I9"),
    ("a call hangs", [], [cut_return(1, 3)], "I10"),
    ("an open call fails for nothing", [], [cut_return(1, 3, -1)], "I10"),
    ("a slow stop", [], [lambda b: b.replace(2, "stop-return 0", "isolated"), trace(2, 80.2, "stop-return 0")], "I10"),
    ("delivered after stop", [], [trace(2, 75.15, f"adopt {75 * 10**9} 0 99 8 00000000000000ab")], "I11 I1 I3"),
    ("sent after stop", [], [lambda b: b.trace[2].__delitem__(slice(-2, None)), trace(2, 79, "start-call"),
                             wire(77.0, 2, "send4"), trace(2, 79.1, "start-return 0")], "I11"),
    ("sent after an isolation", [], [trace(2, 20, "isolated"), wire(30, 2, "send5")], "I11"),
    ("a message repeated after stop", [], [lambda b: b.replace(2, "stop-return 0", "stop-return 1")], "I11"),
    ("five threads", [], [sample(3, 10, tasks={name[:15]: 1 for name in THREADS[1:]})], "I11"),
    ("already hashed", [], [in_log(1, "x(): Message 1 of node 2 already hashed. This should never happen!")], "I12"),
    ("an alarm where nothing differs", [], [in_log(2, "cluster: DIVERGED: node 3 has another history")], "I12"),
    ("memory grows", [], [grow], "I13"),
    ("spins where it hears nobody", [], [event(20, "cut", pairs=[[1, 2], [3, 2]]), event(26, "cut", pairs=[]), spin(23)],
     "I13"),
    ("busy when the cuts are over", [], [event(55, "cut", pairs=[[1, 2], [3, 2]]), spin(63)], None),
    ("a process ends", [], [event(50, "exit", node=2, code=-6)], "P"),
    ("a restarted process ends", [], [event(40, "kill", node=2, pid=10), event(50, "exit", node=2, pid=11, code=-11)], "P"),
    ("a signal where a disk failed", [], [event(40, "disk", node=2), event(50, "exit", node=2, pid=11, code=-11)], "P"),
    ("a last delivery that no log names", [], [lambda b: b.deliver.update({3: (2, 77)})], "I7"),
    ("repeated after a crash", [], [crash_repeat()], None),
    ("two items repeated after a crash", [lambda b: b.plan.append((2, 4, 17.01, 18))], [crash_repeat()], None),
    ("compared with the store after a rejoin", [], [rejoin((2, 2, "doubled"), (3, 2, "doubled"))], None),
    ("doubled behind something new", [], [rejoin((1, 3, "applied"), (3, 2, "doubled"))], "I2"),
    ("applied twice", [], [rejoin((3, 2, "doubled"), (1, 3, "applied"))], "I2"),
    ("hashes that do not fit", [lambda b: b.stored_text.update({2: b"texts"})], [], "I1 I3 I6 I9"),
    ("the oldest lines are not kept on one node", [lambda b: b.bare.update({2: 6})], [], None),
    ("an item that is no line", [], [trace(1, 19, "call 2 9 1 0"), trace(1, 19.2, "return 2 9 1 0"), no_op(1, 9)], None),
    ("an item of which a node knows nothing", [], [trace(1, 19, "call 2 9 1 0"), trace(1, 19.2, "return 2 9 1 0")],
     "I6"),
    ("the oldest lines, where all have to be kept",
     [lambda b: b.bare.update({2: 6}), lambda b: b.options.update(keeps_lines=True)], [], "I6"),
    ("the number fell with a new disk", [], [event(9, "store-lost", node=2, how="disk-empty"),
                                             sample(2, 10, batch=2, count=2, crc="00000002", first=(1, 2))], None),
    ("the number fell with a lost store", [], [event(9, "store-lost", node=2, how="moved"),
                                               sample(2, 10, batch=2, count=2, crc="00000002", first=(1, 2))], "I7"),
    ("a disk that went back, unnoticed", [], [event(9, "disk-back-noticed", node=2, noticed=False)], "I7"),
    ("a store on a failing disk", [], [event(40, "disk", node=2), event(50, "exit", node=2, pid=11, code=7)], None),
    ("repeated after a failed save, overtaken by a stop", [], [in_log(2, "write(/c/paxos_deliver.tmp) failed"), STOP_REPEAT], None),
    ("repeated after a stop, and an isolation for another save", [], [in_log(2, "Isolating from cluster ..."), STOP_REPEAT], "I2"),
    ("skipped, and missed by nobody", [], [in_log(2, LOST)], "I12"),
    ("late equal, several down", [lambda b: b.events[5][2].update(after_s=31)],
     [crash_repeat(), event(19.5, "kill", node=3)], "I9"),
    ("on one disk", [], [not_on_disk("2.3", 1, 3)], "I7"),
    ("on two disks", [], [not_on_disk("2.3", 1)], None),
    ("files left", [], [lambda b: b.payloads[2].extend(["1.2", "2.2", "3.2", "1.9"])], "I7"),
    ("a temporary file left", [], [lambda b: b.payloads[2].append("1.9.tmp")], "I7"),
    ("the number fell by a power cut", [], fall(12.65), None),
    ("a look between the cut and its end", [],
     [event(12.4, "power-cut"), event(12.68, "disk-cut", node=2), *fall(12.4)[1:]], None),
    ("on no quorum's disks after a power cut", [], power_cut([2]), "I7"),
    ("on a quorum's disks after a power cut", [], power_cut([1, 2]), None),
    ("the number fell behind what was synced", [], fall(12.65)[:1] + [
        sample(2, 12.7, batch=4, count=4, crc="00000004", first=(1, 2))], "I7"),
    ("repeated later than first", [], [crash_repeat([(20.5, f"deliver 1 {tag(3, 2)} 1 repeated 8 00")])], "I2 I1"),
]


class CheckerTest(unittest.TestCase):
    def judge(self, before, after):
        builder = Builder()
        for change in before:
            change(builder)
        builder.make()
        for change in after:
            change(builder)
        with tempfile.TemporaryDirectory() as directory:
            return check(builder.write(directory))

    def test_names_what_is_broken(self):
        for what, before, after, expected in CASES:
            with self.subTest(what):
                result = self.judge(before, after)
                found = {one.invariant for one in result.violations}
                told = [f"{one.invariant}: {one.text}" for one in result.violations]
                if expected is None:
                    self.assertEqual((result.verdict, told), ("held", []))
                else:
                    names = expected.split()
                    self.assertIn(names[0], found, told)
                    self.assertLessEqual(found, set(names), told)

    def test_says_what_it_did_not_see(self):
        builder = Builder().make()
        for node in (1, 2, 3):
            builder.trace[node] = builder.trace[node][:3]
            builder.journals[node] = []
        with tempfile.TemporaryDirectory() as directory:
            result = check(builder.write(directory))
            self.assertEqual((result.verdict, result.unexamined), ("violated", ["I1", "I2", "I3", "I4", "I5", "I6", "I10"]))
            with open(os.path.join(directory, "node2", "trace"), "a", encoding="ascii") as file:
                file.write("no trace\n1 2 3\n")
            with self.assertRaises(CouldNotRun):
                check(directory)


if __name__ == "__main__":
    unittest.main(verbosity=2)

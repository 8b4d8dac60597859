"""The pages of the laboratory: whole, without anything from elsewhere, and with all that the evidence has."""

import json
import os
import re
import sys
import tempfile
import time
import unittest
from html.parser import HTMLParser
from types import SimpleNamespace
from unittest import mock

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.environ.get("VX_LAB_DIR") or os.path.join(HERE, "../../lab"))

from episode_builder import Builder, tag  # noqa: E402
from vxlab_lib.bench_clients import Cell, Found  # noqa: E402
from vxlab_lib.checker import judge, read  # noqa: E402
from vxlab_lib.errors import LabError, UsageError  # noqa: E402
from vxlab_lib.report import fault_spans, needs  # noqa: E402
from vxlab_lib.report.bench_page import Figures, bench_page  # noqa: E402
from vxlab_lib.report.chaos_page import chaos_page, make_entry, not_run  # noqa: E402
from vxlab_lib.report.demo_page import demo_page  # noqa: E402
from vxlab_lib.report.observed import observe  # noqa: E402
from vxlab_lib.report.page import Table  # noqa: E402
from vxlab_lib.report.story import Story  # noqa: E402

NODES = (1, 2, 3)
MACHINE = Table(["what", "value"], [["processor", "an abacus"]])
VOID = {"meta", "br", "hr"}
STRANGE = {"script", "link", "img", "iframe", "object", "embed", "base", "image"}


class Page(HTMLParser):
    """Reads a page, and fails where a tag is not closed, an id comes twice, or something would be loaded."""

    def __init__(self, text):
        super().__init__()
        self.ids, self.tips, self.cells, self._open, self._targets = [], {}, [], [], []
        self.feed(text)
        self.close()
        assert not self._open, f"left open: {self._open}"
        assert len(self.ids) == len(set(self.ids)), "an id comes twice"
        targets = self._targets + re.findall(r"url\(([^)]*)\)", text)
        lost = [target for target in targets if not target.startswith("#") or target[1:] not in self.ids]
        assert not lost, f"leads nowhere, or away: {lost}"
        assert "://" not in text and "@import" not in text, "an address of elsewhere"
        assert not re.search(r"#[0-9a-f]{6}", re.sub(r"<style>.*?</style>", "", text, flags=re.DOTALL)), "no theme's colour"

    def handle_starttag(self, tag_name, attributes):
        assert tag_name not in STRANGE, tag_name
        given = dict(attributes)
        self.ids += [given["id"]] if "id" in given else []
        self._targets += [given[name] for name in ("href", "src", "xlink:href") if name in given]
        if tag_name == "td":
            self.cells.append("")
        if tag_name not in VOID:
            self._open.append((tag_name, given.get("id")))

    def handle_startendtag(self, tag_name, attributes):
        self.handle_starttag(tag_name, attributes)
        if tag_name not in VOID:
            self._open.pop()

    def handle_endtag(self, tag_name):
        assert self._open.pop()[0] == tag_name, tag_name

    def handle_data(self, data):
        if self._open and self._open[-1][0] == "td":
            self.cells[-1] += data
        elif len(self._open) > 2 and self._open[-1][0] == "title":
            self.tips[self._open[-2][1]] = data

    def found(self, pattern):
        """Returns what the groups of the pattern match in the ids."""
        return {match.groups() for match in (re.fullmatch(pattern, each) for each in self.ids) if match}


def step(at_s, track, number, do, until_s, **arguments):
    return [(at_s, "step", {"track": track, "number": number, "step": {"at": 1.0, "do": do, **arguments}}),
            (until_s, "step-end", {"track": track, "number": number})]


def eventful():
    """Node 1 is killed and comes back, 2 is frozen, then leads, 3 is cut off, isolates itself and delivers wrongly."""
    builder = Builder().make()
    builder.events += [(20, "pause", {"node": 2}), (25, "cont", {"node": 2}), (26, "master", {"nodes": [2]}),
                       (30, "cut", {"pairs": [[1, 3], [3, 1], [2, 3], [3, 2]]}), (35, "cut", {"pairs": []}),
                       (40, "kill", {"node": 1, "pid": 10})]
    builder.events += step(20, 0, 0, "pause", 25, node="follower")
    builder.events += step(30, 1, 0, "cut", 30, pairs=[[0, "last"]]) + step(35, 1, 1, "cut", 35, pairs=[])
    builder.trace[1] = [line for line in builder.trace[1] if line[0] < 40]
    builder.trace[1] += [(45, "begin 11"), (45.1, "start-call"), (45.2, "start-return 0")]
    builder.insert(3, 50, "isolated")
    builder.insert(3, 19, f"deliver {19 * 10**9} {tag(1, 3)} 1 doubled 8 00000000000000aa")
    builder.log[3].append((19.2, "what node 3 said at that time"))
    return builder


def evidence(builder, directory, faults):
    builder.write(directory)
    path = os.path.join(directory, "run.json")
    with open(path, encoding="utf-8") as file:
        run = json.load(file)
    with open(path, "w", encoding="utf-8") as file:
        json.dump({**run, "faults": faults, "started_ns": 1}, file)
    return read(directory)


class ChaosPage(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory()
        self.addCleanup(place.cleanup)
        self.faults = ["pause-leader", "partition <full>", "none-done"]
        self.seen = evidence(eventful(), os.path.join(place.name, "bad"), self.faults)
        self.result = judge(self.seen)
        self.good = evidence(Builder().make(), os.path.join(place.name, "good"), ["loss-1"])

    def entry(self, seed, faults, seen):
        outcome = SimpleNamespace(seen=seen, result=judge(seen), verdict=judge(seen).verdict, reason="", seconds=80.0,
                                  figures={"submissions": 9, "acknowledged": 8})
        return make_entry(SimpleNamespace(seed=seed, faults=faults), outcome, "vxlab chaos --replay")

    def test_has_each_lane_fault_and_violation(self):
        entries = [self.entry(7, self.faults, self.seen), self.entry(8, ["loss-1"], self.good),
                   not_run(SimpleNamespace(seed=9, faults=[]), "no disk", "vxlab chaos --replay 9")]
        page = Page(chaos_page(entries, Table(["nodes"], [[3]]), MACHINE))
        self.assertEqual(page.found(r"e(\d+)-lane-(\d+)-up"), {(seed, str(node)) for seed in "78" for node in NODES})
        self.assertEqual(page.found(r"e7-lane-(\d+)-(down|frozen|alone|isolated|isolation)"), {
            ("1", "down"), ("2", "frozen"), ("3", "alone"), ("3", "isolated"), ("3", "isolation")})
        self.assertEqual(page.found(r"e7-lane-(\d+)-master"), {("1",), ("2",)})
        self.assertEqual(page.found(r"e7-lane-(\d+)-roll-over"), {(str(node),) for node in NODES})
        self.assertEqual(page.found(r"e7-fault-(\d+)-\d+"), {("0",), ("1",)})
        self.assertIn("partition <full>, 30.00 to 35.00 s", page.tips["e7-fault-1-0"])
        timed = [str(number) for number, one in enumerate(self.result.violations, 1) if one.t is not None]
        self.assertTrue(timed)
        self.assertEqual(page.found(r"e7-violation-(\d+)-0"), {(number,) for number in timed})
        self.assertEqual(page.found(r"e[89]-violation-(\d+)-\d+"), set())
        for wanted in [*(one.text for one in self.result.violations), "info: what node 3 said at that time",
                       "partition <full>", "could not run"]:
            self.assertIn(wanted, page.cells)
        for name in self.faults:
            self.assertIn(name, "".join(entry.svg for entry in entries).replace("&lt;", "<").replace("&gt;", ">"))

    def test_times_are_those_of_the_evidence(self):
        timeline = observe(self.seen, self.result)
        spans = {(lane.node, span.kind): (round(span.start, 3), round(span.end, 3)) for lane in timeline.lanes for span in lane.spans}
        self.assertEqual([spans[at] for at in ((1, "down"), (2, "frozen"), (3, "alone"), (1, "master"))],
                         [(40, 45), (20, 25), (30, 35), (0.1, 26)])
        self.assertEqual(spans[3, "isolated"][0], 50)
        self.assertEqual([(row.name, [(round(span.start, 3), round(span.end, 3)) for span in row.spans])
                          for row in timeline.faults],
                         [("pause-leader", [(20, 25)]), ("partition <full>", [(30, 35)]), ("none-done", [])])
        self.assertEqual(timeline.decisions[1][-1][1], 9)
        self.assertEqual((timeline.submissions, round(timeline.faults_end, 3)), (9, 60))
        self.assertEqual({one.outcome for one in timeline.slow}, {"acknowledged"})

    def test_a_fault_lasts_until_it_is_undone(self):
        cases = [  # what, steps (at, do, end of the action, arguments), spans
            ("rules until there are none", [(1, "net", 1, {"rules": [1]}), (4, "net", 4, {"rules": []})], [(1, 4)]),
            ("rules until others", [(1, "net", 1, {"rules": [1]}), (3, "net", 3, {"rules": [2]})], [(1, 3), (3, 60)]),
            ("one MASTER is a moment", [(1, "master", 1, {"nodes": [2]})], [(1, 1)]),
            ("two until one", [(1, "master", 1, {"nodes": [1, 2]}), (6, "master", 6, {"nodes": [1]})], [(1, 6), (6, 6)]),
            ("a bad file until a good one", [(1, "state-file", 1, {"how": "empty"}), (2, "master", 2, {"nodes": [1]})],
             [(1, 2), (2, 2)]),
            ("a kill until the restart", [(1, "kill", 5, {}), (7, "kill", None, {})], [(1, 5), (7, 60)]),
        ]
        for what, steps, expected in cases:
            with self.subTest(what):
                events = []
                for number, (at_s, do, until_s, arguments) in enumerate(steps):
                    begin, end = step(at_s, 0, number, do, until_s, **arguments)
                    events += [{"t": t, "what": name, **fields} for t, name, fields in (begin, end) if t is not None]
                row, = fault_spans.fault_rows(["a fault"], events, 60)
                self.assertEqual([(span.start, span.end) for span in row.spans], expected)


class OtherPages(unittest.TestCase):
    def test_bench_shows_every_value(self):
        cells = [Cell(system, at, clients, 1000.0 * clients + 7, 1234 * clients, 4321 * clients, 0, 20480)
                 for system in ("kesh", "etcd") for at in ("leader", "all") for clients in (1, 32)]
        row = {"nodes": 3, "durable": "no", "role": "leader", "submissions": 30, "save_ms": 0.5, "save_at_once_ms": 0.7,
               "saves_in_series": 5, "ratio": 2.1, "ratio_at_once": 1.9, "all_nodes_median_ms": None, "node_saves": None,
               "node_bytes": None}
        rows = [{**row, "payload_bytes": size, "submitters": 1, "median_ms": size / 10, "p99_ms": size / 5,
                 "per_s": 10000 / size} for size in (100, 5000)]
        figures = Figures(rows, {3: 0.4}, {(3, False, 0): (5.5, [9, 13]), (3, False, 16): (6.5, [389, 207])},
                          Found(0.42, cells, "3.4", []))
        page = Page(bench_page(figures, MACHINE))
        tips = " | ".join(page.tips.values())
        for wanted in ("kesh: 1,007 at 1, 32,007 at 32", "etcd, p50: 1.23 at 1, 39.5 at 32", "kesh, p99: 4.32 at 1, 138 at 32",
                       "one durable save: 0.42 ms", "1 submitter, p50: 10 at 100, 500 at 5,000", "one durable save: 0.50 ms",
                       "slowest at a new log: 13 at 0, 389 at 16", "usual: 5.5 at 0, 6.5 at 16", "20 at 1, 20 at 32"):
            self.assertIn(wanted, tips)
        for wanted in ("32007", "39.49", "138.27", "500.0", "1000.0", "9, 13", "389, 207", "0.4", "an abacus"):
            self.assertIn(wanted, page.cells)

    def test_demo_shows_the_lost_leader(self):
        story = Story()
        for node in NODES:
            story.up(node)
        story.leads(1)
        story.look(lambda node: (250, 250))
        story.down(1)
        story.begins("leader killed", "kill -9")
        story.leads(2)
        with mock.patch.object(time, "monotonic", return_value=time.monotonic() + 5):
            story.up(1)
            story.ends("leader killed")
            story.look(lambda node: (251, 1))
            story.over()
        page = Page(demo_page([("lines", "640")], story.timeline([(story._started + 1, 3.5, 2)]), MACHINE))
        self.assertEqual(page.found(r"demo-lane-(\d)-(up|down|master|roll-over)"), {
            *((str(node), kind) for node in NODES for kind in ("up", "roll-over")), ("1", "down"), ("1", "master"), ("2", "master")})
        self.assertIn("leader killed", page.tips["demo-fault-0-0"])
        self.assertIn("640", page.cells)

    def test_says_before_the_work_what_is_missing(self):
        needs.demand(None)
        with tempfile.TemporaryDirectory() as directory:
            needs.demand(os.path.join(directory, "new", "deeper"))
            self.assertEqual(os.listdir(directory), [])
            with open(os.path.join(directory, "file"), "wb"), self.assertRaises(UsageError):
                needs.demand(os.path.join(directory, "file", "below"))
            with mock.patch("importlib.util.find_spec", return_value=None):
                with self.assertRaisesRegex(LabError, "python3-matplotlib and python3-jinja2"):
                    needs.demand(directory)


if __name__ == "__main__":
    unittest.main(verbosity=2)

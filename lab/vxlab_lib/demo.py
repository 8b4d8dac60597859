"""The demo: three nodes agree on the order of a real text, lose their leader, go on, and take it back in."""

import glob
import os
import time
from collections import Counter

from . import checker, programs
from .durable_save import measure_save_us, percentile
from .errors import CheckFailed, LabError
from .progress import bar
from .report.story import Story
from .waiting import wait_until

NODES = 3
PAYLOADS_MIN = 640  # fewer would not fill two logs of 250 entries
LINES_MAX = 6000
SUBMIT_BUDGET_S = 45.0
SAVES_PER_PAYLOAD = 12  # with all nodes on one disk
WINDOW = 4  # lines open at once at each node; they may travel in one payload
TIMEOUT_S = 240.0
TEXT_FILES = "/usr/lib/python3*/pydoc_data/topics.py"  # some ten thousand lines of plain documentation


def default_text_file():
    found = sorted(glob.glob(TEXT_FILES))
    if not found:
        raise LabError(f"there is no {TEXT_FILES} here (package libpython3-stdlib has it): name a text file")
    return found[-1]


def read_lines(path):
    try:
        with open(path, "rb") as file:
            lines = file.read().split(b"\n")
    except OSError as error:
        raise LabError(f"{path}: {error.strerror}") from error
    if lines[-1] == b"":
        lines.pop()
    if len(lines) < PAYLOADS_MIN:
        raise LabError(f"{path}: the demo needs at least {PAYLOADS_MIN} lines, there are {len(lines)}")
    return lines


class Demo:
    def __init__(self, cluster, progress):
        self._cluster = cluster
        self._progress = progress
        self._log_starts = set()  # number of the first decision of each log seen
        self._submissions = []
        self._story = Story()

    def run(self, path, lines_max=None):
        """Returns the summary, [(what, value)]. Raises LabError if a promise does not hold."""
        lines = read_lines(path)
        self._progress.say(f"{NODES} nodes come up in {self._cluster.dir.path}")
        self._cluster.create(NODES)
        save_us = measure_save_us([self._cluster.node(1).dir])
        affordable = int(SUBMIT_BUDGET_S * 1e6 / (SAVES_PER_PAYLOAD * save_us))
        self._lines = lines[: lines_max or min(LINES_MAX, WINDOW * max(PAYLOADS_MIN, affordable))]
        self._window = max(1, min(WINDOW, len(self._lines) // PAYLOADS_MIN))
        for node in self._cluster.nodes:
            self._story.up(node)
        self._story.leads(1)
        self._cluster.start_all(master=1)
        self._progress.say("the cluster is up, node 1 is MASTER")
        self._exchange_messages()
        self._progress.say(f"{len(self._lines)} lines of {path} go in at all nodes at once")
        start = time.monotonic()
        for node in (1, 2, 3):
            self._submit(node, self._lines[node - 1 :: NODES])
        self._await_share(1)
        gap_s = self._lose_leader()
        self._await_share(2)
        catch_up_s = self._take_back()
        self._finish_submissions()
        self._story.over()
        duration_s = max(entry.at for part in self._submissions for entry in part.acknowledged.values()) - start
        self._progress.say("every line is acknowledged; now the journals are compared")
        journals = self._check()
        return self._summary(journals, duration_s, gap_s, catch_up_s, save_us)

    def timeline(self):
        """Returns what happened, after `run`."""
        return self._story.timeline([(entry.at, entry.latency_us / 1000, part.node.id) for part in self._submissions
                                     for entry in part.acknowledged.values()])

    def _submit(self, node, lines):
        self._submissions.append(self._cluster.submit(node, lines, self._window))

    def _exchange_messages(self):
        """Sends one cluster message from each node. Every node must hear all three, its own included."""
        for node in self._cluster.nodes.values():
            programs.run(node.kesh("say", f"node {node.id} greets the cluster"), "send a cluster message", cwd=node.dir)
        for node in self._cluster.nodes.values():
            wait_until(lambda node=node: self._has_heard_all(node), 5.0,
                       f"node {node.id} has heard a cluster message of every node")
        self._progress.say("cluster messages: each node greeted, each heard all three")

    @staticmethod
    def _has_heard_all(node):
        heard = programs.run(node.kesh("heard"), "print the cluster messages", cwd=node.dir)
        return all(f"node {sender} greets the cluster" in heard for sender in range(1, NODES + 1))

    def _acknowledged_count(self):
        return sum(len(part.acknowledged) for part in self._submissions)

    def _watch(self):
        """Called while lines are submitted: shows the progress and counts logs."""
        number, entries = self._cluster.last_decision(2)
        if entries:
            self._log_starts.add(number - entries + 1)
        self._story.look(self._cluster.last_decision)
        masters = ",".join(str(node) for node in self._cluster.masters())
        self._progress.update(f"{bar(self._acknowledged_count(), len(self._lines))} lines acknowledged, "
                              f"MASTER: node {masters}, decision {number}, log {len(self._log_starts)}")

    def _await_share(self, thirds):
        wanted = len(self._lines) * thirds // 3

        def is_reached():
            self._watch()
            for part in self._submissions:
                if part.error and part.node.is_running():
                    raise LabError(f"node {part.node.id} stopped taking lines: {part.error}")
            return self._acknowledged_count() >= wanted

        wait_until(is_reached, TIMEOUT_S, f"{wanted} lines acknowledged")

    def _lose_leader(self):
        """Kills node 1 with SIGKILL. Returns the seconds from then to the first line acknowledged by the new leader."""
        log_size = os.path.getsize(self._cluster.node(2).log_path)
        killed_at = time.monotonic()
        self._cluster.kill(1)
        self._story.down(1)
        self._story.begins("leader killed", "kill -9 of node 1")
        self._story.begins("nothing acknowledged", "from the kill to the first line that the new leader ordered")
        self._cluster.set_master(2)
        self._story.leads(2)
        self._progress.say(f"a third is through: the leader, node 1, was killed (-9) with "
                           f"{self._acknowledged_count()} lines acknowledged; node 2 becomes MASTER")
        # A line acknowledged before node 2 leads was decided by the old leader.
        wait_until(lambda: self._leads_since(log_size), 30.0, "node 2 enters leader mode")
        leads_at = time.monotonic()

        def acknowledged_since():
            self._watch()
            return [entry.at for part in self._submissions[1:] for entry in list(part.acknowledged.values())
                    if entry.at > leads_at]

        first = min(wait_until(acknowledged_since, 60.0, "a line is acknowledged under the new leader"))
        self._story.ends("nothing acknowledged", first)
        self._progress.say(f"node 2 leads: next line acknowledged {first - killed_at:.2f} s after the kill")
        return first - killed_at

    def _leads_since(self, log_size):
        self._watch()
        with open(self._cluster.node(2).log_path, "rb") as log:
            log.seek(log_size)
            return b"Entering Leader Mode" in log.read()

    def _take_back(self):
        """Starts node 1 again. Returns the seconds until it has all that the cluster had at its start."""
        wanted = self._cluster.status(2)["journal"]["lines"]
        had = self._cluster.node(1).journal().count
        self._progress.say(f"two thirds are through: node 1 starts again with {had} lines, the cluster has {wanted}")
        start = time.monotonic()
        self._story.ends("leader killed")
        self._story.up(1)
        self._story.begins("catches up", "node 1 fetches what was ordered without it")
        self._cluster.start(1)

        def is_level():
            self._watch()
            return self._cluster.status(1)["journal"]["lines"] >= wanted

        wait_until(is_level, 60.0, f"node 1 catches up with line {wanted}")
        self._story.ends("catches up")
        catch_up_s = time.monotonic() - start
        self._submit_rest(self._submissions[0])
        return catch_up_s

    def _submit_rest(self, broken):
        """Lines that node 1 had taken when it died are in doubt: some are in the journal without an acknowledgement.
        Submits only those again that are not."""
        broken.join(10.0)
        front = next(iter(broken.acknowledged.values())).tag.rpartition(".")[0] + "."
        known = {entry.tag for entry in broken.acknowledged.values()}
        there = Counter(line.text for line in self._cluster.node(1).journal().lines
                        if line.tag.startswith(front) and line.tag not in known)
        self._unacknowledged = sum(there.values())
        rest = []
        for index in broken.left_over():
            text = broken.lines[index]
            if there[text]:
                there[text] -= 1
            else:
                rest.append(text)
        self._progress.say(f"node 1 has caught up and takes lines again ({len(rest)}); {self._unacknowledged} of its "
                           "lines had got through although it died before saying so")
        self._submit(1, rest)

    def _finish_submissions(self):
        def is_done():
            self._watch()
            return all(part.is_done() for part in self._submissions)

        wait_until(is_done, TIMEOUT_S, "all lines are acknowledged")
        for part in self._submissions[1:]:
            part.wait(1.0)

    def _check(self):
        journals = self._cluster.await_equal()
        acknowledged = {}
        for part in self._submissions:
            acknowledged.update(part.texts())
        checker.write_acknowledged(self._cluster.dir.path, acknowledged)
        verdict = checker.check(self._cluster.dir.path)
        if verdict.verdict != "held":
            raise CheckFailed(checker.summary(verdict))
        if len(acknowledged) + self._unacknowledged != len(self._lines):
            raise CheckFailed(f"{len(acknowledged)} acknowledged and {self._unacknowledged} unacknowledged lines do "
                              f"not make {len(self._lines)}")
        for one in journals:
            if one.base == 0 and Counter(line.text for line in one.lines) != Counter(self._lines):
                raise CheckFailed(f"journal of node {one.node}: its lines are not those of the file")
        if len(self._log_starts) < 3:
            raise CheckFailed(f"only {len(self._log_starts) - 1} roll-overs to a new log, the demo needs 2")
        return journals

    def _summary(self, journals, duration_s, gap_s, catch_up_s, save_us):
        largest = max(Counter(line.n for line in journals[0].lines).values())
        times = sorted(us for part in self._submissions for us in part.latencies_us())
        return [
            ("lines", f"{len(self._lines)}, each once in each of {len(journals)} journals, in one order"),
            ("hash of the journals", journals[0].hash),
            ("rate", f"{len(self._lines) / duration_s:.0f} lines/s over {duration_s:.1f} s, the gap included"),
            ("one submission", f"median {percentile(times, 50) / 1000:.1f} ms, 99 % within "
                               f"{percentile(times, 99) / 1000:.1f} ms, {NODES * self._window} open at once"),
            ("one durable save", f"{save_us / 1000:.2f} ms on this disk"),
            ("without a leader", f"{gap_s:.2f} s from the kill to the next acknowledged line"),
            ("catch-up", f"{catch_up_s:.2f} s from the start of the lost node"),
            ("roll-overs", f"{len(self._log_starts) - 1} to a new log"),
            ("payloads", f"{journals[0].lines[-1].n}, of up to {largest} lines"),
            ("repeated", f"{len(journals[0].repeats)} lines came again under a later attempt; none stands twice"),
        ]


def print_summary(rows, stream):
    width = max(len(name) for name, _ in rows)
    for name, value in rows:
        print(f"  {name:<{width}}  {value}", file=stream)


def text_file(path):
    return os.path.abspath(path) if path else default_text_file()

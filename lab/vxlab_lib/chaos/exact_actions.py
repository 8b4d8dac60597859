"""Steps that produce one exact order of events, which chance would meet once in a thousand times. They watch the
cluster's files for the right moments. Each gives up when the order can no longer be reached."""

import threading

from ..errors import LabError
from . import decisions
from .faults.network import both_ways
from .frozen_thread import frozen
from .recovery import ensure_active, restart_after, start_protocol, stop_protocol

STOP_MAX_S = 20.0  # far longer than a stop may take; a node that has not stopped by then hangs
HELD_MAX = 10_000


def sides(stage):
    """Returns (leader, nodes that are a majority with it, the rest, which is one with the leader or one of those)."""
    leader = stage.node_id("leader")
    others = [node_id for node_id in sorted(stage.cluster.nodes) if node_id != leader]
    return leader, others[:len(others) // 2], others[len(others) // 2:]


def log_of(stage, node_id):
    """Returns (first entry, number of the last decision, Decided) of a node. The first entry identifies the log."""
    decided = decisions.read_decided(stage.cluster.nodes[node_id].cons_dir)
    return (decided.entry(0), decided.number, decided) if decided and decided.count else (None, 0, None)


def all_run(stage):
    return all(stage.is_running(node_id) for node_id in stage.cluster.nodes)


def lost(source, target, channel, kind):
    return {"from": source, "to": target, "channel": channel, "type": kind, "loss": 1.0}


def make_whole(stage, track, node_id):
    stage.set_cuts(track, [])
    stage.set_rules(track, [])
    stage.settle(node_id)


def slow_deliver_hook(stage, node_id, wait_ms):
    stage.longest_hook_ms = max(stage.longest_hook_ms, wait_ms)
    stage.cluster.node(node_id).control.slow("deliver", wait_ms)
    stage.events.add("slow-hook", node=node_id, deliver_ms=wait_ms)


def do_reused_round(stage, track, step):
    """The leader does not hear its own requests, so its acceptor may not know the round in which it writes. It dies in
    a WRITE that only `witnesses` heard. It comes back and decides that number with the others, which did not hear the
    WRITE. In the end a witness leads and the old leader is away: the value read back from the others must win."""
    with stage.one_down(True) as may:
        leader, witnesses, others = sides(stage)
        if not may or not all_run(stage):
            return
        alone = [lost(leader, leader, 3, "*"), *(lost(other, leader, 4, "FORWARD") for other in others)]
        stage.set_rules(track, alone)
        stage.pause(0.4)  # forwarded messages are decided now, so after its restart it proposes another one
        stage.set_rules(track, [*(lost(leader, other, 3, "WRITE_REQ") for other in others), *alone])
        stage.pause(step["write_s"])
        stage.kill(leader)
        stage.set_cuts(track, both_ways(witnesses, [leader, *others]))
        stage.set_rules(track, [lost(leader, 0, 4, "DECIDE"),
                                *(lost(other, leader, 4, "FORWARD") for other in others)])
        restart_after(stage, leader, step)
        stage.pause(step["apart_s"])
        stage.set_cuts(track, both_ways([leader], [*witnesses, *others]))
        stage.set_rules(track, [{"from": other, "to": 0, "channel": 3, "type": "READ_ACK", "delay_ms": [200, 200]}
                                for other in others])
        stage.set_masters([witnesses[0]])
        stage.pause(step["apart_s"])
        make_whole(stage, track, leader)


def do_crossed_writes(stage, track, step):
    """Two leaders that do not hear each other want the votes of the same nodes for one number. These nodes hear the
    READ of the second before the WRITE of the first, and that before the WRITE of the second."""
    first, voters, rest = sides(stage)
    if not all_run(stage):
        return
    second = rest[0]
    holds = [stage.next_id(), stage.next_id()]
    open_holds = []
    # Each proposes a message that the other does not know, and no node learns what was decided.
    stage.set_rules(track, [*(lost(node_id, first, 4, "FORWARD") for node_id in rest),
                            *(lost(node_id, second, 4, "FORWARD") for node_id in [first, *voters])])
    stage.pause(0.4)
    try:
        for hold, leader in zip(holds, (first, second)):
            stage.fabric.ask("hold", id=hold, match={"from": leader, "channel": 3, "type": "WRITE_REQ"}, max=HELD_MAX)
            open_holds.append(hold)
        stage.pause(0.3)  # the first is in a WRITE now, and all nodes know the earlier decisions
        stage.set_cuts(track, both_ways([first], rest))
        stage.set_rules(track, [lost(leader, 0, 4, kind) for leader in (first, second)
                                for kind in ("DECIDE", "FORWARD")])
        stage.set_masters([first, second])
        stage.pause(step["duel_s"])
        for hold in holds:
            released = stage.fabric.ask("release", id=hold, drop=False)["released"]
            open_holds.remove(hold)
            stage.events.add("release", id=hold, released=released, drop=False)
            stage.pause(step["between_s"])
    finally:
        for hold in open_holds:
            stage.fabric.ask("release", id=hold, drop=True)
        stage.set_cuts(track, [])
        stage.set_rules(track, [])
        stage.set_masters([second])


def do_full_log_unhandled(stage, track, step):
    """A node that knows a full log but lacks its snapshot leads when the next log must begin."""
    node_id = stage.node_id("last")
    leader = stage.node_id("leader")
    holds = [stage.next_id(), stage.next_id()]
    open_holds = holds[:1]
    stage.fabric.ask("hold", id=holds[0], match={"to": node_id, "channel": 5, "type": "DATA"}, max=HELD_MAX)
    try:
        old = log_of(stage, leader)[0]
        if not stage.await_that(lambda: log_of(stage, leader)[0] != old, step["log_s"]):
            return
        new, number, decided = log_of(stage, leader)
        following = number - decided.count + 1 + decisions.LOG_ENTRIES_MAX
        stage.fabric.ask("hold", id=holds[1], match={"from": leader, "channel": 3, "type": "READ_REQ",
                                                     "number": following}, max=HELD_MAX)
        open_holds = holds

        def is_full():
            first, _, decided = log_of(stage, node_id)
            return first == new and decided.count == decisions.LOG_ENTRIES_MAX

        if stage.await_that(is_full, step["log_s"]):
            stage.set_masters([node_id])
            stage.pause(step["lead_s"])
    finally:
        for hold in open_holds:
            stage.fabric.ask("release", id=hold, drop=hold != holds[0])
    stage.pause(1.0)


def do_restarted_voter(stage, track, step):
    """A node that missed decisions leads. It needs the vote of a node that helped to make them and has restarted since,
    and whose DECIDEs are lost."""
    with stage.one_down(True) as may:
        leader, voters, ignorant = sides(stage)
        if not may or not all_run(stage):
            return
        voter = voters[0]
        nodes = sorted(stage.cluster.nodes)
        stage.set_cuts(track, both_ways([leader, *voters], ignorant))
        stage.pause(step["ahead_s"])
        stage.set_cuts(track, both_ways(nodes, nodes))
        stage.pause(0.5)  # all decided messages are delivered now, so the restart loses no payloads
        stage.kill(voter)
        stage.set_rules(track, [lost(voter, 0, 4, "DECIDE")])
        stage.set_masters([ignorant[0]])
        stage.set_cuts(track, both_ways([leader, *voters[1:]], [voter, *ignorant]))
        restart_after(stage, voter, step)
        stage.pause(step["apart_s"])
        make_whole(stage, track, voter)


def do_stop_at_new_log(stage, _track, step):
    """A node is stopped while its pull-thread waits for the old log's queue to be empty, to begin the new log."""
    node_id = stage.node_id(step["node"])
    while not stage.over.is_set() and stage.is_running(node_id):
        with frozen(stage.cluster.node(node_id).pid(), "deliver-thread"):
            old, number, _ = log_of(stage, node_id)
            # The frozen thread may hold the queue's lock. Then the node adopts at most one more decision: try again.
            if not stage.await_that(lambda: log_of(stage, node_id)[1] > number + 3, 0.5):
                continue
            if not stage.await_that(lambda: log_of(stage, node_id)[0] != old, step["log_s"]):
                return
            stage.pause(step["fetch_s"])
            stopping = threading.Thread(target=_stop, args=(stage, node_id), daemon=True)
            stopping.start()
            stage.pause(0.2)
        stopping.join(STOP_MAX_S)
        if stopping.is_alive():
            stage.kill(node_id)
            stopping.join()
            ensure_active(stage, node_id)
        else:
            start_protocol(stage, node_id)
        return


def _stop(stage, node_id):
    try:
        stop_protocol(stage, node_id)
    except LabError:
        pass  # killed because it did not stop


def do_late_snapshot(stage, track, step):
    """A follower adopts a new log but must wait for its snapshot. A message of its own is decided in that log. While it
    delivers the snapshot at last, it hears of the next log, whose snapshot has swallowed the message."""
    node_id = stage.node_id("last")
    leader = stage.node_id("leader")
    hold = stage.next_id()
    stage.set_rules(track, [lost(node_id, 0, 4, "FORWARD")])
    stage.pause(0.4)  # its forwarded message is delivered now, and its next one waits for the new log
    stage.fabric.ask("hold", id=hold, match={"to": node_id, "channel": 5, "type": "DATA"}, max=HELD_MAX)
    is_held = True
    try:
        old = log_of(stage, leader)[0]
        if not stage.await_that(lambda: log_of(stage, leader)[0] != old, step["log_s"]):
            return
        stage.set_rules(track, [])
        new = log_of(stage, leader)[0]

        def names_own():
            first, _, decided = log_of(stage, node_id)
            return first == new and any(decided.entry(at)[0] == node_id for at in range(1, decided.count))

        if not stage.await_that(names_own, step["log_s"]):
            return
        stage.set_rules(track, [lost(0, node_id, 4, "DECIDE")])
        if not stage.await_that(lambda: log_of(stage, leader)[0] != new, step["log_s"]):
            return
        slow_deliver_hook(stage, node_id, step["hook_ms"])
        released = stage.fabric.ask("release", id=hold, drop=False)["released"]
        is_held = False
        stage.events.add("release", id=hold, released=released, drop=False)
        stage.pause(step["hook_ms"] / 4000)
        stage.set_rules(track, [])
        stage.pause(step["hook_ms"] / 1000)
    finally:
        if is_held:
            stage.fabric.ask("release", id=hold, drop=False)
        stage.set_rules(track, [])
        slow_deliver_hook(stage, node_id, 0)


def do_late_forward(stage, track, step):
    """A node does not hear that its message is decided, and goes on forwarding it. The leader restarts in the log after
    that one: that the message is decided, only the state at the beginning of this log can tell it."""
    with stage.one_down(True) as may:
        leader, node_id = stage.node_id("leader"), stage.node_id("last")
        if not may or not all_run(stage):
            return
        stage.set_rules(track, [lost(0, node_id, 4, "DECIDE")])
        stage.pause(step["decided_s"])  # its message is in the log now
        old = log_of(stage, leader)[0]
        if stage.await_that(lambda: log_of(stage, leader)[0] not in (old, None), step["log_s"]):
            stage.kill(leader)
            restart_after(stage, leader, step)
            stage.pause(step["lead_s"])
        make_whole(stage, track, leader)


def do_read_back_state(stage, track, step):
    """The leader begins a log that nobody hears of. Another one, cut off from it, wants to begin that log with a state
    of its own, and reads the first one's back from the register."""
    first, second = stage.node_id("leader"), stage.node_id("last")
    others = [node_id for node_id in sorted(stage.cluster.nodes) if node_id != first]
    if not all_run(stage):
        return
    hold = stage.next_id()
    stage.fabric.ask("hold", id=hold, match={"from": first, "channel": 4, "type": "DECIDE",
                                             "count": [1, step["log"][0]]}, max=HELD_MAX)
    try:
        old = log_of(stage, first)[0]
        if not stage.await_that(lambda: log_of(stage, first)[0] not in (old, None), step["log_s"]):
            return
        stage.set_cuts(track, both_ways([first], others))
        stage.set_masters([second])
        stage.pause(step["apart_s"])
    finally:
        released = stage.fabric.ask("release", id=hold, drop=True)["released"]
        stage.events.add("release", id=hold, released=released, drop=True)
        stage.set_cuts(track, [])
    stage.settle(first)


def do_freeze(stage, _track, step):
    node_id = stage.node_id(step["node"])
    if stage.is_running(node_id):
        stage.events.add("freeze", node=node_id, thread=step["thread"])
        with frozen(stage.cluster.node(node_id).pid(), step["thread"]):
            stage.pause(step["for_s"])
        stage.events.add("thaw", node=node_id, thread=step["thread"])

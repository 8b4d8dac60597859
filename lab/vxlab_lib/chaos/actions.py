"""What the steps of a plan do. One function per action: `do_...(stage, track, step)`. disk_actions.py has those on
disks."""

import contextlib
import os
import struct

from ..errors import LabError
from ..node import VRRP
from . import disk_actions, strangers
from .recovery import ensure_active, restart_after, start_protocol, stop_protocol


EXACT_MOMENT_S = 3.0
SLOW_S = 0.3  # syncs are slow for this long before the power cut, so that more is not synced


def do_net(stage, track, step):
    stage.set_rules(track, step["rules"])


def do_cut(stage, track, step):
    stage.set_cuts(track, step["pairs"])


def do_bandwidth(stage, _track, step):
    stage.fabric.ask("bandwidth", bytes_per_s=step["bytes_per_s"])
    stage.events.add("net", bytes_per_s=step["bytes_per_s"])
    stage.pause(step["for_s"])
    stage.fabric.ask("bandwidth", bytes_per_s=0)


def do_master(stage, _track, step):
    stage.set_masters([stage.node_id(who) for who in step["nodes"]])


def do_state_file(stage, _track, step):
    node_id = stage.node_id(step["node"])
    for name in (VRRP, "node_state"):
        path = stage.cluster.node(node_id).path("run", name)
        if step["how"] == "absent":
            with contextlib.suppress(FileNotFoundError):  # absent twice
                os.unlink(path)
        else:
            with open(path, "w", encoding="ascii") as file:  # written in place: this is the fault
                file.write({"empty": "", "garbage": "\0\1?"}.get(step["how"], step["how"]))
    stage.events.add("state-file", node=node_id, how=step["how"])


def do_kill(stage, _track, step):
    with stage.claim(step["node"], alone=step.get("settle")) as node_id:
        if node_id is not None:
            stage.kill(node_id)
            restart_after(stage, node_id, step)


def do_kill_all(stage, _track, step):
    running = stage.cluster.running()
    for node_id in running:
        try:
            stage.kill(node_id)
        except LabError:
            pass  # another fault has ended it meanwhile
    stage.pause(step["restart_s"])
    for node_id in running:
        if not stage.is_running(node_id):
            stage.start(node_id)


def do_power_cut(stage, _track, step):
    with stage.one_down(True) as may:
        if not may:
            return
        slow = [step["slow"]] if step["slow"] else []
        set_disk_rules(stage, slow)
        stage.pause(SLOW_S)
        if step.get("rule"):
            await_exact_moment(stage, step["node"], [*slow, step["rule"]])
        for number, up_s in enumerate([*step["again_s"], None]):
            stage.cut_power(step["seed"] + number, step["is_careless"])
            set_disk_rules(stage, slow if up_s is not None else [])
            stage.pause(step["down_s"])
            late = [] if up_s is not None or not step["late_s"] else [stage.node_id("last")]
            stage.start_together([node_id for node_id in stage.cluster.nodes if node_id not in late])
            if up_s is not None:
                stage.pause(up_s)
        if step["master"]:
            stage.set_masters([step["master"]])
        stage.pause(step["late_s"])
        for node_id in late:
            stage.start(node_id)
        stage.settle(stage.node_id("leader"))


def set_disk_rules(stage, rules):
    for node_id in stage.cluster.nodes:
        disk_actions.write_disk_rules(stage, node_id, rules)


def await_exact_moment(stage, who, rules):
    """Waits up to EXACT_MOMENT_S until the node's disk library kills it in the middle of a save."""
    node_id = stage.node_id(who)
    if not stage.is_running(node_id):
        return
    pid = stage.cluster.node(node_id).pid()
    stage.down_on_purpose(pid)
    disk_actions.write_disk_rules(stage, node_id, rules)
    at_ns = stage.await_end(node_id, timeout_s=EXACT_MOMENT_S)
    disk_actions.write_disk_rules(stage, node_id, [])
    if at_ns is not None:
        stage.events.add("kill", at_ns=at_ns, node=node_id, pid=pid, point=rules[-1])


def do_pause(stage, _track, step):
    node_id = stage.node_id(step["node"])
    if not stage.is_running(node_id):
        return
    stage.events.add("pause", node=node_id)
    stage.cluster.node(node_id).pause()
    try:
        if step.get("master"):
            stage.pause(step["master_after_s"])
            stage.set_masters([step["master"]])
        stage.pause(step["for_s"])
    finally:
        try:
            stage.cluster.node(node_id).resume()
        except LabError:
            pass  # it was killed meanwhile
        stage.events.add("cont", node=node_id)


def do_restart(stage, _track, step):
    with stage.claim(step["node"], alone=step.get("settle")) as node_id:
        if node_id is not None:
            stage.terminate(node_id)
            restart_after(stage, node_id, step)


def do_stop_start(stage, _track, step):
    node_id = stage.node_id(step["node"])
    if not stage.is_running(node_id):
        return
    stop_protocol(stage, node_id)
    stage.pause(step["down_s"])
    start_protocol(stage, node_id)


def do_reinit(stage, _track, step):
    with stage.claim(step["node"], alone=step.get("settle")) as node_id:
        if node_id is None:
            return
        if step["down_s"]:
            stop_protocol(stage, node_id)
            stage.pause(step["down_s"])
        stage.events.add("reinit", node=node_id)
        stage.cluster.node(node_id).control.reinit()
        ensure_active(stage, node_id)
        if not stage.settle(node_id):
            stage.events.add("unsettled", node=node_id)


def do_delay(stage, _track, step):
    deliver_ms, state_ms = step.get("deliver_ms"), step.get("state_ms")
    stage.longest_hook_ms = max(stage.longest_hook_ms, deliver_ms or 0, state_ms or 0)
    node_id = stage.node_id(step["node"])
    for one in [node_id] if node_id else sorted(stage.cluster.nodes):
        for hook, wait_ms in (("deliver", deliver_ms), ("state", state_ms)):
            if wait_ms is not None and stage.is_running(one):
                stage.cluster.node(one).control.slow(hook, wait_ms)
    stage.events.add("slow-hook", node=node_id, deliver_ms=deliver_ms, state_ms=state_ms)


def do_bulk(stage, _track, step):
    if stage.is_running(step["node"]):
        stage.load.bulk(step["node"], step["bytes"])
        stage.events.add("bulk", node=step["node"], bytes=step["bytes"])


def do_stop_keepalived(stage, _track, step):
    node_id = stage.node_id(step["node"])
    stage.events.add("keepalived", node=node_id, runs=False)
    stage.arena.stop_keepalived(node_id)
    stage.cluster.node(node_id).write_state("BACKUP")
    stage.pause(step["for_s"])
    if stage.is_running(node_id):
        stage.arena.start_keepalived(node_id)
    stage.events.add("keepalived", node=node_id, runs=True)


def do_clock(stage, _track, step):
    set_clock(stage, stage.node_id(step["node"]), step["step_s"])


def set_clock(stage, node_id, shift_s):
    path = stage.cluster.node(node_id).path("clock_shift")
    with open(path, "r+b" if os.path.exists(path) else "w+b") as file:
        file.write(struct.pack("<q", shift_s))
    stage.events.add("clock", node=node_id, shift_s=shift_s)


def do_strangers(stage, _track, step):
    strangers.send(stage.cluster, stage.arena.address, step["count"], step["seed"])
    stage.events.add("strangers", count=step["count"])


ACTIONS = {name[3:].replace("_", "-"): action
           for names in (vars(disk_actions), globals())
           for name, action in list(names.items()) if name.startswith("do_")}

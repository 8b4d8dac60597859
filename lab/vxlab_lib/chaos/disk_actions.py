"""The steps of a plan that make faults of disks or use them. One node at a time, so always a minority."""

import os
import shutil

from ..errors import LabError
from ..journal import STORE, STORE_PARTS
from ..waiting import WaitTimeout, wait_until
from .. import decisions
from .events import now_ns
from .recovery import ensure_active, has_joined, restart_after

HELLO_S = 2.5  # nodes tell each other once a second what they have decided
JOIN_S = 20.0
FETCH_S = 5.0  # in which the others fetch what a node submitted
NOTICE_S = 10.0  # the others tell a node within this time that its disk went back


def write_disk_rules(stage, node_id, rules):
    """Writes the rules for libvx_disk_faults.so in the node's daemon."""
    path = stage.cluster.node(node_id).path("disk_faults")
    with open(path + ".new", "w", encoding="ascii") as file:
        file.writelines(rule + "\n" for rule in rules)
    os.rename(path + ".new", path)


def do_disk(stage, _track, step):
    with stage.claim(step["node"]) as node_id:
        if node_id is None:
            return
        stage.events.add("disk", node=node_id, fault=step["rules"])
        write_disk_rules(stage, node_id, step["rules"])
        stage.pause(step["for_s"])
        disk_is_well(stage, node_id, lambda: write_disk_rules(stage, node_id, []))


def disk_is_well(stage, node_id, mend):
    mend()
    stage.events.add("disk-heal", node=node_id)
    ensure_active(stage, node_id)
    stage.settle(node_id)


def do_kill_at_save(stage, _track, step):
    with stage.claim(step["node"]) as node_id:
        if node_id is None:
            return
        pid = stage.cluster.node(node_id).pid()
        stage.down_on_purpose(pid)
        write_disk_rules(stage, node_id, [step["rule"]])
        at_ns = stage.await_end(node_id)
        write_disk_rules(stage, node_id, [])
        if at_ns is None:
            return
        stage.events.add("kill", at_ns=at_ns, node=node_id, pid=pid, point=step["rule"])
        stage.arena.node_is_down(node_id)
        restart_after(stage, node_id, {**step, "settle": True})


def do_fill_disk(stage, _track, step):
    node_id = step["node"]
    filler = stage.cluster.node(node_id).path("flashdisk", "filler")
    with stage.one_down(True) as may:
        if not may:
            return
        stage.events.add("disk", node=node_id, fault={"kind": "full"})
        try:
            with open(filler, "wb", buffering=0) as file:
                while True:
                    file.write(b"\0" * 4096)
        except OSError:
            pass  # full, as intended
        stage.pause(step["for_s"])
        disk_is_well(stage, node_id, lambda: os.unlink(filler))


def do_block_save(stage, _track, step):
    with stage.claim(step["node"]) as node_id:
        if node_id is None:
            return
        path = os.path.join(stage.cluster.node(node_id).cons_dir, step["file"] + ".tmp")
        stage.events.add("disk", node=node_id, fault={"kind": "blocked", "file": step["file"]})
        while True:
            try:
                os.mkdir(path)
                break
            except FileExistsError:  # a save is under way
                if not stage.pause(0.0005):
                    return
        stage.pause(step["for_s"])
        disk_is_well(stage, node_id, lambda: os.rmdir(path))


def do_cut_record(stage, _track, step):
    with stage.claim(step["node"]) as node_id:
        if node_id is None:
            return
        stage.kill(node_id)
        directory = stage.cluster.node(node_id).cons_dir
        names = [name for name in sorted(os.listdir(directory)) if name.startswith(step["file"]) and ".tmp" not in name]
        if names:
            path = os.path.join(directory, names[-1])
            with open(path, "rb") as file:
                whole = file.read()
            with open(path, "wb") as file:
                file.write(whole[:step["keep_bytes"]])
            stage.events.add("disk", node=node_id, fault={"kind": "cut-record", "file": names[-1]})
        # A node with a short record must not take part. After that was seen, the node gets its file back.
        try:
            stage.start(node_id)
            stage.pause(1.0)
            stage.kill(node_id)
        except LabError as error:
            stage.events.add("start-failed", node=node_id, error=str(error))
            if stage.is_running(node_id):
                stage.kill(node_id)
        if names and os.path.exists(path) and os.path.getsize(path) < len(whole):
            with open(path + ".new", "wb") as file:
                file.write(whole)
            os.rename(path + ".new", path)
        stage.events.add("disk-heal", node=node_id)
        restart_after(stage, node_id, {"settle": True})


def do_store_lost(stage, _track, step):
    """Takes a node's store away while the node is down: all of it ("moved"), all but its -wal ("moved-database"), its
    end ("cut") or all its content ("cut-to-0"). Or all that is on its disk ("disk-empty"), which is configured again."""
    with stage.claim(step["node"]) as node_id:
        if node_id is None:
            return
        if step["how"] == "disk-empty" and not may_lose_disk(stage):
            return
        take_down(stage, node_id, step["is_killed"])
        # No event "disk": the node has to start with what it finds.
        stage.events.add("store-lost", node=node_id, how=step["how"])
        root = stage.cluster.node(node_id).path("flashdisk")
        path = os.path.join(root, STORE)
        if step["how"] == "disk-empty":
            empty(root)
            stage.cluster.node(node_id).configure(stage.plan.nodes)
        elif step["how"].startswith("cut"):
            os.truncate(path, int(os.path.getsize(path) * (step["share"] if step["how"] == "cut" else 0)))
        else:
            for name in STORE_PARTS if step["how"] == "moved" else [STORE]:
                if os.path.exists(os.path.join(root, name)):
                    os.rename(os.path.join(root, name), stage.cluster.node(node_id).path(f"{name}.{now_ns()}"))
        restart_after(stage, node_id, step)


def may_lose_disk(stage):
    """Waits until no node is new, and the others have fetched what the last one that was may hold alone. False if the
    faults end first: a second disk must not go before that."""
    return stage.await_that(lambda: all(has_joined(node) for node in stage.cluster.nodes.values()), JOIN_S) and \
        stage.pause(FETCH_S)


def is_stopped_for_its_disk(node):
    found = node.control.status()
    return not found["active"] and bool(found.get("cluster", {}).get("disk_went_back"))


def take_down(stage, node_id, is_killed):
    if is_killed:
        stage.kill(node_id)
    else:
        stage.terminate(node_id)
        stage.arena.node_is_down(node_id)


def empty(directory):
    """Removes all that is in it. The directory itself may be a mount point."""
    for entry in os.scandir(directory):
        if entry.is_dir(follow_symlinks=False):
            shutil.rmtree(entry.path)
        else:
            os.unlink(entry.path)


def do_disk_yesterday(stage, _track, step):
    with stage.claim(step["node"]) as node_id:
        if node_id is None:
            return
        if not may_lose_disk(stage):
            return
        node = stage.cluster.node(node_id)
        root, copy = node.path("flashdisk"), node.path("flashdisk.yesterday")
        take_down(stage, node_id, False)
        shutil.rmtree(copy, ignore_errors=True)
        shutil.copytree(root, copy, symlinks=True)
        restart_after(stage, node_id, step)
        stage.pause(step["for_s"])
        if not stage.is_running(node_id):
            return
        decided = decisions.read_position(node.cons_dir)[0]
        stage.pause(HELLO_S)  # the others hear of that
        stage.kill(node_id)
        empty(root)
        shutil.copytree(copy, root, symlinks=True, dirs_exist_ok=True)
        went_back = decided - decisions.read_position(node.cons_dir)[0]
        stage.events.add("disk-back", node=node_id, decisions=went_back)
        restart_after(stage, node_id, {"restart_s": 0.0})
        if went_back:
            try:  # not even the end of the faults ends this wait early
                wait_until(lambda: is_stopped_for_its_disk(node), NOTICE_S, "the node is stopped")
                noticed = True
            except WaitTimeout:
                noticed = False
            stage.events.add("disk-back-noticed", node=node_id, noticed=noticed)
        take_down(stage, node_id, True)
        stage.events.add("store-lost", node=node_id, how="disk-empty")
        empty(root)
        node.configure(stage.plan.nodes)
        restart_after(stage, node_id, step)

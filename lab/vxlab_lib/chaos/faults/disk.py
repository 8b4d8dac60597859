"""Faults of the disk of one node, a minority. The node isolates itself. It is started again when its disk is well."""

from .base import Fault, Made, any_node, at, times

GIVEN = "the others give the node what it lost"
UNDONE = "the disk is well, the node is started again"
RECORDS = ["msg_id", "paxos_decide", "paxos_deliver", "rb_reg"]
FILES = [*RECORDS, "host/kesh.store*", "*"]


def failing(kind, names=FILES, skip_max=10):
    """Returns a fault that writes one rule of this kind for libvx_disk_faults.so."""

    def make(draw, nodes, seconds):
        steps = []
        for moment in times(draw, seconds, 6.0):
            rule = f"{kind} {draw.choice(names)} skip {draw.randint(0, skip_max)}"
            steps.append(at(moment, "disk", node=any_node(draw, nodes), rules=[rule],
                            for_s=round(draw.uniform(0.5, 2.5), 2)))
        return Made(steps, options={"disk_faults": True})

    return make


def slow(draw, nodes, seconds):
    return Made([at(moment, "disk", node=any_node(draw, nodes), rules=["slow_sync 500"],
                    for_s=round(draw.uniform(2.0, 4.0), 1)) for moment in times(draw, seconds, 6.0)],
                options={"disk_faults": True})


def cut_write(draw, nodes, seconds):
    steps = []
    for moment in times(draw, seconds, 6.0):
        rule = f"cut_write {draw.choice(FILES)} {draw.randint(0, 3)} skip {draw.randint(0, 10)}"
        steps.append(at(moment, "disk", node=any_node(draw, nodes), rules=[rule], for_s=1.0))
    return Made(steps, options={"disk_faults": True})


def full_disk(draw, nodes, seconds):
    """The node has a small file system of its own, which is really filled."""
    node = draw.randint(1, nodes)
    return Made([at(moment, "fill-disk", node=node, for_s=round(draw.uniform(1.0, 3.0), 1))
                 for moment in times(draw, seconds, 7.0)], options={"small_disk": node})


def cut_records(draw, nodes, seconds):
    """A power cut on a careless file system leaves a short record, which the next start finds."""
    return Made([at(moment, "cut-record", node=any_node(draw, nodes), file=draw.choice(RECORDS),
                    keep_bytes=draw.randint(0, 3), settle=True) for moment in times(draw, seconds, 7.0)])


def blocked_save(draw, nodes, seconds):
    """A directory has the name of a record's temporary file."""
    return Made([at(moment, "block-save", node=any_node(draw, nodes), file=draw.choice(RECORDS[:3]),
                    for_s=round(draw.uniform(0.5, 2.5), 2)) for moment in times(draw, seconds, 6.0)])


def store_lost(hows):
    """`hows`: see do_store_lost."""

    def make(draw, nodes, seconds):
        return Made([at(moment, "store-lost", node=any_node(draw, nodes), how=draw.choice(hows),
                        share=round(draw.uniform(0.02, 0.98), 2), is_killed=draw.random() < 0.5,
                        restart_s=round(draw.uniform(0.0, 1.5), 2), settle=True,
                        failover=draw.random() < 0.5 or hows == ["disk-empty"])  # a new node does not lead
                     for moment in times(draw, seconds, 7.0, first=3.0)])

    return make


def disk_yesterday(draw, nodes, seconds):
    return Made([at(moment, "disk-yesterday", node=any_node(draw, nodes), for_s=round(draw.uniform(2.0, 4.0), 1),
                    restart_s=0.0, settle=True, failover=True) for moment in times(draw, seconds, 15.0, first=3.0)])


def payload_files(draw, nodes, seconds):
    """No save of a payload succeeds. No node isolates itself for that."""
    kinds = ["enospc payloads/*", "eio payloads/*", "readonly payloads/*", f"cut_write payloads/* {draw.randint(0, 60)}"]
    return Made([at(moment, "disk", node=any_node(draw, nodes), for_s=round(draw.uniform(0.5, 2.5), 2),
                    rules=[f"{draw.choice(kinds)} skip {draw.randint(0, 10)}"])
                 for moment in times(draw, seconds, 5.0)], options={"disk_faults": True})


FAULTS = [
    Fault("disk-enospc", "disk", "writes of one file fail with ENOSPC", UNDONE, failing("enospc")),
    Fault("disk-eio", "disk", "writes of one file fail with EIO", UNDONE, failing("eio")),
    Fault("disk-readonly", "disk", "the disk turns read-only", UNDONE, failing("readonly", ["*"])),
    Fault("disk-unreadable", "disk", "no register file can be opened for reading", UNDONE,
          failing("unreadable", ["rb_reg"])),
    Fault("disk-two-threads", "disk", "all files fail at once, so that several threads meet it together", UNDONE,
          failing("eio", ["*"], 0)),
    Fault("disk-cut-write", "disk", "only the first bytes of a record can be written", UNDONE, cut_write),
    Fault("disk-slow-sync", "disk", "each sync takes 500 ms longer", "the delay ends", slow),
    Fault("disk-blocked-save", "disk", "a directory stands in the way of a record's temporary file", UNDONE,
          blocked_save),
    Fault("disk-payload-files", "disk", "saves of payloads fail on one node, or it cannot read them", "the disk is well",
          payload_files),
    Fault("store-moved-away", "disk", "a node starts without its store, or with its -wal alone", GIVEN,
          store_lost(["moved", "moved-database"])),
    Fault("store-cut", "disk", "a node starts with a store that was cut short, or to nothing", GIVEN,
          store_lost(["cut", "cut", "cut-to-0"])),
    Fault("disk-empty", "disk", "a node gets an empty disk, is configured again and joins as new", GIVEN,
          store_lost(["disk-empty"])),
    Fault("disk-yesterday", "disk", "a node starts with a copy of its disk that is some seconds old; the others "
          "remember more, so it must stay stopped", "the disk is emptied and configured again, the node joins as new",
          disk_yesterday),
    Fault("disk-full", "disk", "a small file system fills up for real", UNDONE, full_disk),
    Fault("disk-cut-records", "disk", "a killed node finds a record cut short at its start",
          "the record is whole again", cut_records),
]

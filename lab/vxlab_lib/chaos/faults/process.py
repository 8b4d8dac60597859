"""Faults of processes. Unless a fault says otherwise, a node is killed only when the last one has caught up."""

from .base import Fault, Made, any_node, at, near_roll_over, times

UNDONE = "the node is started again"


def kill_random(draw, nodes, seconds):
    steps = []
    for index, moment in enumerate(times(draw, seconds, 4.0)):
        step = at(moment, "kill", node=any_node(draw, nodes), restart_s=round(draw.uniform(0.0, 3.0), 2), settle=True,
                  failover=draw.random() < 0.5)
        steps.append({**step, "log": near_roll_over(draw)} if index % 2 else step)
    return Made(steps)


def kill_near_save(rules, roles):
    """The node's disk library kills it at the n-th call of a kind from now on."""

    def make(draw, _nodes, seconds):
        steps = []
        for index, moment in enumerate(times(draw, seconds, 4.0)):
            step = at(moment, "kill-at-save", node=draw.choice(roles), restart_s=round(draw.uniform(0.0, 2.0), 2),
                      rule=f"{draw.choice(rules)} {draw.randint(1, 8)}", failover=draw.random() < 0.5)
            steps.append({**step, "log": near_roll_over(draw)} if index % 2 else step)
        return Made(steps, options={"disk_faults": True})

    return make


def pause_leader(draw, nodes, seconds):
    """The leader is frozen while another node leads. Then it goes on as if nothing had happened."""
    steps = []
    for moment in times(draw, seconds, 8.0):
        steps.append(at(moment, "pause", node="leader", for_s=round(draw.uniform(2.0, 6.0), 1),
                        log=near_roll_over(draw), master=draw.randint(1, nodes),
                        master_after_s=round(draw.uniform(0.1, 1.5), 2)))
    return Made(steps)


def rolling_restart(draw, nodes, seconds):
    order = draw.sample(range(1, nodes + 1), nodes)
    moments = times(draw, seconds, 2.5)
    return Made([at(moment, "restart", node=order[index % nodes], down_s=round(draw.uniform(0.0, 1.5), 2), settle=True)
                 for index, moment in enumerate(moments)])


def restart_acceptor(draw, _nodes, seconds):
    """A node that has missed decisions leads while a node that helped to make them restarts."""
    steps = []
    for moment in times(draw, seconds, 8.0):
        steps += [at(moment, "cut", pairs=[[0, "last"]]),
                  at(moment + 1.5, "master", nodes=["lagging"]),
                  at(moment + 1.6, "cut", pairs=[]),
                  at(moment + 1.6 + draw.uniform(0.0, 0.5), "kill", node="follower", restart_s=0.0, settle=True)]
    return Made(steps)


def kill_all(draw, _nodes, seconds):
    return Made([at(moment, "kill-all", restart_s=round(draw.uniform(0.0, 2.0), 2))
                 for moment in times(draw, seconds, 8.0, first=3.0)])


MOMENTS = [f"kill_{when} {call}:{name}" for when in ("before", "after") for call, name in
           [(call, name) for name in ("rb_reg", "paxos_decide", "paxos_deliver", "msg_id", "payloads/*")
            for call in ("write", "rename", "sync")] + [("unlink", "payloads/*")] +
           [(call, "host/kesh.store*") for call in ("write", "sync")]]


# Where only payloads are slow, a decision overtakes a save that was promised too early. Where the store is, many
# cuts come in the middle of its transactions.
SLOW_SYNCS = [None, "slow_sync 5", "slow_sync 30", "slow_sync 100 payloads/*", "slow_sync 100 host/*"]


def power_cut(is_careless):
    """Some cuts come in the middle of a save, some before the cluster has recovered from the last one."""

    def make(draw, nodes, seconds):
        steps = []
        for index, moment in enumerate(times(draw, seconds, 6.0, first=2.0)):
            step = at(moment, "power-cut", seed=draw.randint(0, 1 << 30), down_s=round(draw.choice([0.0, 0.5]), 1),
                      again_s=[round(draw.uniform(0.0, 1.5), 2) for _ in range(draw.choice([0, 0, 1, 2]))],
                      late_s=round(draw.choice([0.0, 0.0, draw.uniform(0.5, 3.0)]), 2),
                      master=draw.choice([0, draw.randint(1, nodes)]), slow=draw.choice(SLOW_SYNCS),
                      is_careless=is_careless)
            if draw.random() < 0.5:
                step = {**step, "node": any_node(draw, nodes), "rule": f"{draw.choice(MOMENTS)} {draw.randint(1, 8)}"}
            steps.append({**step, "log": near_roll_over(draw)} if index % 2 else step)
        return Made(steps, options={"disk_faults": True, "undo": True})

    return make


FAULTS = [
    Fault("kill-random", "process", "kill -9 of one node, also at a roll-over", UNDONE, kill_random),
    Fault("kill-near-save", "process", "a node is killed right before or after a save of one of its files", UNDONE,
          kill_near_save([f"kill_{when} {call}:{name}" for when in ("before", "after") for call in ("rename", "sync")
                          for name in ("rb_reg", "paxos_decide", "paxos_deliver", "msg_id")],
                         ["leader", "follower", "last"])),
    Fault("kill-near-commit", "process", "a node is killed in the middle of a transaction or checkpoint of its store",
          UNDONE, kill_near_save([f"kill_{when} {call}:host/kesh.store{part}" for when in ("before", "after")
                                  for call in ("write", "sync") for part in ("", "-wal", "-wal")],
                                 ["leader", "follower", "last"])),
    Fault("pause-leader", "process", "the leader is frozen, another one leads, the old one goes on", "it goes on",
          pause_leader),
    Fault("rolling-restart", "process", "clean restarts, one node after another", UNDONE, rolling_restart),
    Fault("restart-acceptor-lagging-leader", "process", "a node that missed decisions leads, an acceptor restarts",
          UNDONE, restart_acceptor),
    Fault("kill-all", "process", "all nodes are killed at once",
          UNDONE, kill_all),
    Fault("power-cut", "process", "all nodes are killed at one moment, and their files go back to what was synced; of "
          "the rest, any part may be there", UNDONE, power_cut(False)),
    Fault("power-cut-careless", "process", "the same on a file system where a rename may be there without the content",
          UNDONE, power_cut(True)),
    Fault("kill-near-payload-save", "process", "a node is killed in the middle of a save, or a removal, of a payload",
          UNDONE, kill_near_save([f"kill_{when} {call}:payloads/*" for when in ("before", "after")
                                  for call in ("write", "rename", "sync", "unlink")], ["leader", "follower", "last"])),
]

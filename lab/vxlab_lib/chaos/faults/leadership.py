"""Faults of leadership: what keepalived would say, and when."""

from .base import Fault, Made, at, near_roll_over, times

UNDONE = "one node is MASTER, its state file whole"


def move(draw, nodes, seconds):
    steps = []
    for index, moment in enumerate(times(draw, seconds, 4.0)):
        step = at(moment, "master", nodes=[draw.randint(1, nodes)])
        steps.append({**step, "log": near_roll_over(draw)} if index % 2 else step)
    return Made(steps)


def none(draw, nodes, seconds):
    steps = []
    for moment in times(draw, seconds, 8.0):
        steps += [at(moment, "master", nodes=[]),
                  at(moment + draw.uniform(1.0, 6.0), "master", nodes=[draw.randint(1, nodes)])]
    return Made(steps)


def two(draw, nodes, seconds):
    steps = []
    for moment in times(draw, seconds, 9.0):
        both = draw.sample(range(1, nodes + 1), 2)
        steps += [at(moment, "master", nodes=both),
                  at(moment + draw.uniform(1.0, 8.0), "master", nodes=[draw.choice(both)])]
    return Made(steps)


def two_long(draw, nodes, seconds):
    """Two leaders from the beginning to the end."""
    return Made([at(1.0, "master", nodes=draw.sample(range(1, nodes + 1), 2))], seconds=61.0)


def flap(draw, nodes, seconds):
    return Made([at(1.0 + second, "master", nodes=[draw.randint(1, nodes)]) for second in range(int(seconds) - 2)])


def lagging(draw, nodes, seconds):
    """A node hears nothing for a while, then leads."""
    steps = []
    for moment in times(draw, seconds, 8.0):
        node = draw.choice(["follower", "last"])
        steps += [at(moment, "cut", pairs=[[0, node]]),
                  at(moment + draw.uniform(1.0, 4.0), "master", nodes=["lagging"]),
                  at(moment + 4.1, "cut", pairs=[])]
    return Made(steps)


def one_behind(draw, _nodes, seconds):
    """The next leader has not heard the newest decisions while messages wait."""
    steps = []
    for moment in times(draw, seconds, 4.0):
        steps += [at(moment, "net", rules=[{"from": 0, "to": "follower", "channel": 4, "type": "DECIDE", "loss": 1.0}],
                     log=near_roll_over(draw)),
                  at(moment + draw.uniform(0.05, 0.3), "master", nodes=["lagging"]),
                  at(moment + draw.uniform(1.0, 2.0), "net", rules=[])]
    return Made(steps)


def state_file(draw, nodes, seconds):
    steps = []
    for moment in times(draw, seconds, 3.0):
        steps += [at(moment, "state-file", node=draw.choice(["leader", draw.randint(1, nodes)]),
                     how=draw.choice(["empty", "MAS", "absent", "garbage"])),
                  at(moment + draw.uniform(0.3, 2.5), "master", nodes=[draw.randint(1, nodes)])]
    return Made(steps)


def keepalived(draw, nodes, seconds):
    """keepalived chooses the leader. Leaders die together with their keepalived, or lose the network."""
    steps = []
    for moment in times(draw, seconds, 9.0, first=3.0):
        kind = draw.choice(["kill", "cut", "stop-keepalived"])
        if kind == "kill":
            steps.append(at(moment, "kill", node="leader", restart_s=round(draw.uniform(1.0, 5.0), 1), settle=True))
        elif kind == "cut":
            steps += [at(moment, "cut", pairs=[["leader", 0], [0, "leader"]]),
                      at(moment + draw.uniform(2.0, 6.0), "cut", pairs=[])]
        else:
            steps.append(at(moment, "stop-keepalived", node="leader", for_s=round(draw.uniform(1.0, 5.0), 1)))
    return Made(steps, options={"keepalived": True})


FAULTS = [
    Fault("master-move", "leadership", "another node is MASTER every few seconds, also at a roll-over", UNDONE, move),
    Fault("master-none", "leadership", "nobody is MASTER for seconds", UNDONE, none),
    Fault("master-two", "leadership", "two are MASTER for 1 to 8 s", UNDONE, two),
    Fault("master-two-long", "leadership", "two are MASTER for a minute", UNDONE, two_long),
    Fault("master-flap", "leadership", "another MASTER each second", UNDONE, flap),
    Fault("master-lagging", "leadership", "the node that is most behind becomes MASTER", UNDONE, lagging),
    Fault("master-one-behind", "leadership", "MASTER is a node that missed the last decisions, at a roll-over", UNDONE,
          one_behind),
    Fault("state-file-cut", "leadership", "the node state file is empty, cut, absent or nonsense", UNDONE, state_file),
    Fault("keepalived", "leadership", "keepalived elects the leader; the leader's node dies, is cut off, or loses its "
          "keepalived", "all run", keepalived),
]

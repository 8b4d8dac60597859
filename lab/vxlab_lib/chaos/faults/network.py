"""Faults of the network. The fabric makes all of them, and they end with its rules."""

from .base import Fault, Made, any_node, at, near_roll_over, times

CHANNELS = [0, 3, 4, 5]
UNDONE = "the rules are taken away"


def rule(draw, nodes, **what):
    """Returns a rule for all datagrams, or for one channel and perhaps one direction."""
    found = {"from": 0, "to": 0, "channel": draw.choice(CHANNELS), "type": "*"}
    if draw.random() < 0.4:
        found[draw.choice(["from", "to"])] = draw.choice(["leader", draw.randint(1, nodes)])
    return {**found, **what}


def shifting(**what):
    """Changes the channels and directions of a rule every few seconds. The first rule is for all datagrams."""

    def make(draw, nodes, seconds):
        steps = [at(0.5, "net", rules=[{"from": 0, "to": 0, "channel": 0, "type": "*", **what}])]
        for moment in times(draw, seconds, 5.0, first=5.0):
            steps.append(at(moment, "net", rules=[rule(draw, nodes, **what) for _ in range(draw.randint(1, 3))]))
        return Made(steps)

    return make


def cut_one_way(draw, nodes, seconds):
    steps = []
    for moment in times(draw, seconds, 5.0):
        one, other = draw.sample(range(1, nodes + 1), 2)
        pairs = draw.choice([[[one, other]], [["leader", one]], [[one, "leader"]],
                             [["leader", one], ["leader", other]]])
        steps += [at(moment, "cut", pairs=pairs), at(moment + draw.uniform(0.5, 4.0), "cut", pairs=[])]
    return Made(steps)


def both_ways(one_side, other_side):
    return [[one, other] for one in one_side for other in other_side] + [
        [other, one] for one in one_side for other in other_side]


def partition_full(draw, nodes, seconds):
    steps = []
    for moment in times(draw, seconds, 7.0):
        members = draw.sample(range(1, nodes + 1), nodes)
        split = draw.randint(1, nodes - 1)
        pairs = both_ways(members[:split], members[split:])
        if draw.random() < 0.3:
            pairs = [[one, other] for one in members for other in members if one != other]
        steps += [at(moment, "cut", pairs=pairs), at(moment + draw.uniform(1.0, 5.0), "cut", pairs=[])]
    return Made(steps)


def partition_bridge(draw, nodes, seconds):
    """Two parts that hear each other only through one node, which hears both."""
    steps = []
    for moment in times(draw, seconds, 7.0):
        members = draw.sample(range(1, nodes + 1), nodes)
        middle = (nodes - 1) // 2
        steps += [at(moment, "cut", pairs=both_ways(members[1:1 + middle], members[1 + middle:])),
                  at(moment + draw.uniform(1.0, 5.0), "cut", pairs=[])]
    return Made(steps)


def lose_decide(draw, _nodes, seconds):
    steps = [at(0.5, "net", rules=[{"from": 0, "to": 0, "channel": 4, "type": "DECIDE", "loss": 0.5}])]
    for moment in times(draw, seconds, 6.0, first=4.0):
        to = draw.choice(["follower", "last", 0])
        steps.append(at(moment, "net", rules=[{"from": "leader", "to": to, "channel": 4, "type": "DECIDE",
                                               "loss": draw.choice([0.5, 0.9, 1.0])}]))
        steps.append(at(moment + draw.uniform(0.5, 3.0), "net", rules=[]))
    return Made(steps)


def lose_decide_update(draw, nodes, seconds):
    """Nodes that were away or that lead too early do not get the decisions that they missed."""
    steps = [at(0.5, "net", rules=[{"from": 0, "to": 0, "channel": 4, "type": "DECIDE_UPDATE",
                                    "loss": draw.choice([0.5, 0.9, 1.0])}])]
    return Made(steps + cut_at_roll_over(draw, nodes, seconds).steps)


def thin(draw, _nodes, seconds):
    return Made([at(moment, "bandwidth", bytes_per_s=draw.choice([100_000, 300_000, 1_000_000]),
                    for_s=round(draw.uniform(1.0, 3.0), 1)) for moment in times(draw, seconds, 5.0)])


def cut_at_roll_over(draw, nodes, seconds):
    steps = []
    for moment in times(draw, seconds, 4.0):
        one = draw.randint(1, nodes)
        pairs = draw.choice([[["leader", one]], [["leader", 0]], [[0, "leader"]], [[0, "lagging"]]])
        steps += [at(moment, "cut", pairs=pairs, log=near_roll_over(draw)),
                  at(moment + draw.uniform(0.2, 2.5), "cut", pairs=[])]
    return Made(steps)


def delay_all(draw, nodes, seconds):
    made = shifting(delay_ms=[0, 3000])(draw, nodes, seconds)
    # Late messages matter only if the leader has changed meanwhile.
    made.steps += [at(moment, "master", nodes=[any_node(draw, nodes)])
                   for moment in times(draw, seconds, 8.0, first=4.0)]
    return made


FAULTS = [
    Fault("loss-1", "network", "1 % of the datagrams are lost", UNDONE, shifting(loss=0.01)),
    Fault("loss-10", "network", "10 % are lost", UNDONE, shifting(loss=0.1)),
    Fault("loss-40", "network", "40 % are lost", UNDONE, shifting(loss=0.4)),
    Fault("dup", "network", "a third is delivered twice", UNDONE, shifting(dup=0.33)),
    Fault("reorder", "network", "a third is overtaken by later ones", UNDONE, shifting(reorder=0.33)),
    Fault("delay-3s", "network", "up to 3 s late, longer than the leader changes that are made meanwhile", UNDONE,
          delay_all),
    Fault("cut-one-way", "network", "a node does not hear another one, which still hears it", UNDONE, cut_one_way),
    Fault("partition-full", "network", "the cluster in two parts, or each node alone", UNDONE, partition_full),
    Fault("partition-bridge", "network", "two parts and one node that hears both", UNDONE, partition_bridge),
    Fault("cut-at-rollover", "network", "cuts that begin where a log is full or has just begun", UNDONE,
          cut_at_roll_over),
    Fault("lose-decide", "network", "DECIDE is lost, half or all, to one follower or to all", UNDONE, lose_decide),
    Fault("lose-decide-update", "network", "DECIDE(update) alone is lost, with cuts at a roll-over that call for it",
          UNDONE, lose_decide_update),
    Fault("thin", "network", "0.1 to 1 MB/s for everything", "as fast as it goes", thin),
]

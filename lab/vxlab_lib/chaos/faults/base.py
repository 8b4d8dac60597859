"""What a fault is."""

from dataclasses import dataclass, field


@dataclass
class Made:
    """What one fault adds to a plan."""

    steps: list = field(default_factory=list)
    settings: dict = field(default_factory=dict)  # node id, 0 for all -> configuration keys
    load: dict = field(default_factory=dict)
    options: dict = field(default_factory=dict)
    seconds: float = 0.0  # how long the faults must last at least


@dataclass(frozen=True)
class Fault:
    name: str
    group: str
    what: str  # text: what it does
    undone: str  # text: how it ends
    make: object  # (random.Random, node count, seconds) -> Made


def at(seconds, action, **arguments):
    return {"at": round(seconds, 2), "do": action, **arguments}


def times(draw, seconds, every, first=1.0):
    """Returns moments about `every` seconds apart. After the last one there is time left for its effect."""
    moments, moment = [], first + draw.uniform(0.0, every / 2)
    while moment < seconds - 1.0:
        moments.append(moment)
        moment += draw.uniform(0.6, 1.4) * every
    return moments


def any_node(draw, nodes):
    """Returns a role more often than a number, since a fault hits the leader and the followers differently."""
    return draw.choice(["leader", "leader", "follower", "last", draw.randint(1, nodes)])


def near_roll_over(draw):
    """Returns log lengths just before a new log begins, at that moment, or in its first decisions."""
    return draw.choice([[249, 250], [250, 250], [1, 1], [1, 2], [2, 3]])

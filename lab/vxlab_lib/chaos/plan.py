"""The plan of an episode: which faults come when. A pure function of seed, number of nodes, fault
names and the seconds that were asked for.

A plan has one track per fault. A step of a track is a dictionary: "at" (seconds after the load has begun), "do" (an
action, see actions.py) and its arguments. For faults at a roll-over there is also "log" [low, high]: the step waits
until the longest log has low to high entries. A node is a number or a role, which is looked up at the moment of the
step: "leader", "follower" (the lowest that is not leader), "follower2" (the next), "lagging", "last" (the highest that
is not leader).
"""

import random
from dataclasses import dataclass, field

from ..programs import EVIDENCE
from .faults import FAULTS

DURATION_S = (15.0, 40.0)
SIZES = [1, 40, 200, 1384, 1385, 4000]
STATES_MAX = [1 << 30, 1 << 30, 1 << 17]  # the first holds all lines of a run; the last leaves the oldest texts out


@dataclass(frozen=True)
class Plan:
    seed: int
    nodes: int
    faults: list
    seconds: float  # how long faults last
    tracks: list  # per fault: {"fault", "steps"}
    load: dict  # {"threads", "sizes", "pause_ms"}
    settings: dict = field(default_factory=dict)  # node id, or 0 for all -> configuration keys
    options: dict = field(default_factory=dict)  # what the arena must prepare

    def as_json(self):
        return [{"fault": track["fault"], "steps": track["steps"]} for track in self.tracks]

    def lines(self):
        yield (f"seed {self.seed}, {self.nodes} nodes, {self.seconds:.0f} s of "
               f"{' + '.join(self.faults) or 'no faults'}; load: {self.load}")
        for track in self.tracks:
            for step in track["steps"]:
                more = ", ".join(f"{key} {value}" for key, value in step.items() if key not in ("at", "do"))
                yield f"  {step['at']:5.1f} s  {track['fault']}: {step['do']} {more}"


def choose_faults(seed, wanted):
    """Returns the fault names of the episode with this seed. `wanted` is as on the command line: names joined by + come
    together, "none" is no fault, and "all" means, by seed, first each fault alone, then pairs."""
    if wanted == ["all"]:
        names = list(FAULTS)
        if seed % (2 * len(names)) < len(names):
            return [names[seed % len(names)]]
        return sorted(random.Random(f"pair {seed}").sample(names, 2))
    entry = wanted[seed % len(wanted)]
    return [] if entry == "none" else entry.split("+")


def make_plan(seed, nodes, faults, wanted_s=None):
    draw = random.Random(f"{seed} {nodes} {' '.join(faults)}")
    drawn_s = round(draw.uniform(*DURATION_S), 1)
    seconds = wanted_s or drawn_s
    load = {"threads": draw.choice([1, 2, 4, 8, 16, 32]) if nodes < 16 else draw.choice([1, 2]),
            "sizes": sorted(draw.sample(SIZES, draw.randint(1, len(SIZES)))), "pause_ms": 0}
    state_max = draw.choice(STATES_MAX)
    tracks, settings, options = [], {0: {**EVIDENCE, "state.max": state_max}}, {"keeps_lines": state_max == STATES_MAX[0]}
    for name in faults:
        fault = FAULTS[name]
        made = fault.make(draw, nodes, seconds)
        steps = sorted(made.steps, key=lambda step: step["at"])
        tracks.append({"fault": name, "steps": steps})
        for node, keys in made.settings.items():
            settings.setdefault(node, {}).update(keys)
        load.update(made.load)
        options.update(made.options)
        seconds = max(seconds, made.seconds)
    return Plan(seed, nodes, list(faults), seconds, tracks, load, settings, options)

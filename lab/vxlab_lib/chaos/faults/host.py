"""Faults of the host process: slow hooks, large states and payloads, many threads."""

from .base import Fault, Made, at, near_roll_over, times

UNDONE = "hooks are quick again"


def slow_hook(role):
    def make(draw, _nodes, seconds):
        steps = []
        for moment in times(draw, seconds, 5.0):
            steps += [at(moment, "delay", node=role, deliver_ms=draw.choice([5, 50, 200]), log=near_roll_over(draw)),
                      at(moment + draw.uniform(1.0, 3.0), "delay", node=0, deliver_ms=0)]
        return Made(steps)

    return make


def slow_state(draw, _nodes, seconds):
    steps = [at(0.5, "delay", node=0, state_ms=draw.choice([50, 200, 1000]))]
    steps += [at(moment, "master", nodes=["follower"], log=near_roll_over(draw))
              for moment in times(draw, seconds, 6.0)]
    return Made(steps)


def bulk(draw, nodes, seconds):
    """Submits a few very large payloads in addition to the steady small ones."""
    return Made([at(moment, "bulk", node=draw.randint(1, nodes), bytes=draw.choice([100_000, 1_000_000, 10_000_000]))
                 for moment in times(draw, seconds, 5.0)])


def many_threads(draw, nodes, seconds):
    steps = [at(moment, "master", nodes=[draw.randint(1, nodes)], log=near_roll_over(draw))
             for moment in times(draw, seconds, 10.0, first=5.0)]
    return Made(steps, load={"threads": 32, "sizes": [1, 40]})


def long_life(_draw, _nodes, _seconds):
    """No fault: a steady load, and so few lines kept that nothing may grow."""
    return Made(settings={0: {"state.max": 1 << 20, "retention.lines": 200}},
                load={"threads": 3, "sizes": [200, 200, 200, 3000], "pause_ms": 60}, options={"keeps_lines": False, "is_steady": True})


FAULTS = [
    Fault("slow-hook-leader", "host", "the leader's deliver hook takes 5 to 200 ms", UNDONE, slow_hook("leader")),
    Fault("slow-hook-follower", "host", "a follower's deliver hook takes 5 to 200 ms", UNDONE, slow_hook("follower")),
    Fault("slow-state", "host", "the state hook takes up to 1 s, leaders change at roll-overs", UNDONE, slow_state),
    Fault("bulk-10mb", "host", "payloads of up to 10 MB beside small ones", "they end", bulk),
    Fault("long-life", "host", "a steady load of little, of which little is kept: with --seconds, does anything grow?", "-",
          long_life),
    Fault("many-threads", "host", "32 threads per node, leaders change", "-", many_threads),
]

"""Faults of the library's life cycle, of clocks, and of strangers."""

from .base import Fault, Made, any_node, at, near_roll_over, times


def stop_start(draw, nodes, seconds):
    steps = []
    for index, moment in enumerate(times(draw, seconds, 2.0)):
        step = at(moment, "stop-start", node=any_node(draw, nodes), down_s=draw.choice([0.0, 0.0, 0.05, 0.5, 2.0]))
        steps.append({**step, "log": near_roll_over(draw)} if index % 2 else step)
    return Made(steps)


def stop_alone(draw, _nodes, seconds):
    """The leader is stopped with a proposal under way. It hears no other node for longer than a stop may take."""
    steps = []
    for moment in times(draw, seconds, 13.0):
        steps += [at(moment, "cut", pairs=[["leader", 0], [0, "leader"]]),
                  at(moment + draw.uniform(0.3, 2.0), "stop-start", node="leader",
                     down_s=round(draw.uniform(0.0, 1.0), 2)),
                  at(moment + 10.0, "cut", pairs=[])]
    return Made(steps)


def reinit(draw, nodes, seconds):
    """Calls cleanup and init. The node's memory is lost, so one node at a time."""
    return Made([at(moment, "reinit", node=any_node(draw, nodes), down_s=draw.choice([0.0, 0.1, 1.0]), settle=True)
                 for moment in times(draw, seconds, 3.0)])


def configure_all(draw, _nodes, _seconds):
    return Made([], options={"configure_first_s": round(draw.uniform(2.0, 6.0), 1)})


def clock_step(draw, nodes, seconds):
    steps = []
    for moment in times(draw, seconds, 6.0):
        steps.append(at(moment, "clock", node=any_node(draw, nodes), step_s=draw.choice([-3600, 3600, -30, 30])))
        steps.append(at(moment + 0.2, "net", rules=[{"from": 0, "to": 0, "channel": 5, "type": "*", "loss": 0.2}]))
        steps.append(at(moment + draw.uniform(1.0, 3.0), "net", rules=[]))
    return Made(steps, options={"clock": True})


def strangers(draw, _nodes, seconds):
    """Sends valid messages of another cluster and of another build, with numbers far above the cluster's own."""
    return Made([at(moment, "strangers", count=draw.randint(20, 200), seed=draw.randint(0, 1 << 30))
                 for moment in times(draw, seconds, 2.0)])


FAULTS = [
    Fault("stop-start-loop", "life cycle", "the library is stopped and started under load, on each role", "all active",
          stop_start),
    Fault("stop-alone", "life cycle", "a leader without a quorum is stopped while a proposal waits for answers",
          "all active, the network is whole", stop_alone),
    Fault("reinit-loop", "life cycle", "the library is cleaned up and initialised under load", "all active", reinit),
    Fault("configure-all", "life cycle", "the whole cluster is configured anew after a first life", "-", configure_all),
    Fault("clock-step", "clocks", "one node's wall clock jumps by up to an hour, both ways", "the clocks are right",
          clock_step),
    Fault("strangers", "strangers", "messages of another cluster and of another build on the same group", "they end",
          strangers),
]

"""Faults that aim at one exact order of events."""

from .base import Fault, Made, any_node, at, near_roll_over, times

UNDONE = "all run, the network is whole"
THREADS = ["propose-thread", "launch-thread", "leader-watch-thread", "pull-thread", "deliver-thread"]


def reused_round(draw, _nodes, seconds):
    return Made([at(moment, "reused-round", write_s=round(draw.uniform(0.3, 0.8), 2), restart_s=0.0,
                    apart_s=round(draw.uniform(1.2, 2.0), 2)) for moment in times(draw, seconds, 6.0)])


def restarted_voter(draw, _nodes, seconds):
    return Made([at(moment, "restarted-voter", ahead_s=round(draw.uniform(0.3, 1.0), 2), restart_s=0.0,
                    apart_s=round(draw.uniform(1.0, 2.5), 2)) for moment in times(draw, seconds, 6.0)])


def crossed_writes(draw, _nodes, seconds):
    return Made([at(moment, "crossed-writes", duel_s=round(draw.uniform(0.6, 1.2), 2),
                    between_s=round(draw.uniform(0.1, 0.4), 2)) for moment in times(draw, seconds, 5.0)])


def full_log_unhandled(draw, _nodes, seconds):
    return Made([at(moment, "full-log-unhandled", log_s=8.0, lead_s=round(draw.uniform(0.5, 1.5), 2), log=[100, 230])
                 for moment in times(draw, seconds, 7.0)], load={"sizes": [1, 40]})


def stop_at_new_log(draw, _nodes, seconds):
    return Made([at(moment, "stop-at-new-log", node=draw.choice(["follower", "last"]), log_s=8.0,
                    fetch_s=round(draw.uniform(0.5, 1.5), 2), log=[150, 245]) for moment in times(draw, seconds, 5.0)])


def late_snapshot(draw, _nodes, seconds):
    # Small lines, because the snapshot that the follower fetches contains the whole journal.
    return Made([at(moment, "late-snapshot", hook_ms=draw.choice([1000, 2000]), log_s=8.0, log=[100, 230])
                 for moment in times(draw, seconds, 6.0)], load={"sizes": [1, 40]})


def late_forward(draw, _nodes, seconds):
    return Made([at(moment, "late-forward", decided_s=round(draw.uniform(1.2, 2.0), 2), log_s=8.0, restart_s=0.0,
                    lead_s=round(draw.uniform(2.0, 3.0), 2)) for moment in times(draw, seconds, 7.0)],
                load={"sizes": [1, 40]})


def read_back_state(draw, _nodes, seconds):
    return Made([at(moment, "read-back-state", log_s=8.0, apart_s=round(draw.uniform(1.0, 3.0), 2), log=[130, 230])
                 for moment in times(draw, seconds, 6.0)], load={"sizes": [1, 40]})


def frozen_thread(draw, nodes, seconds):
    steps = []
    for index, moment in enumerate(times(draw, seconds, 2.5)):
        step = at(moment, "freeze", node=any_node(draw, nodes), thread=draw.choice(THREADS),
                  for_s=round(draw.choice([0.01, 0.1, 1.0]) * draw.uniform(1.0, 2.0), 3))
        steps.append({**step, "log": near_roll_over(draw)} if index % 2 else step)
    return Made(steps)


FAULTS = [
    Fault("reused-round", "exact order", "a leader that does not hear itself dies in a write that few heard, and "
          "decides the same number with those who heard nothing", UNDONE, reused_round, ("broker",)),
    Fault("crossed-writes", "exact order", "two leaders write the same number at the same nodes, which have promised "
          "it to the second before they hear the first", UNDONE, crossed_writes),
    Fault("full-log-unhandled", "exact order", "a node leads that has heard of a whole log but lacks its snapshot, "
          "when the next log has to begin", UNDONE, full_log_unhandled),
    Fault("restarted-voter", "exact order", "nodes that missed decisions lead, with the vote of one that has restarted "
          "since, and is not heard to tell what was decided", UNDONE, restarted_voter),
    Fault("stop-at-new-log", "exact order", "a node is stopped as it waits to begin a new log; its deliver-thread got "
          "no processor", "all active", stop_at_new_log),
    Fault("late-snapshot", "exact order", "a follower gets a snapshot late, and meanwhile hears of the next one, which "
          "has swallowed its message", UNDONE, late_snapshot),
    Fault("late-forward", "exact order", "a leader restarts in a new log, while a node still forwards a message that was "
          "decided in the log before", UNDONE, late_forward, is_durable=True),
    Fault("read-back-state", "exact order", "a leader begins a log of which nobody hears; another one begins the same "
          "log", UNDONE, read_back_state, is_durable=True),
    Fault("frozen-thread", "exact order", "one thread of the library stands still for up to 2 s, all others run",
          "it runs", frozen_thread),
]

"""What can be promised under which faults. Decided by what happened in the episode, not by its plan. The levels:

    none     no process was restarted
    single   restarts, one node at a time, the next only after the last had caught up
    several  several nodes were down or catching up together
    wiped    one node alone lost its files
"""

INFINITE = 1 << 62  # a time that never comes


def down_intervals(episode, node):
    """Returns (went down, had caught up) of each restart, and of a kill without a restart."""
    trace = episode.traces[node]
    found = []
    for life in range(1, len(trace.lives)):
        found.append((episode.life_ended(node, life - 1)[0], _caught_up(episode, node, episode.begins(node)[life])))
    cleanups = [moment for moment in trace.moments if moment.what == "cleanup-call"]
    starts = [moment for moment in trace.moments if moment.what == "start-call"]
    for cleanup in cleanups:
        start = next((moment for moment in starts if moment.life == cleanup.life and moment.t > cleanup.t), None)
        if start:
            found.append((cleanup.t, _caught_up(episode, node, start.t)))
    last_begin = episode.begins(node)[-1] if trace.lives else 0
    found += [(t, INFINITE) for t in episode.kills(node) if t >= last_begin]
    return found


def _caught_up(episode, node, t):
    """Returns when the node, started at t, had as many lines as any other had at t."""
    wanted = max((hook.lines for other, trace in episode.traces.items() if other != node
                  for hook in trace.hooks if hook.t <= t), default=0)
    own = [hook for hook in episode.traces[node].hooks if hook.t <= t and hook.kind != "damaged"]
    if own and own[-1].lines >= wanted:
        return t
    return next((hook.t for hook in episode.traces[node].hooks if hook.t > t and hook.lines >= wanted), INFINITE)


def fault_level(episode):
    if episode.events_of("wipe"):
        return "wiped"
    if not episode.has_traces:
        restarted = [node for node, log in episode.logs.items() if len(log.segments) > 1]
        return ("none", "single")[len(restarted)] if len(restarted) < 2 else "several"
    downs = sorted((interval, node) for node in episode.nodes for interval in down_intervals(episode, node))
    if not downs:
        return "none"
    latest = {}
    for (down, up), node in downs:
        if any(other != node and down < until for other, until in latest.items()):
            return "several"
        latest[node] = max(up, latest.get(node, 0))
    return "single"


def not_promised(episode, invariant):
    """Returns why the invariant is not promised under the episode's faults, or None."""
    level = episode.level
    if level == "wiped" and invariant not in ("I3", "L", "P"):
        return "a node lost its files alone"
    if level == "several" and invariant == "I6" and not episode.keeps_payloads:
        return "several nodes were down together, and payloads live in memory"
    return None

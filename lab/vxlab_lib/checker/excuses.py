"""The excuses for broken promises. Each function returns the proof that its excuse applies as text, or None."""

from bisect import bisect_left
from functools import wraps

from .promises import INFINITE


def needs_memory(excuse):
    """For an excuse that holds only if payloads and identifiers live in memory. With durable payloads it never does."""
    @wraps(excuse)
    def found(episode, *arguments):
        return None if episode.keeps_payloads else excuse(episode, *arguments)
    return found


@needs_memory
def hole(episode, hook):
    """The journal after this hook call lacks a payload that its node had skipped as lost."""
    return _told(hook.node, *episode.holes_before(hook)[-1]) if hook and episode.holes_before(hook) else None


@needs_memory
def open_hole(episode, t):
    """At time `t` some node's journal lacked a payload."""
    for node, trace in episode.traces.items():
        hooks = [hook for hook in trace.hooks if hook.t <= t]
        if hooks and (found := episode.holes_before(hooks[-1])):
            return _told(node, *found[-1])
    return None


def _told(node, life, before, hit):
    return (f"node {node} logged \"data lost - skipped (id={hit.number}/{hit.sender})\" in life {life + 1} after "
            f"{before} hook calls, and was given no full state since")


@needs_memory
def lost(episode, tag, makers, later):
    """A history lacks the payload of this tag. The nodes of the hook calls `makers`, which made the history, had
    skipped that payload or a snapshot that contains it. Or any node skipped the payload itself and others took its
    history over since; if that node delivered `later`, it skipped the payload before."""
    for maker in filter(None, makers):
        for life, before, hit in episode.holes_before(maker):
            if tag in episode.tags_of.get((hit.sender, hit.number), (tag,)):
                return _told(maker.node, life, before, hit)
    for node, trace in episode.traces.items():
        had_later = min(((hook.life, hook.index) for hook in trace.hooks if hook.kind == "deliver" and hook.tag == later),
                        default=(INFINITE, 0))
        for life, before, hit in episode.holes[node]:
            if tag in episode.tags_of.get((hit.sender, hit.number), ()) and (life, before) <= had_later:
                return f"node {node} logged \"data lost - skipped (id={hit.number}/{hit.sender})\" in life {life + 1}"
    return None


def crash_repeat(episode, items, before, crashed):
    """The last payload before a crash may be delivered once more, as a whole. `items` are those of this hook call.
    `crashed` says how the previous run crashed; it is None if it did not, or if this hook call is not the first of its
    run. `before` is (tag, attempt) of all items of the previous delivery."""
    keys = [(item.tag, item.attempt) for item in items]
    last = items[-1]
    state = episode.history.states.get((last.lines, last.hash))  # a kill may have left no trace of the delivery before
    is_last = (state and (state.tag, state.attempt) in keys) or before == keys
    is_whole = all(item.outcome == "doubled" for item in items)
    return f"the first delivery after {crashed}, and the last one before it" if crashed and is_last and is_whole else None


@needs_memory
def forgotten_decision(episode, hook):
    """A leader accepted a FORWARD of a message that was already decided, after the log that named it was replaced. The
    leader had missed that decision or had forgotten it in a restart."""
    key = (hook.tag, hook.attempt)
    first = min((other.t for trace in episode.traces.values() for other in trace.hooks
                 if (other.tag, other.attempt) == key), default=hook.t)
    replaced = next((other for trace in episode.traces.values() for other in trace.hooks
                     if other.kind == "adopt" and other.type == 0 and first < other.t <= hook.t), None)
    if replaced is None:
        return None
    origin = int(hook.tag.partition(".")[0])
    for node, trace in episode.traces.items():
        knows_since = [(other.life, other.index) for other in trace.hooks if (other.tag, other.attempt) == key]
        for hit, life, before in episode.hits_in_lives(node, "forward"):
            if hit.number != origin or not _stands_between(episode, trace, life, before, first, hook.t) or \
                    not _proposes_behind(episode, node, life, hit):
                continue
            known = [position for position in knows_since if position < (life, before)]
            if all(position < (life, _hooks_before_run(episode, node, life, hit)) for position in known):
                how = "a restart had made it forget" if known else "it had missed"
                return (f"node {node} accepted a FORWARD of node {origin} for what {how}; the log was replaced "
                        f"(full state on node {replaced.node})")
    return None


def _proposes_behind(episode, node, life, hit):
    """Whether the node proposed after this FORWARD. All nodes hear a FORWARD, but only a leader proposes."""
    segment, _ = episode.segments[node][life]
    return any(hit.offset < attempt.offset < segment.end for attempt in episode.logs[node].hits["attempt"])


def _hooks_before_run(episode, node, life, hit):
    """Returns the number of hook calls in that life before the run of the library that logged the line. A run knows
    only the log that it began with."""
    log = episode.logs[node]
    segment, missing = episode.segments[node][life]
    begins = [mark.offset for kind in ("active", "isolating") for mark in log.hits[kind]
              if segment.start <= mark.offset < hit.offset]
    return segment.hooks_before(max(begins)) + missing if begins else 0


def _stands_between(episode, trace, life, before, after_t, until_t):
    """Whether a log line after `before` hook calls of that life may have been written from after_t to until_t."""
    hooks = trace.hooks
    at = bisect_left(hooks, (life, before), key=lambda hook: (hook.life, hook.index))
    in_life = at > 0 and hooks[at - 1].life == life
    earliest = hooks[at - 1].entered if in_life else episode.begins(trace.node)[life]
    return earliest <= until_t and (at == len(hooks) or hooks[at].t >= after_t)


@needs_memory
def two_states(episode, number, near_t):
    """Two leaders made a snapshot for the same decision, so the decided logs may differ in their first entry."""
    makers = [node for node in episode.nodes if any(hit.number == number for hit in episode.hits(node, "full"))]
    if len(makers) > 1:
        return f"nodes {makers} both logged \"PROPOSE full state (batch_id={number})\""
    masters = [event for event in episode.events_of("master") if near_t is not None and event["t"] <= near_t + SECOND]
    recent = [event for event in masters if event["t"] >= near_t - SECOND] + masters[-1:]
    leaders = sorted({node for event in recent for node in event["nodes"]})
    if len(leaders) > 1:
        return f"nodes {leaders} were MASTER in that second"
    return None


SECOND = 10**9


@needs_memory
def carried_tail(episode, number, counts):
    """A leader had skipped the tail of its log as lost and carried it into the new one."""
    for node in episode.nodes:
        for full in episode.hits(node, "full"):
            if full.number not in {number - count + 1 + carried for count in counts for carried in (0, 1, 2, 3)}:
                continue
            began = max((other.offset for other in episode.hits(node, "full") if other.number < full.number), default=0)
            lost = [hit for hit in episode.hits(node, "lost") if began < hit.offset < full.offset]
            if lost:
                return (f"node {node} logged \"data lost - skipped (id={lost[-1].number}/{lost[-1].sender})\" before "
                        f"it proposed the full state {full.number}")
    return None

"""What happens to a node over time. All times are of one clock."""

from .timeline import Lane, Mark, Span, runs, thin

MARKS_MAX = 150


def gaps(lives, end):
    """Returns the times between and after the lives of a node's processes."""
    found = []
    for (_, gone), (back, _) in zip(lives, [*lives[1:], (end, end)]):
        if gone < back:
            found.append((gone, back))
    return found


def mastership(node, masters, end):
    """`masters`: (t, nodes that are MASTER from then on)."""
    return runs([(t, "master" if node in nodes else None) for t, nodes in masters], end)


def cut_kind(node, nodes, pairs):
    """Returns alone if cuts leave the node less than a majority to talk with, part if there are others, or None.
    `pairs`: (from, to)."""
    deaf = {source if target == node else target for source, target in pairs if node in (source, target)}
    if not deaf:
        return None
    return "alone" if len(nodes) - len(deaf) <= len(nodes) // 2 else "part"


def cut_off(node, nodes, cuts, end):
    """`cuts`: (t, pairs that are cut from then on)."""
    found = []
    for start, until, pairs in runs([(t, tuple(map(tuple, pairs)) or None) for t, pairs in cuts], end):
        kind = cut_kind(node, nodes, pairs)
        others = sorted(f"{source} to {target}" for source, target in pairs if node in (source, target))
        if kind:
            found.append((start, until, kind, ", ".join(others)))
    return found


def roll_over_times(logs):
    """`logs`: (t, what names the node's log), None for no log. Returns when it became another one."""
    known = [(t, first) for t, first in logs if first]
    return [t for (_, before), (t, first) in zip(known, known[1:]) if first != before]


def make_lane(node, end, lives=(), stops=(), pauses=(), masters=(), cuts=(), nodes=(), logs=(), isolations=()):
    """`lives` and `pauses`: (start, end); `stops`: (start, end, kind); the others as above."""
    spans = [Span("up", *life) for life in lives]
    spans += [Span(kind, start, until) for start, until, kind in stops]
    spans += [Span("frozen", start, min(until, end)) for start, until in pauses]
    spans += [Span("down", *gap) for gap in gaps(list(lives), end)]
    spans += [Span(kind, start, until, text) for start, until, kind, text in cut_off(node, nodes, list(cuts), end)]
    spans += [Span(kind, start, until) for start, until, kind in mastership(node, list(masters), end)]
    marks = [Mark("roll-over", t) for t in thin(roll_over_times(logs), MARKS_MAX)]
    marks += [Mark("isolation", t) for t in thin(list(isolations), MARKS_MAX)]
    return Lane(node, spans, marks)


def moved(lane, origin, scale):
    """Turns all times of the lane into seconds since `origin`, of which `scale` make one; none is negative."""
    def seconds(t):
        return max(0.0, (t - origin) / scale)

    for span in lane.spans:
        span.start, span.end = seconds(span.start), seconds(span.end)
    for mark in lane.marks:
        mark.t = seconds(mark.t)
    lane.spans = [span for span in lane.spans if span.end > span.start]
    return lane

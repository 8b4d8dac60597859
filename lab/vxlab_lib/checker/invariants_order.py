"""I1 to I5: which lines the journals contain, and in which order."""

import itertools
from zlib import crc32

from .evidence import INFINITE, Moment

FINDINGS_MAX = 20  # of one kind; more of them show nothing new


def agreement(episode, check):
    history = episode.history
    check.saw("states of journals", history.observations)
    for node, why in episode.damaged.items():
        check.violated(f"the journal cannot be read: {why}", node=node)
    for node, line, text in history.faults[:FINDINGS_MAX]:
        check.violated(text, node=node, tag=line.tag, line=line.number)
    forks = history.forks()
    for group in forks[:FINDINGS_MAX]:
        _tell_fork(episode, check, group, is_first=group is forks[0])
    if forks:
        _common_order(episode, check)


def _first_seen(state):
    hook = state.maker or state.seen
    return hook.t if hook else INFINITE


def _tell_fork(episode, check, group, is_first):
    """One of the histories that part at this point is taken for the right one: that which was seen first."""
    trunk, *others = sorted(group, key=_first_seen)
    for state in others:
        hook = state.maker or state.seen
        if hook is state.seen and state.parent is None and state.maker is None and not is_first:
            continue  # reached by a snapshot only; where its history parts is reported already
        where = episode.where(hook) if hook else {}
        check.violated(f"line {state.lines} is {state.tag} with hash {state.hash}, elsewhere {trunk.tag} with "
                       f"{trunk.hash}", **{**where, "tag": state.tag, "line": state.lines})


def _common_order(episode, check):
    """Even if lines are missing, those that two histories share are in the same order in both. A line of another attempt
    is a different message and not compared."""
    for first, second in itertools.combinations(episode.chains, 2):
        place = {state.tag: (state.lines, _attempt(state)) for state in first}
        last = None
        for state in second:
            here, attempt = place.get(state.tag, (None, None))
            if here is None or attempt != _attempt(state):
                continue
            if last is not None and here < last[0]:
                where = episode.where(state.maker) if state.maker else {"tag": state.tag, "line": state.lines}
                check.violated(f"{state.tag} stands behind {last[1]} here, before it in another history", **where)
                break
            last = (here, state.tag)


def _attempt(state):
    return state.maker.attempt if state.maker else None


def nothing_twice(episode, check):
    for node, journal in episode.journals.items():
        tags = set()
        for line in journal.lines:
            if line.tag in tags:
                check.violated("stands twice in the journal", node=node, tag=line.tag, line=line.number)
            tags.add(line.tag)
        if not episode.has_traces:
            check.saw("lines of journals", len(journal.lines))
    for node, trace in episode.traces.items():
        _nothing_twice_on(episode, check, node, trace)


def _nothing_twice_on(episode, check, node, trace):
    store = _Store()
    crashed, is_first, before, began = None, False, None, 0
    for event in trace.order:
        what = event.what if isinstance(event, Moment) else None
        if what == "begin" and event.life > 0:
            if episode.life_ended(node, event.life - 1)[1]:
                crashed, is_first = "a kill", True
        elif what == "start-call":  # not at "isolated", which the host may note only after a stop
            if episode.logs[node].count("undelivered", began, event.t):
                crashed, is_first = "a failed save of paxos_deliver", True
            began = event.t
        if what:
            store.told(event)
            continue
        items = trace.deliveries.get((event.life, event.index), [event])
        if event is not items[0]:
            continue
        if event.kind != "damaged":
            store.has(event.lines)
        if event.kind == "deliver":
            for item in store.twice(items, check):
                proof = _crash_repeat(episode, items, before, is_first and crashed)
                text = f"delivered twice on node {node}, attempt {item.attempt}, {item.outcome}"
                if proof:
                    check.excuse("repeated after a crash", proof, text, **episode.where(item))
                else:
                    check.violated(text, **episode.where(item))
            before = [(item.tag, item.attempt) for item in items]
        is_first = False


def _crash_repeat(episode, items, before, crashed):
    """The last payload before a crash may be delivered once more, as a whole. `items` are those of this hook call.
    `crashed` says how the previous run crashed; it is None if it did not, or if this hook call is not the first of its
    run. `before` is (tag, attempt) of all items of the previous delivery. Returns the proof as text, or None."""
    keys = [(item.tag, item.attempt) for item in items]
    last = items[-1]
    state = episode.history.states.get((last.lines, last.hash))  # a kill may have left no trace of the delivery before
    is_last = (state and (state.tag, state.attempt) in keys) or before == keys
    is_whole = all(item.outcome == "doubled" for item in items)
    return f"the first delivery after {crashed}, and the last one before it" if crashed and is_last and is_whole else None


class _Store:
    """What one node has been given, and may be given again to be compared with what it has."""

    def __init__(self):
        self._seen, self._applied = set(), set()
        self._lines = 0
        self._compares = False

    def told(self, moment):
        if moment.what == "begin":
            self._compares = False
        elif moment.what == "rejoin" or moment.what == "adopted" and moment.value in ("kept", "extended"):
            self._compares = True
        elif moment.what == "adopted":
            self._forget()

    def has(self, lines):
        if lines < self._lines:  # another store took its place
            self._forget()
        self._lines = lines

    def _forget(self):
        self._seen, self._applied, self._compares = set(), set(), False

    def twice(self, items, check):
        """Returns the items of a hook call that were delivered before without need."""
        check.saw("deliveries", len(items))
        check.saw("repeated under another attempt", sum(item.outcome == "repeated" for item in items))
        is_again = all(item.outcome == "doubled" for item in items)
        self._compares = self._compares and is_again
        if self._compares:
            check.saw("compared with the store", len(items))
            return []
        found = [item for item in items if item.outcome == "doubled" or (item.tag, item.attempt) in self._seen or
                 item.outcome == "applied" and item.tag in self._applied]
        self._seen.update((item.tag, item.attempt) for item in items)
        self._applied.update(item.tag for item in items if item.outcome == "applied")
        return found


def integrity(episode, check):
    for node, why in episode.damaged.items():
        check.violated(f"the journal cannot be read: {why}", node=node)
    if episode.has_traces:
        for node, trace in episode.traces.items():
            _submitted(episode, check, trace)
            _whole_states(episode, check, trace)
        _journal_tags(episode, check)
    _texts(episode, check)


def _submitted(episode, check, trace):
    for hook in trace.hooks:
        if hook.kind == "damaged":
            check.violated(f"a payload of {hook.size} bytes, type {hook.type}, was delivered damaged",
                           **{**episode.where(hook), "line": None})
        if hook.kind != "deliver":
            continue
        check.saw("deliveries")
        call = episode.calls.get((hook.tag, hook.attempt))
        if call is None:
            check.violated(f"delivered, but never submitted (attempt {hook.attempt})", **episode.where(hook))
        elif call.called > hook.t:
            check.violated("delivered before it was submitted", **episode.where(hook))


def _journal_tags(episode, check):
    """Lines that came with a snapshot were submitted too."""
    for node, journal in episode.journals.items():
        check.saw("lines of journals", len(journal.lines))
        for line in journal.lines:
            if (line.tag, line.attempt) not in episode.calls:
                check.violated("stands in the journal, but was never submitted", node=node, tag=line.tag,
                               line=line.number)


def _whole_states(episode, check, trace):
    """A snapshot is delivered in four calls, types 0 to 3 in order. Only a kill ends it early."""
    expected = 0
    for event in trace.order:
        if isinstance(event, Moment):
            if event.what == "begin":
                expected = 0
            continue
        state_type = event.type if event.kind in ("adopt", "damaged") and (event.kind == "adopt" or expected) else None
        if expected and state_type != expected:
            check.violated(f"a full state was not delivered whole: after type {expected - 1} came "
                           f"{event.kind} {event.type}", **{**episode.where(event), "line": event.lines or None})
            expected = 0
        elif state_type is not None:
            if state_type == 0:
                check.saw("full states")
            if not expected and state_type != 0:
                check.violated(f"a full state began with type {state_type}", **episode.where(event))
                continue
            expected = (state_type + 1) % 4


def _texts(episode, check):
    """The journals contain acknowledged lines as they were submitted, if a list of their checksums is given."""
    for node, journal in episode.journals.items():
        for line in journal.lines:
            wanted = episode.acknowledged.get(line.tag)
            if wanted is not None:
                check.saw("texts of acknowledged lines")
                if crc32(line.text) != wanted:
                    check.violated("has another text than was submitted", node=node, tag=line.tag, line=line.number)


def _inversions(chain, span_of):
    """Yields pairs (x, y) of the chain where y precedes x although x had ended before y was called. `span_of` returns
    (called, ended) of a state, or None."""
    earliest, of = INFINITE, None
    for state in reversed(chain):
        span = span_of(state)
        if span is None:
            continue
        if earliest < span[0]:
            yield of, state
        if span[1] < earliest:
            earliest, of = span[1], state


def own_order(episode, check):
    ends = {}

    def span_of(state):
        call = episode.calls.get((state.tag, state.attempt))
        if call is None:
            return None
        if call.returned is not None:
            return call.called, call.returned
        key = (call.node, call.life)
        if key not in ends:
            is_last = call.life == len(episode.traces[call.node].lives) - 1
            ends[key] = INFINITE if is_last else episode.begins(call.node)[call.life + 1]
        return call.called, ends[key]

    for chain in episode.chains:
        by_origin = {}
        for state in chain:
            by_origin.setdefault(state.tag.partition(".")[0], []).append(state)
        if episode.has_traces:
            check.saw("lines", len(chain))
        for states in by_origin.values():
            for x, y in list(_inversions(states, span_of))[:FINDINGS_MAX]:
                where = episode.where(x.maker) if x.maker else {"tag": x.tag, "line": x.lines}
                check.violated(f"stands behind {y.tag}, which was called after it had ended", **where)


def real_time(episode, check):
    acknowledged = {}
    for call in episode.calls.values():
        if call.result == 0:
            acknowledged[call.tag] = min(call.returned, acknowledged.get(call.tag, INFINITE))

    def span_of(state):
        call = episode.calls.get((state.tag, state.attempt))
        return call and (call.called, acknowledged.get(state.tag, INFINITE))

    for chain in episode.chains:
        if episode.has_traces:
            check.saw("lines", len(chain))
        for x, y in list(_inversions(chain, span_of))[:FINDINGS_MAX]:
            where = episode.where(x.maker) if x.maker else {"tag": x.tag, "line": x.lines}
            check.violated(f"was acknowledged before {y.tag} was called, and stands behind it", **where)

"""I9 to I12: healing, waiting, silence, the log."""

from bisect import bisect_left

from .evidence import INFINITE, Moment

SECOND = 10**9
CONVERGE_S = 30
CALL_S = 60
STOP_S = 5
SEND_GRACE_NS = SECOND  # for datagrams under way when stop returned
SAMPLE_GRACE_NS = SECOND // 2  # a sample takes some time
FIGURES_AGE_NS = 2 * SECOND  # a sample's figures on threads may be this old
FRESH_GRACE_NS = 5 * SECOND  # from a verdict to its line in the trace, on a busy machine
THREADS = ("propose-thread", "launch-thread", "leader-watch-thread", "pull-thread", "deliver-thread",
           "payload-file-thread")
TASKS = [name[:15] for name in THREADS]  # as the kernel keeps them


def healing(episode, check):
    if episode.is_at_rest:
        _equal_ends(episode, check)
        return
    if episode.heal_t is None:
        check.note("no faults were ended in this episode")
        return
    check.saw("ends of faults")
    equals = episode.events_of("equal")
    where = {"t": episode.end_t or None}
    for event in episode.events_of("not-healed"):
        check.violated(f"the cluster did not heal: {event.get('error')}", t=event["t"])
    if not equals:
        check.violated("the journals never became equal after the faults", **where)
        return
    masters = episode.events_of("master")
    if masters and len(masters[-1]["nodes"]) != 1:
        check.note(f"MASTER at the end: {masters[-1]['nodes']}")
    if equals[0].get("after_s", 0) > CONVERGE_S:
        check.violated(f"the journals became equal only after {equals[0]['after_s']:.1f} s",
                       **{**where, "t": equals[0]["t"]})
    _equal_ends(episode, check)
    for event in episode.events_of("fresh"):
        check.saw("fresh messages")
        if not event.get("tag"):
            continue
        for node, journal in episode.journals.items():
            if journal.base == 0 and not any(line.tag == event["tag"] for line in journal.lines):
                check.violated(f"the fresh message of node {event['node']} is not in the journal of node {node}",
                               node=node, tag=event["tag"], **where)


def _equal_ends(episode, check):
    ends = episode.history.finals
    check.saw("ends of journals", len(ends))
    main = episode.history.main()
    for node, end in ends.items():
        if end != main:
            check.violated(f"node {node} ends with {end[0]} lines, hash {end[1]}; most with {main[0]}, {main[1]}",
                           node=node, line=end[0], t=episode.end_t or None)


def liveness(episode, check):
    for node, trace in episode.traces.items():
        _lifecycle_calls(episode, check, node, trace)
        if episode.heal_t is not None:
            _open_calls(episode, check, node, trace)


def _open_calls(episode, check, node, trace):
    heal = episode.heal_t
    fresh = min((event["t"] for event in episode.events_of("fresh", node=node) if event["t"] > heal), default=INFINITE)
    for call in trace.calls:
        ended, killed = episode.life_ended(node, call.life)
        returned = call.returned or INFINITE
        if call.called > heal or returned < heal or (killed and ended < heal):
            continue
        check.saw("calls open at the end of faults")
        limit = min(heal + CALL_S * SECOND, fresh + FRESH_GRACE_NS)
        where = {"t": min(limit, returned), "node": node, "tag": call.tag, "batch": episode.batch_at(node, heal)}
        if returned > limit and limit < min(ended, episode.end_t):
            late = "had not returned" if returned == INFINITE else "returned"
            why = f"{CALL_S} s after the faults" if limit < fresh else "although a later one of that node was delivered"
            check.violated(f"a call that was open {late} {why}", **where)
        elif returned == INFINITE:
            check.note(f"node {node}: the episode ended before an open call had its time")
        elif call.result != 0 and not _may_fail(trace, call):
            check.violated("a call that was open when the faults ended got -1, without a jump, a stop or an isolation",
                           **where)


def _may_fail(trace, call):
    if any(moment.what == "isolated" and moment.life == call.life and moment.t > call.called
           for moment in trace.moments):
        return True  # the host may note an isolation only after the call has failed
    return any(call.called <= event.t and _start_of(event) <= call.returned + SECOND and event.life == call.life
               for event in trace.order
               if (event.what in ("stop-call", "cleanup-call") if isinstance(event, Moment) else event.kind == "adopt")
               ) or _jumped(trace, call)


def _start_of(event):
    return getattr(event, "entered", event.t)


def _jumped(trace, call):
    """Whether a snapshot was delivered next. The call gets its verdict when the node adopts a log, which may be before
    the delivery of that log's snapshot."""
    following = [hook for hook in trace.hooks if hook.life == call.life and hook.t >= call.returned]
    return bool(following) and following[0].kind == "adopt"


def _lifecycle_calls(episode, check, node, trace):
    pauses = episode.pauses(node)
    for index, moment in enumerate(trace.moments):
        if moment.what not in ("stop-call", "cleanup-call"):
            continue
        name = moment.what.partition("-")[0]
        end = next((later for later in trace.moments[index + 1:]
                    if later.life == moment.life and later.what == f"{name}-return"), None)
        until = end.t if end else episode.life_ended(node, moment.life)[0]
        check.saw(f"{name} calls")
        longest = max((hook.t - hook.entered for hook in trace.hooks if hook.entered < until and hook.t > moment.t),
                      default=0)
        took = until - moment.t - sum(max(0, min(until, b) - max(moment.t, a)) for a, b in pauses)
        if took > STOP_S * SECOND + longest:
            check.violated(f"{name} took {took / SECOND:.1f} s{'' if end else ' and had not returned'}; the longest "
                           f"hook meanwhile took {longest / SECOND:.1f} s", t=moment.t, node=node)


def silence(episode, check):
    sends = {node: [] for node in episode.nodes}
    for t, node, channel in episode.sends:
        sends.setdefault(node, []).append((t, channel))
    for node, trace in episode.traces.items():
        for life, start, stop_call, stopped, until in episode.spans(node):
            if stopped is not None:
                check.saw("stops")
                _after_stop(check, node, trace, sends[node], stopped, until)
            _threads(episode, check, node, start, stop_call, stopped, until)
        for moment in trace.moments:
            if moment.what == "stop-return" and moment.value not in ("", "0"):
                check.violated(f"{moment.value} messages still repeated when stop had returned", t=moment.t, node=node)
    if not _names_threads(episode):
        check.note("the library's threads: no task in the samples carries their names")


def _after_stop(check, node, trace, sends, stopped, until):
    hooks = trace.hooks
    at = bisect_left(hooks, stopped, key=lambda hook: hook.t)
    for hook in hooks[at:]:
        if hook.t >= until:
            break
        check.violated("delivered after stop had returned", t=hook.t, node=node, tag=hook.tag, line=hook.lines or None)
    at = bisect_left(sends, (stopped + SEND_GRACE_NS, 0))
    if at < len(sends) and sends[at][0] < until:
        check.violated(f"sent on channel {sends[at][1]} after stop had returned", t=sends[at][0], node=node)
    if sends:
        check.saw("sends of stopped nodes looked for")


def _names_threads(episode):
    return any("-thread" in name for samples in episode.samples.values() for sample in samples[:50]
               for name in sample.get("tasks") or {})


def _threads(episode, check, node, start, stop_call, stopped, until):
    samples = episode.samples[node] if _names_threads(episode) else []
    has_isolated = bool(episode.logs[node].hits["isolating"])  # then the time at which the threads end is unknown
    for sample in samples[bisect_left(samples, start, key=lambda sample: sample["t"]):]:
        t, tasks = sample["t"], sample.get("tasks")
        if t >= until:
            break
        if not tasks:
            continue
        is_active = not has_isolated and start + FIGURES_AGE_NS < t < stop_call - SAMPLE_GRACE_NS
        is_stopped = stopped is not None and stopped + FIGURES_AGE_NS < t < until - SAMPLE_GRACE_NS
        if not is_active and not is_stopped:
            continue
        check.saw("samples of threads")
        wrong = [name for name in TASKS if tasks.get(name, 0) != is_active]
        if wrong:
            state = "while active" if is_active else "after stop"
            check.violated(f"threads {state}: " + ", ".join(f"{tasks.get(name, 0)} {name}" for name in wrong), t=t,
                           node=node, batch=sample.get("batch"))
            return


def log_lines(episode, check):
    for node, log in episode.logs.items():
        if log.size:
            check.saw("bytes of log", log.size)
        for kind, text in (("hashed", "already hashed. This should never happen!"),
                           ("corrupted", "corrupted message set"), ("lost", "data lost - skipped"), ("diverged", "DIVERGED")):
            if log.hits[kind]:
                check.violated(f"logged \"{text}\", {len(log.hits[kind])} times", node=node, t=log.hits[kind][0].t)
        if log.hits["isolating"]:
            check.note(f"node {node}: {len(log.hits['isolating'])} x \"Isolating\"")

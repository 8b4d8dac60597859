"""Evidence -> timeline. Judges nothing."""

from statistics import median

from .fault_spans import fault_rows
from .lanes import make_lane, moved
from .timeline import Submission, Timeline, Violation, slowest, steps_only, thin

SECOND = 10**9
POINTS_MAX = 240  # of a line in a plot
SLOW_MAX = 100
FAULT_SPANS_MAX = 150  # of one fault
VIOLATIONS_MAX = 50
MEBIBYTE_KB = 1024


def last_moment(episode):
    ends = [t for trace in episode.traces.values() for t in trace.last_t]
    return max(ends + [event["t"] for event in episode.events], default=episode.end_t)


def observe(episode, result):
    """Returns the Timeline of an Episode of the checker and its Result."""
    end = last_moment(episode)

    def seconds(t):
        return max(0.0, (t - episode.started) / SECOND)

    calls = [submission(episode, call, end, seconds) for trace in episode.traces.values() for call in trace.calls]
    acknowledged = [one.ms for one in calls if one.outcome == "acknowledged"]
    return Timeline(
        end=seconds(end),
        lanes=[moved(node_lane(episode, node, end), episode.started, SECOND) for node in episode.nodes],
        faults=faults_of(episode, end, seconds),
        decisions=series(episode, seconds, lambda sample: sample.get("batch"), steps_only),
        memory=series(episode, seconds, resident_mib, thin),
        submissions=len(calls),
        usual_ms=median(acknowledged) if acknowledged else None,
        slow=slowest(calls, SLOW_MAX),
        faults_end=None if episode.heal_t is None else seconds(episode.heal_t),
        violations=[Violation(number, seconds(finding.t), finding.node, f"{finding.invariant}: {finding.text}")
                    for number, finding in enumerate(result.violations[:VIOLATIONS_MAX], 1) if finding.t is not None])


def node_lane(episode, node, end):
    isolations = [moment.t for moment in episode.traces[node].moments if moment.what == "isolated"]
    lives = [(begun, min(end, episode.life_ended(node, life)[0])) for life, begun in enumerate(episode.begins(node))]
    return make_lane(
        node, end, lives=lives, nodes=episode.nodes, isolations=isolations, pauses=episode.pauses(node),
        stops=[(stop, min(end, until), "isolated" if stop in isolations else "stopped")
               for _, _, stop, _, until in episode.spans(node) if stop < min(end, until)],
        masters=[(event["t"], event["nodes"]) for event in episode.events_of("master")],
        cuts=[(event["t"], event.get("pairs", [])) for event in episode.events_of("cut", "heal")],
        logs=[(sample["t"], sample.get("first")) for sample in episode.samples[node]])


def faults_of(episode, end, seconds):
    faults_end = end if episode.heal_t is None else episode.heal_t
    rows = fault_rows(episode.run.get("faults", []), episode.events, faults_end)
    for row in rows:
        row.spans = thin(row.spans, FAULT_SPANS_MAX)
        for span in row.spans:
            span.start, span.end = seconds(span.start), seconds(span.end)
    return rows


def resident_mib(sample):
    return sample["rss_kb"] / MEBIBYTE_KB if sample.get("rss_kb") else None


def series(episode, seconds, value, reduce):
    """Returns node -> [(t, value)] from the samples that have one."""
    found = {}
    for node, samples in episode.samples.items():
        points = [(seconds(sample["t"]), value(sample)) for sample in samples if value(sample) is not None]
        found[node] = reduce(points, POINTS_MAX)
    return found


def submission(episode, call, end, seconds):
    ended = call.returned or min(end, episode.life_ended(call.node, call.life)[0])
    outcome = "open" if call.returned is None else "acknowledged" if call.result == 0 else "failed"
    return Submission(seconds(ended), max(0.0, (ended - call.called) / 1e6), call.node, outcome)

"""I13 and P: the resources that the processes use, and how they end."""

from signal import SIGKILL
from statistics import median

from .evidence import INFINITE, CouldNotRun, first_existing, read_bytes

SECOND = 10**9
ROLL_OVERS_LONG = 50
RSS_GROWTH_KB = 16 * 1024
STEADY_RSS_GROWTH_KB = 2 * 1024
DESCRIPTOR_GROWTH = 8
JOURNAL_COPIES = 4
QUIET_ATTEMPTS_PER_S = 5
QUIET_CPU_SHARE = 0.5
SANITIZERS = (b"ERROR: AddressSanitizer", b"WARNING: ThreadSanitizer", b"ERROR: LeakSanitizer", b"runtime error: ")


def bounded(episode, check):
    for node, samples in episode.samples.items():
        lives = {}
        for sample in samples:
            if sample.get("pid") is not None:
                lives.setdefault(sample["pid"], []).append(sample)
        for life in lives.values():
            _flat(episode, check, node, life)
    for start, end in _quorumless(episode):
        for node in episode.nodes:
            _idle(episode, check, node, start + SECOND, end)
    for node, start, end in _alone(episode):
        _idle(episode, check, node, start + SECOND, end)


def _roll_overs(samples):
    firsts = [sample.get("first") for sample in samples if sample.get("first")]
    return sum(1 for before, after in zip(firsts, firsts[1:]) if before != after)


def _flat(episode, check, node, samples):
    if _roll_overs(samples) < ROLL_OVERS_LONG:
        return
    check.saw("long lives of processes")
    is_steady = episode.run.get("options", {}).get("is_steady")
    part = max(1, len(samples) // (3 if is_steady else 10))  # in the first third of a steady life caches still fill
    early, late = samples[part:2 * part], samples[-part:]
    where = {"t": samples[-1]["t"], "node": node}
    # Not a leak: the journal in memory, and whole copies of it: the log's snapshot, the next one while it is made, and
    # one in transfer. A payload whose call was given up also stays until cleanup.
    kept = sum(len(line.text) + 200 for line in episode.journals[node].lines) // 1024
    left = sum(call.size for trace in episode.traces.values() for call in trace.calls if call.result != 0) // 1024
    rss_growth_kb = STEADY_RSS_GROWTH_KB if is_steady else RSS_GROWTH_KB + JOURNAL_COPIES * kept + left
    for name, allowed in (("rss_kb", rss_growth_kb), ("fds", DESCRIPTOR_GROWTH),
                          ("tmp", INFINITE if episode.events_of("disk") else 2)):
        before = [sample[name] for sample in early if sample.get(name) is not None]
        after = [sample[name] for sample in late if sample.get(name) is not None]
        if before and after and median(after) - median(before) > allowed:
            check.violated(f"{name} grew from {median(before):.0f} to {median(after):.0f}", **where)


def _quorumless(episode):
    """Returns the times in which less than a majority of the processes ran and were not stopped."""
    ups, found, since = {node: False for node in episode.nodes}, [], None
    known = episode.events_of("spawn", "kill", "exit", "term", "pause", "cont")
    if not any(event["what"] == "spawn" for event in known):
        return []
    has_run = False
    for event in known:
        ups[event["node"]] = event["what"] in ("spawn", "cont")
        is_quorum = sum(ups.values()) > len(ups) // 2
        has_run = has_run or is_quorum
        if has_run and not is_quorum and since is None:
            since = event["t"]
        elif is_quorum and since is not None:
            found.append((since, event["t"]))
            since = None
    return [span for span in found if span[1] - span[0] > 3 * SECOND]


def _alone(episode):
    """(node, start, end) of the times in which cuts left a node hearing less than a majority, itself included."""
    since = {}
    for event in episode.events_of("cut", "heal"):  # heal ends all cuts
        for node in episode.nodes:
            deaf_to = {source for source, target in event.get("pairs", []) if target == node}
            is_alone = len(episode.nodes) - len(deaf_to) <= len(episode.nodes) // 2
            if is_alone:
                since.setdefault(node, event["t"])
            elif node in since and event["t"] - since[node] > 3 * SECOND:
                yield node, since.pop(node), event["t"]
            else:
                since.pop(node, None)


def _idle(episode, check, node, start, end):
    samples = [sample for sample in episode.samples.get(node, [])
               if start < sample["t"] < end and sample.get("cpu_ms") is not None]
    seconds = (end - start) / SECOND
    if len(samples) > 1 and samples[0].get("pid") == samples[-1].get("pid"):
        check.saw("times without a quorum")
        share = (samples[-1]["cpu_ms"] - samples[0]["cpu_ms"]) * 1e6 / (samples[-1]["t"] - samples[0]["t"])
        if samples[-1]["t"] - samples[0]["t"] > 2 * SECOND and share > QUIET_CPU_SHARE:
            check.violated(f"used {share:.0%} of a core without a quorum", t=start, node=node)
    attempts = episode.logs[node].count("attempt", start, end)
    if attempts > QUIET_ATTEMPTS_PER_S * (seconds + 1):
        check.violated(f"{attempts} attempts to decide in {seconds:.0f} s without a quorum", t=start, node=node)


def processes(episode, check):
    """No process ends by itself, with an error, or with a report of a sanitizer."""
    check.saw("processes", len(episode.events_of("spawn")))
    asked = {event.get("pid") for event in episode.events_of("term", "kill")} - {None}
    for event in episode.events_of("exit", "terminated"):
        node, t, code = event["node"], event["t"], event.get("code")
        if event["what"] == "exit" and event.get("pid") in asked and code in (None, 0, -SIGKILL) or \
                event["what"] == "terminated" and code == 0:
            continue
        text = f"the process ended with {code}" + (", by itself" if event["what"] == "exit" else " when told to end")
        if code is not None and code > 0 and any(event["t"] <= t for event in episode.events_of("disk", node=node)):
            check.excuse("a failing disk", "a disk fault was made on that node", text, t=t, node=node)
        else:
            check.violated(text, t=t, node=node)
    for node, files in episode.files.items():
        printed = read_bytes(first_existing(files.path("stderr"), files.path("output.log")))
        if b"cannot be preloaded" in printed:
            raise CouldNotRun(f"node {node} ran without a library that was meant for it: see its stderr")
        if word := sanitizer_word(printed):
            check.violated(f"printed \"{word}\"", node=node)


def sanitizer_word(printed):
    """Returns a sanitizer's report in a process's output, or None."""
    return next((word.decode() for word in SANITIZERS if word in printed), None)

"""I6 to I8: acknowledged lines, the library's files and the decisions."""

import os
import re
from bisect import bisect_right

from ..decisions import ENTRY, decode_decided
from .evidence import read_bytes
from .invariants_order import FINDINGS_MAX

SYNCED_NS = 2 * 10**9  # a write this old has been synced
SIZES = {"msg_id": 4, "paxos_decide": 1258, "paxos_deliver": 5}


def acknowledged_stays(episode, check):
    chains = [_Chain(states) for states in episode.chains]
    returned = {}
    for call in episode.calls.values():
        if call.result == 0 and call.tag not in episode.no_ops and (call.tag not in returned or call.returned < returned[call.tag].returned):
            returned[call.tag] = call
    check.saw("acknowledged lines", len(returned) or len(episode.acknowledged))
    _own_journal_has_it(episode, check, chains, returned)
    for this in chains:
        for other in chains:
            if this is not other:
                _later_means_this(episode, check, this, other, returned)
    _in_every_end(episode, check, chains, returned or dict.fromkeys(episode.acknowledged))
    if episode.run.get("options", {}).get("keeps_lines"):
        for node, journal in episode.journals.items():
            if journal.base:
                check.violated(f"lines up to {journal.base} are not in the journal, and none may be missing", node=node,
                               t=episode.end_t or None)


class _Chain:
    def __init__(self, states):
        self.states = states
        self.place = {state.tag: index for index, state in enumerate(states)}
        self.keys = {state.key: index for index, state in enumerate(states)}
        self.hidden = states[0].lines - 1 if states else 0  # lines before the first known one

    def parts_at(self, other):
        """Returns the index of the first state that the other history does not have."""
        low, high = 0, len(self.states)
        while low < high:
            middle = (low + high) // 2
            if self.states[middle].key in other.keys:
                low = middle + 1
            else:
                high = middle
        return low


def _own_journal_has_it(episode, check, chains, returned):
    """When a call returned 0, its node's journal had the line."""
    for node, trace in episode.traces.items():
        hooks = [hook for hook in trace.hooks if hook.kind != "damaged"]
        at = -1
        for call in sorted((call for call in returned.values() if call.node == node), key=lambda call: call.returned):
            # A hook call writes its line before it returns, so before the call that waited for it returns.
            while at + 1 < len(hooks) and hooks[at + 1].t <= call.returned:
                at += 1
            if at < 0 or not _holds(chains, (hooks[at].lines, hooks[at].hash), call.tag):
                check.violated(f"node {node} acknowledged it, and its journal did not have it", t=call.returned,
                               node=node, tag=call.tag, batch=episode.batch_at(node, call.returned))


def _holds(chains, key, tag):
    chain = next((chain for chain in chains if key in chain.keys), None)
    return chain is None or chain.hidden > 0 or chain.place.get(tag, len(chain.states)) <= chain.keys[key]


def _later_means_this(episode, check, this, other, returned):
    """If the `other` history has a line of `this`, it also has every earlier acknowledged line of `this`."""
    start = this.parts_at(other)
    shared = [index for index, state in enumerate(this.states[start:], start) if state.tag in other.place]
    if not shared:
        return
    missing = [index for index, state in enumerate(this.states[start:max(shared)], start)
               if state.tag in returned and state.tag not in other.place]
    for index in missing[:FINDINGS_MAX]:
        later = this.states[shared[bisect_right(shared, index)]].tag
        _tell_missing(episode, check, this.states[index], this, other,
                      f"is not in a history that has {later}, which came later")


def _tell_missing(episode, check, state, this, other, text):
    index = other.parts_at(this)
    maker = other.states[index].maker if index < len(other.states) else None
    where = episode.where(maker or state.maker) if maker or state.maker else {}
    where.update(tag=state.tag, line=state.lines)
    check.violated("acknowledged, " + text, **where)


def _in_every_end(episode, check, chains, wanted):
    if episode.has_traces and not episode.events_of("equal"):
        check.note("the journals' ends: the nodes never became equal after the faults")
        return
    for node, key in episode.history.finals.items():
        chain = next((chain for chain in chains if key in chain.keys), None)
        if chain is None:
            chain = _Chain(episode.history.chain(key))
        end = chain.keys.get(key, -1)
        missing = [tag for tag in wanted if chain.place.get(tag, end + 1) > end]
        if len(missing) <= chain.hidden:
            if missing:
                check.note(f"node {node}: {chain.hidden} lines were not kept in the journal")
            continue
        for tag in missing[:FINDINGS_MAX]:
            having = next((other for other in chains if tag in other.place), None)
            text = f"missing at the end in the journal of node {node}"
            if having and having is not chain:
                _tell_missing(episode, check, having.states[having.place[tag]], having, chain, text)
            else:
                check.violated(text, t=episode.end_t or None, node=node, tag=tag)


def files(episode, check):
    power = [event["t"] for event in episode.events_of("power-cut")]
    for node, samples in episode.samples.items():
        # The nodes die just after the first of these events, and their files may change back until the second.
        cuts = sorted(power + [event["t"] for event in episode.events_of("disk-cut", node=node)])
        for part in _between(samples, _new_disks(episode, node)):
            _never_falls(check, node, part, "batch", "the number of the decision", cuts)
            _never_falls(check, node, part, "msg_id", "the message id counter", cuts)
        _sizes(episode, check, node, samples)
    for event in episode.events_of("disk-back-noticed"):
        check.saw("disks that went back")
        if not event["noticed"]:
            check.violated("the node went on with a disk of yesterday", t=event["t"], node=event["node"])
    for node in episode.files:
        _at_the_end(episode, check, node)
    _payloads_after_cuts(episode, check)
    if episode.events_of("equal"):
        _payload_files(episode, check)


def _new_disks(episode, node):
    """Returns when the node's disk was emptied or replaced by an older copy."""
    return [event["t"] for event in episode.events_of("store-lost", "disk-back", node=node)
            if event["what"] == "disk-back" or event["how"] == "disk-empty"]


def _between(samples, times):
    """Yields the samples before the first of `times`, those up to the second, and so on."""
    begin = 0
    for t in [*times, float("inf")]:
        end = bisect_right(samples, t, key=lambda sample: sample["t"])
        yield samples[begin:end]
        begin = end


def _never_falls(check, node, samples, name, what, cuts):
    """The value never falls, except at a power cut (`cuts`), before which a sample may have seen an unsynced save."""
    highest, synced, cuts = 0, [(0, 0)], list(cuts)
    for sample in samples:
        if cuts and sample["t"] > cuts[0]:
            highest = max(value for t, value in synced if t <= cuts[0] - SYNCED_NS)
            cuts.pop(0)
        value = sample.get(name)
        if value is None or sample.get("crc") is None:  # unreadable at that moment: a fault cut the file
            continue
        check.saw(f"samples of {name}")
        if value < highest:
            check.violated(f"{what} fell from {highest} to {value}", t=sample["t"], node=node,
                           batch=sample.get("batch"))
            highest = value
        highest = max(highest, value)
        if cuts:
            synced.append((sample["t"], highest))


def _is_cut(episode, node):
    """Whether a fault cut this node's records."""
    return any("cut" in str(event.get("fault", "")) for event in episode.events_of("disk", node=node))


def _sizes(episode, check, node, samples):
    if _is_cut(episode, node):
        check.note(f"sizes of files on node {node}: a fault cut them")
        return
    reported = set()
    for sample in samples:
        for name, size in (sample.get("sizes") or {}).items():
            if name not in SIZES or size is None:
                continue
            check.saw("sizes of files")
            if size != SIZES[name] and name not in reported:
                reported.add(name)
                check.violated(f"{name} has {size} bytes", t=sample["t"], node=node, batch=sample.get("batch"))


def _at_the_end(episode, check, node):
    directory = episode.files[node].cons()
    decide = read_bytes(os.path.join(directory, "paxos_decide"))
    deliver = read_bytes(os.path.join(directory, "paxos_deliver"))
    if _is_cut(episode, node):
        return
    where = {"t": episode.end_t or None, "node": node}
    if not decide:
        check.violated("paxos_decide is missing at the end", **where)
        return
    for name, content in (("paxos_decide", decide), ("paxos_deliver", deliver),
                          ("msg_id", read_bytes(os.path.join(directory, "msg_id")))):
        check.saw("files at the end")
        if content and len(content) != SIZES[name]:
            check.violated(f"{name} has {len(content)} bytes at the end", **where)
            return
    decided = decode_decided(decide)
    if decided is None:
        check.violated("paxos_decide counts more entries than a log has", **where)
        return
    number = decided.number
    _delivered_is_known(episode, check, node, number, decided.entries(), deliver)
    if episode.events_of("equal"):
        old = [name for name in os.listdir(directory) if re.fullmatch(r"rb_reg\.\d+", name) and int(name[7:]) <= number]
        check.saw("register directories")
        if old:
            check.violated(f"registers of old decisions are left: {', '.join(sorted(old)[:5])}", batch=number, **where)


def _payloads_after_cuts(episode, check):
    """What the newest log names was on a quorum of disks before it was decided. So a power cut leaves it there."""
    cuts = [event["t"] for event in episode.events_of("power-cut")]
    quorum = len(episode.nodes) // 2 + 1
    for begin, end in zip(cuts, [*cuts[1:], float("inf")]):
        disks = [event for event in episode.events_of("disk-cut") if begin <= event["t"] < end]
        if len(disks) < len(episode.nodes):
            continue  # the faults ended meanwhile
        newest = max(disks, key=lambda disk: disk["number"])
        for sender, msg_id in newest["log"]:
            check.saw("payloads of the log after a power cut")
            holders = [disk["node"] for disk in disks if [sender, msg_id] in disk["payloads"]]
            if len(holders) < quorum:
                check.violated(f"after a power cut the log names payload {msg_id}/{sender}, which only nodes {holders} "
                               "have on disk", t=newest["t"], node=newest["node"], batch=newest["number"])
                break


def _payload_files(episode, check):
    """At rest all payloads that the log names are on the disks of a quorum. Other payload files are few: at most one
    snapshot per node for the next decision."""
    logs = [_decided_log(episode, node)[1] for node in episode.nodes]
    names = {node: episode.files[node].payloads() or set() for node in episode.nodes}
    quorum = len(episode.nodes) // 2 + 1
    for sender, msg_id in max(logs, key=len):
        check.saw("payloads of the log")
        holders = [node for node in episode.nodes if f"{sender}.{msg_id}" in names[node]]
        if len(holders) < quorum:
            check.violated(f"the log names payload {msg_id}/{sender}, which only nodes {holders} have on disk",
                           t=episode.end_t or None)
            break
    for node, log in zip(episode.nodes, logs):
        left = sorted(names[node] - {f"{sender}.{msg_id}" for sender, msg_id in log})
        if len(left) > len(episode.nodes) or any(name.endswith(".tmp") for name in left):
            check.violated(f"{len(left)} payload files are left that the log does not name: {', '.join(left[:5])}",
                           t=episode.end_t or None, node=node)


def _decided_log(episode, node):
    """Returns (number, entries) of paxos_decide at the end; (0, []) if the file is no whole record."""
    decided = decode_decided(read_bytes(os.path.join(episode.files[node].cons(), "paxos_decide")))
    return (decided.number, decided.entries()) if decided else (0, [])


def _delivered_is_known(episode, check, node, number, entries, deliver):
    """paxos_deliver names an entry of the log or of an older log, never one that is not decided yet."""
    if len(deliver) != SIZES["paxos_deliver"]:
        return
    sender, msg_id = ENTRY.unpack(deliver)
    check.saw("last deliveries")
    if (sender, msg_id) in entries or (sender, msg_id) == (0, 0):
        return
    older = {tuple(sample[name]) for samples in episode.samples.values() for sample in samples
             for name in ("first", "last") if sample.get(name)}
    highest = max((entry[1] for entry in entries if entry[0] == sender), default=0)
    if (sender, msg_id) not in older and msg_id > highest and episode.samples[node]:
        check.violated(f"paxos_deliver names {msg_id}/{sender}, which no log names", t=episode.end_t or None, node=node,
                       batch=number)


def _decisions(episode):
    """Returns number -> {crc: (t, node, count, first entry)} from datagrams and files, each as first seen."""
    found = {}
    for decide in episode.decides:
        found.setdefault(decide.number, {}).setdefault(
            decide.crc, (decide.t, decide.node, decide.count, tuple(decide.first)))
    for node, samples in episode.samples.items():
        for sample in samples:
            if sample.get("batch") and sample.get("crc") is not None:
                variants = found.setdefault(sample["batch"], {})
                crc = int(sample["crc"], 16)
                if crc not in variants or sample["t"] < variants[crc][0]:
                    variants[crc] = (sample["t"], node, sample["count"], tuple(sample.get("first") or ()))
    return found


def one_decision(episode, check):
    for number, variants in sorted(_decisions(episode).items()):
        check.saw("decisions")
        if len(variants) > 1:
            variants = sorted(variants.values())
            check.violated(f"decision {number}: {len(variants)} logs, with " + ", ".join(
                f"{count} entries from {'/'.join(map(str, reversed(first)))} on node {node}"
                for _, node, count, first in variants), t=variants[1][0], node=variants[1][1], batch=number)

"""Partitions: which nodes hear which. Each node drops what it must not hear."""

from .errors import UsageError


def parse_nodes(text, count):
    """Returns the node ids of "1,3" or "1-3"."""
    nodes = set()
    for word in text.split(","):
        first, _, last = word.strip().partition("-")
        try:
            nodes.update(range(int(first), int(last or first) + 1))
        except ValueError as error:
            raise UsageError(f"{word.strip()!r} is no node: write numbers like 1,3 or 1-3") from error
    for node in nodes:
        if not 1 <= node <= count:
            raise UsageError(f"there is no node {node}: the cluster has nodes 1 to {count}")
    return nodes


def parse_partition(text, count):
    """Returns a list of sets of nodes from "1,2|3". Nodes that are not named form one more part."""
    parts = [parse_nodes(part, count) for part in text.split("|")]
    named = [node for part in parts for node in part]
    if len(named) != len(set(named)):
        raise UsageError(f"{text}: a node can be in one part only")
    rest = set(range(1, count + 1)) - set(named)
    parts += [rest] if rest else []
    if len(parts) < 2:
        raise UsageError(f"{text}: that is all nodes in one part; write for example '1,2|3'")
    return parts


def blocked_by(parts, node):
    """Returns the nodes that `node` must not hear."""
    own = next((part for part in parts if node in part), None)
    return set() if own is None else {other for part in parts if part is not own for other in part}

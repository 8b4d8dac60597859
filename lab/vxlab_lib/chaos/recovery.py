"""How nodes come back after a fault."""

from ..control import NodeUnreachable
from ..errors import LabError


def stop_protocol(stage, node_id):
    """Stops the library; the daemon goes on."""
    stage.events.add("stop-call", node=node_id)
    stage.cluster.node(node_id).control.stop_protocol()
    stage.events.add("stop-return", node=node_id)


def start_protocol(stage, node_id):
    stage.events.add("start-call", node=node_id)
    stage.cluster.node(node_id).control.start_protocol()
    stage.events.add("start-return", node=node_id)


def restart_after(stage, node_id, step):
    """Restarts the node as the step says. With `failover`, another node leads from now on if this one did."""
    if step.get("failover") and stage.leaders() == [node_id]:
        stage.pause(0.3)
        stage.set_masters([stage.node_id("follower")])
    stage.pause(step["restart_s"] if "restart_s" in step else step.get("down_s", 0.0))
    try:
        stage.start(node_id)
    except LabError as error:
        stage.events.add("start-failed", node=node_id, error=str(error))
        return
    if step.get("settle") and not stage.settle(node_id):
        stage.events.add("unsettled", node=node_id)


def ensure_active(stage, node_id):
    """Makes the node run and take part, whatever has happened to it."""
    node = stage.cluster.node(node_id)
    if not stage.is_running(node_id):
        stage.start(node_id)
    if not node.control.status()["active"]:
        start_protocol(stage, node_id)


def has_joined(node):
    try:
        return node.control.status()["cluster"]["standing"] not in ("new", "reformed")
    except NodeUnreachable:
        return False

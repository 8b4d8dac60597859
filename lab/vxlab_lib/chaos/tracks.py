"""Runs the tracks of a plan and undoes all that they did."""

import signal
import threading
import time

from ..errors import LabError
from .actions import ACTIONS, do_delay, set_clock
from .disk_actions import write_disk_rules
from .recovery import ensure_active, has_joined


class Tracks:
    """One thread per track of the plan. Each carries out its steps in their order."""

    def __init__(self, stage):
        self._stage = stage
        self.error = None
        self._threads = [threading.Thread(target=self._run, args=(index, track), name=track["fault"], daemon=True)
                         for index, track in enumerate(stage.plan.tracks)]

    def start(self):
        self._begun = time.monotonic()
        for thread in self._threads:
            thread.start()

    def join(self, timeout_s):
        deadline = time.monotonic() + timeout_s
        for thread in self._threads:
            thread.join(max(0.0, deadline - time.monotonic()))
            if thread.is_alive():
                raise LabError(f"the fault {thread.name} does not come to its end")

    def _run(self, index, track):
        stage = self._stage
        begun = self._begun
        for number, step in enumerate(track["steps"]):
            if not stage.pause(begun + step["at"] - time.monotonic()):
                return
            if "log" in step:
                waits_since = time.monotonic()
                found = stage.await_log(*step["log"])
                begun += time.monotonic() - waits_since  # keeps the distance to the step that ends this fault
                if stage.over.is_set():
                    return
                stage.events.add("at-log", fault=track["fault"], entries=found)
            stage.events.add("step", track=index, number=number, step=step)
            try:
                ACTIONS[step["do"]](stage, index, step)
            except LabError as error:
                # Another fault may have brought the node down, paused or isolated it.
                stage.events.add("step-refused", fault=track["fault"], do=step["do"], error=str(error))
            except Exception as error:  # a bug in the laboratory must not look like a quiet episode
                self.error = error
                stage.events.add("step-broken", fault=track["fault"], do=step["do"], error=repr(error))
                return
            finally:
                stage.events.add("step-end", track=index, number=number)


def undo_all(stage):
    """Ends every fault: the network is whole, every node runs with a good disk and clock, and one is MASTER."""
    stage.clear_network()
    for node_id, node in stage.cluster.nodes.items():
        if stage.is_running(node_id):
            node.signal(signal.SIGCONT)
        if stage.plan.options.get("disk_faults"):
            write_disk_rules(stage, node_id, [])
        if stage.plan.options.get("clock"):
            set_clock(stage, node_id, 0)
    if not stage.plan.options.get("keepalived"):
        nodes = sorted(stage.cluster.nodes)
        may_lead = [node_id for node_id in nodes if has_joined(stage.cluster.node(node_id))]  # keepalived asks for that
        stage.set_masters([stage.draw.choice(may_lead or nodes)])
    for node_id in stage.cluster.nodes:
        ensure_active(stage, node_id)
    if stage.longest_hook_ms:
        do_delay(stage, 0, {"node": 0, "deliver_ms": 0, "state_ms": 0})

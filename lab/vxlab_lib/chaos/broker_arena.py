"""The broker arena: nodes hand every datagram to vx-fabric over a Unix socket. It is fast and exact and needs no
privileges."""

import os

from .arena import Arena


class BrokerArena(Arena):
    name = "broker"

    def __init__(self, work_dir, build, plan):
        super().__init__(work_dir, build, plan)
        self.broker = os.path.join(work_dir, "broker")

    def settings(self, node):
        keys = {"messaging.transport": "broker", "messaging.broker": self.broker}
        if self.plan.options.get("marks"):
            keys["trace.marks"] = "yes"
        return {**super().settings(node), **keys}

    def fabric_arguments(self):
        return ["--socket", self.broker]

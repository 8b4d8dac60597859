"""Talks to vx-fabric, the program that carries every datagram of a cluster and makes the network's faults."""

import os

from .. import json_line
from ..errors import LabError

ANSWER_TIMEOUT_S = 20.0


class FabricClient:
    """Any thread may ask. `path` is that of the control socket."""

    def __init__(self, path):
        self._directory, self._name = os.path.split(path)

    def answers(self):
        """Returns False while the fabric does not listen yet."""
        try:
            return bool(self.ask("stats"))
        except LabError:
            return False

    def ask(self, what, **arguments):
        """Returns the answer. Raises LabError if the fabric is gone or refuses."""
        try:
            with json_line.connect(self._directory, self._name, ANSWER_TIMEOUT_S) as connection:
                answer = json_line.ask(connection, {"do": what, **arguments}) or {"error": "it went away"}
        except (OSError, ValueError) as error:
            raise LabError(f"the fabric does not answer: {error}") from error
        if not answer.get("ok"):
            raise LabError(f"fabric: {what}: {answer['error']}")
        return answer

"""Submissions on a machine while something else goes on."""

import itertools
import subprocess

END_S = 60  # of one submission, which has 10 s, on a machine that does other work
# One line after the other, until the input ends.
LOAD = """
while read -t 0.1; [ $? -gt 128 ]; do
  line="$HOSTNAME at $EPOCHREALTIME"
  echo "$line" | kesh submit --timeout 10 >/dev/null 2>&1 && echo "$EPOCHREALTIME $line"
done
"""


class Load:
    def __init__(self, machine):
        self._process = subprocess.Popen(machine.command("bash", "-c", LOAD), stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)

    def end(self):
        """Returns [(when, line)] of what was acknowledged."""
        told = self._process.communicate(timeout=END_S)[0]
        return [(float(row.split(" ", 1)[0]), row.split(" ", 1)[1]) for row in told.splitlines()]


def longest_gap(acknowledged, began, ended):
    """Returns the longest time in seconds in which nothing was acknowledged."""
    moments = [began, *sorted(when for when, _ in acknowledged if began < when < ended), ended]
    return max(after - before for before, after in itertools.pairwise(moments))

"""Waits for a state instead of sleeping."""

import time

from .errors import LabError

POLL_S = 0.02


class WaitTimeout(LabError):
    pass


def wait_until(predicate, timeout_s, what, poll_s=POLL_S):
    """Calls `predicate` until it returns a true value, and returns that. After `timeout_s` seconds raises WaitTimeout,
    which names `what` (text, or a function that returns the text at that moment)."""
    deadline = time.monotonic() + timeout_s
    while True:
        result = predicate()
        if result:
            return result
        if time.monotonic() >= deadline:
            raise WaitTimeout(f"not within {timeout_s:g} s: {what() if callable(what) else what}")
        time.sleep(poll_s)

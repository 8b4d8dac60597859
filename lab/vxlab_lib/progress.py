"""Shows the progress: one live line on a terminal, a line now and then elsewhere."""

import sys
import time

PLAIN_PERIOD_S = 5.0
LIVE_PERIOD_S = 0.1


class Progress:
    def __init__(self, stream=None):
        self._stream = stream or sys.stderr
        self._is_terminal = self._stream.isatty()
        self._shown_at = 0.0
        self._live = False
        self._start = time.monotonic()

    def say(self, text):
        """Prints a line that stays."""
        self._wipe()
        print(f"[{time.monotonic() - self._start:5.1f} s] {text}", file=self._stream, flush=True)

    def update(self, text):
        """Prints a line that the next one replaces. May be called as often as you like."""
        now = time.monotonic()
        if now - self._shown_at < (LIVE_PERIOD_S if self._is_terminal else PLAIN_PERIOD_S):
            return
        self._shown_at = now
        if self._is_terminal:
            self._stream.write(f"\r\033[K[{now - self._start:5.1f} s] {text}")
            self._stream.flush()
            self._live = True
        else:
            self.say(text)

    def close(self):
        self._wipe()

    def _wipe(self):
        if self._live:
            self._stream.write("\r\033[K")
            self._live = False


def bar(done, total, width=30):
    filled = int(width * min(1.0, done / total)) if total else width
    return "[" + "#" * filled + "." * (width - filled) + f"] {done}/{total}"

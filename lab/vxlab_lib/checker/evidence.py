"""Reads the files of an episode and judges nothing. Raises CouldNotRun for a file that cannot be read."""

import glob
import json
import os
import re
from dataclasses import dataclass

from ..errors import LabError
from ..journal import STORE, read_journal

INFINITE = 1 << 62  # a time that never comes


class CouldNotRun(LabError):
    """The evidence does not allow a judgement."""

    exit_code = 3


@dataclass(slots=True)
class Hook:
    """One call of a deliver hook, or one item of the payload that was delivered by it: the items of a call follow each
    other and have the same index. `kind` is deliver, adopt (part of a snapshot) or damaged. Times are in ns."""

    node: int
    life: int  # index of the process life on its node
    index: int  # index among the hook calls of that life
    t: int
    entered: int
    kind: str
    tag: str | None = None
    attempt: int = 0
    outcome: str | None = None  # applied, repeated, no-op; doubled: the payload was delivered again
    type: int = 0
    size: int = 0
    lines: int = 0
    hash: str = ""


@dataclass(slots=True)
class Call:
    node: int
    life: int
    thread: int
    tag: str
    attempt: int
    size: int
    called: int
    returned: int | None = None
    result: int | None = None


@dataclass(slots=True)
class Moment:
    """Any other line of the trace but the calls: begin, start-call, isolated, get-state, rejoin, adopted and so on."""

    t: int
    life: int
    what: str
    value: str = ""


class Trace:
    """What one node's processes did, in the order of the file. A life is one process."""

    def __init__(self, node):
        self.node = node
        self.lives = []  # their names, in order
        self.pids = []
        self.hooks = []
        self.calls = []
        self.moments = []
        self.order = []  # hooks and moments, in the order of the file
        self.deliveries = {}  # (life, index) of a hook call that delivered a payload -> its items, in their order
        self._open = {}
        self._hook_count = 0
        self._entered = None  # when the last hook call began
        self.last_t = []  # time of the last line, per life

    def add(self, words):
        t, life_name, what = int(words[0]), words[1], words[2]
        if what == "begin":
            self.lives.append(life_name)
            self.pids.append(int(words[3]))
            self.last_t.append(t)
            self._open, self._hook_count, self._entered = {}, 0, None
        life = len(self.lives) - 1
        if life < 0 or self.lives[life] != life_name:
            raise ValueError("a life that has not begun")
        self.last_t[life] = max(t, self.last_t[life])
        if what == "call":
            tag = f"{self.node}.{life_name}.{words[4]}"
            call = Call(self.node, life, int(words[3]), tag, int(words[5]), int(words[6]), t)
            self._open[words[3], words[4], words[5]] = call
            self.calls.append(call)
        elif what == "return":
            call = self._open.pop((words[3], words[4], words[5]))
            call.returned, call.result = t, int(words[6])
        elif what in ("deliver", "adopt", "damaged"):
            self._add_hook(t, life, what, words)
        else:
            moment = Moment(t, life, what, words[3] if len(words) > 3 else "")
            self.moments.append(moment)
            self.order.append(moment)

    def _add_hook(self, t, life, what, words):
        entered = int(words[3])
        self._hook_count += entered != self._entered
        self._entered = entered
        hook = Hook(self.node, life, self._hook_count - 1, t, entered, what)
        if what == "deliver":
            hook.tag, hook.attempt, hook.outcome = words[4], int(words[5]), words[6]
            hook.lines, hook.hash = int(words[7]), words[8]
            self.deliveries.setdefault((life, hook.index), []).append(hook)
        else:
            hook.type, hook.size = int(words[4]), int(words[5])
            if what == "adopt":
                hook.lines, hook.hash = int(words[6]), words[7]
        self.hooks.append(hook)
        self.order.append(hook)


def read_trace(path, node):
    """Reads the trace. Leaves out lines that a kill cut short. Raises CouldNotRun for any other bad line."""
    trace = Trace(node)
    content = read_bytes(path).decode("utf-8", "replace")
    lines = content.split("\n")
    lines.pop()  # empty after the last newline, or a line that a kill cut short
    for number, line in enumerate(lines, 1):
        try:
            trace.add(line.split(" "))
        except (ValueError, IndexError, KeyError) as error:
            begin = re.search(r"\d{6,} [0-9a-f]{16} begin \d+$", line)  # the next life began after a cut line
            if not begin:
                raise CouldNotRun(f"{path}:{number}: no line of a trace: {line[:80]!r}") from error
            trace.add(begin[0].split(" "))
    return trace


@dataclass(slots=True)
class Decide:
    """A DECIDE as the fabric saw it when it was sent."""

    t: int
    node: int
    number: int
    count: int
    crc: int  # of the 1254 bytes of the log
    first: tuple
    kind: str


def entry_of(text):
    sender, _, number = text.partition(".")
    return int(sender), int(number)


def read_wire(path):
    """Returns (decides, sends), where sends is a list of (t, node, channel)."""
    decides, sends = [], []
    for line in read_bytes(path).decode("utf-8", "replace").split("\n")[:-1]:
        words = line.split()
        if len(words) < 3 or not words[0].isdigit():
            continue  # statistics
        if words[2] == "decide" and len(words) >= 8:
            decides.append(Decide(int(words[0]), int(words[1]), int(words[3]), int(words[4]), int(words[5]),
                                  entry_of(words[6]), words[7]))
        elif words[2] in ("send4", "send5"):
            sends.append((int(words[0]), int(words[1]), int(words[2][4:])))
    return decides, sends


def read_bytes(path):
    try:
        with open(path, "rb") as file:
            return file.read()
    except FileNotFoundError:
        return b""
    except OSError as error:
        raise CouldNotRun(f"{path}: {error.strerror}") from error


def read_json_lines(path):
    found = []
    for number, line in enumerate(read_bytes(path).split(b"\n")[:-1], 1):
        try:
            found.append(json.loads(line))
        except ValueError as error:
            raise CouldNotRun(f"{path}:{number}: {error}") from error
    return found


def read_run(directory):
    """Returns the content of run.json, or of lab.json in a plain run directory of the laboratory."""
    for name in ("run.json", "lab.json"):
        content = read_bytes(os.path.join(directory, name))
        if content:
            try:
                return json.loads(content)
            except ValueError as error:
                raise CouldNotRun(f"{directory}/{name}: {error}") from error
    raise CouldNotRun(f"{directory} holds neither an episode (run.json) nor a laboratory (lab.json)")


def first_existing(*paths):
    return next((path for path in paths if os.path.exists(path)), paths[0])


class NodeFiles:
    """Finds the evidence of one node, in an episode or in a plain run directory."""

    def __init__(self, directory, node):
        self.node = node
        self.directory = os.path.join(directory, f"node{node}")
        if not os.path.isdir(self.directory):
            raise CouldNotRun(f"{self.directory} is missing")

    def path(self, *parts):
        return os.path.join(self.directory, *parts)

    def trace(self):
        return read_trace(first_existing(self.path("trace"), self.path("kesh.trace")), self.node)

    def journal(self):
        return read_journal(self.path("flashdisk", STORE), self.node)

    def log(self):
        """Returns the bytes of the log, older parts first."""
        path = first_existing(self.path("log"), self.path("kesh.log"))
        stem, extension = os.path.splitext(path)
        older = {}
        for name in glob.glob(f"{glob.escape(stem)}.*{extension}"):
            middle = name[len(stem) + 1:len(name) - len(extension)]
            if middle.isdigit():
                older[int(middle)] = name
        return b"".join(read_bytes(older[number]) for number in sorted(older, reverse=True)) + read_bytes(path)

    def payloads(self):
        """Returns the names of the payload files at the end; None if there is no directory of them."""
        content = read_bytes(self.path("payloads.json"))
        if content:
            return set(json.loads(content))
        directory = self.path("flashdisk", "cons", "payloads")
        return set(os.listdir(directory)) if os.path.isdir(directory) else None

    def cons(self):
        """Returns the directory with the library's files at the end."""
        return first_existing(self.path("flashdisk", "cons"), self.path("cons"))

"""One node of the cluster: its directories, its process (a child of the holder), its daemon."""

import os
import shutil
import signal

from . import journal, programs
from .control import ControlClient, NodeUnreachable
from .errors import LabError
from .rundir import write_by_rename
from .waiting import wait_until

CLUSTER_NAME = "lab"
VRRP = "kesh.vrrp"  # in /run: what keepalived said last
UNDO = ".undo"  # in /flashdisk: what a power cut may undo, see chaos/power_cut.py
START_TIMEOUT_S = 30.0
STOP_TIMEOUT_S = 20.0


def read_word(path):
    try:
        with open(path, encoding="utf-8") as file:
            return file.read().strip()
    except OSError:
        return ""


class Node:
    def __init__(self, node_id, run_dir, build, holder):
        self.id = node_id  # in the laboratory
        self.number = node_id  # in its cluster
        self.cluster_name = CLUSTER_NAME
        self.dir = run_dir.node(node_id)
        self._programs = build
        self._holder = holder
        self.control = ControlClient(node_id, self.path("run"))
        self.generation = 1  # of the cluster that `configure` makes
        self._is_durable = True  # payloads; `kesh configure` knows no other way
        self.net_pid = None  # a process whose network and queues the node shares; None: the laboratory's
        self.environment = {}  # of the daemon, in addition to the laboratory's
        self.on_spawn = lambda pid: None  # called as soon as a process of the daemon exists

    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    @property
    def log_path(self):
        return self.path("kesh.log")

    @property
    def cons_dir(self):
        return self.path("flashdisk", "cons")

    @property
    def payload_dir(self):
        return self.path("flashdisk", "cons", "payloads")

    def view(self, *command):
        """Returns a command line that runs `command` in a new view with the daemon's files and network."""
        network = ["--net-pid", str(self.net_pid)] if self.net_pid else []
        return [self._programs.node_view, "--flashdisk", self.path("flashdisk"), "--run", self.path("run"), *network,
                "--", *command]

    def _daemon(self):
        setting = ["env", *(f"{key}={value}" for key, value in self.environment.items())] if self.environment else []
        return self.view(*setting, self._programs.kesh, "run", "--config", self.path("kesh.conf"))

    def create(self, node_count, settings):
        """Makes new directories, configuration and durable files for a node of a new cluster."""
        os.makedirs(self.cons_dir, exist_ok=True)
        os.makedirs(self.path("run"))
        with open(self.path("kesh.conf"), "w", encoding="utf-8") as file:
            file.write(programs.config_text(self.id, self.log_path, settings))
        self._is_durable = settings.get(programs.DURABLE_KEY, "yes") in programs.YES
        self.write_state("BACKUP")
        self.configure(node_count)

    def configure(self, node_count):
        """Makes the node, which must be down, a node of a new cluster."""
        shutil.rmtree(self.path("flashdisk", UNDO), ignore_errors=True)
        self.offline("configure", "--nodes", str(node_count), "--id", str(self.number),
                     "--cluster", self.cluster_name, "--generation", str(self.generation), "--yes")
        if not self._is_durable:
            programs.set_key(self.path("kesh.conf"), programs.DURABLE_KEY, "no")

    def reform(self, generation, *options):
        """The node, which must be down, begins this generation of its cluster and keeps its store."""
        self.offline("reform", "--generation", str(generation), *options)
        self.generation = generation

    def offline(self, subcommand, *arguments):
        """Runs a command of kesh while the node is down. Returns its output. It must succeed."""
        return programs.run(self.view(self._programs.kesh, subcommand, "--config", self.path("kesh.conf"), *arguments),
                            f"{subcommand} node {self.id}", cwd=self.dir)

    def write_state(self, state):
        """Says what keepalived would say. A daemon that does not answer looks at the file later."""
        write_by_rename(self.path("run", VRRP), state + "\n")
        try:
            self.control.vrrp_changed()
        except NodeUnreachable:
            pass

    def vrrp_state(self):
        """Returns what keepalived said last."""
        return read_word(self.path("run", VRRP))

    def state(self):
        """Returns what the daemon tells the library: MASTER only if keepalived says so and the node may lead."""
        return read_word(self.path("run", "node_state"))

    def process(self):
        """Returns {"pid", "running", "exit_code"} of the process started last; None if there was none."""
        return self._holder.ask("state")["nodes"].get(str(self.id))

    def is_running(self):
        process = self.process()
        return bool(process and process["running"])

    def pid(self):
        process = self.process()
        if not process or not process["running"]:
            raise LabError(f"node {self.id} is not running: `vxlab start {self.id}` starts it")
        return process["pid"]

    def start(self):
        """Starts the daemon and waits until it answers. If it ends instead, the error names its last log line."""
        self.spawn()
        self.await_started()

    def await_started(self):
        wait_until(self._started, START_TIMEOUT_S, f"node {self.id} answers (see {self.log_path})", poll_s=0.05)

    def spawn(self):
        """Starts the daemon without waiting. Returns its process id."""
        answer = self._holder.ask("spawn", node=self.id, dir=self.dir, output=self.path("output.log"),
                                  command=self._daemon())
        self.on_spawn(answer["pid"])
        return answer["pid"]

    def _started(self):
        process = self.process()
        if not process["running"]:
            raise LabError(f"node {self.id} ended with exit code {process['exit_code']}: {self.last_words()} "
                           f"({self.log_path})")
        return self.answers()

    def answers(self):
        try:
            return bool(self.control.status(timeout_s=2.0))
        except LabError:
            return False

    def last_words(self):
        for name in ("output.log", "kesh.log"):
            try:
                with open(self.path(name), encoding="utf-8", errors="replace") as file:
                    lines = file.read().strip().splitlines()
            except OSError:
                continue
            if lines:
                return lines[-1]
        return "no word of it"

    def stop(self):
        """Shuts the daemon down cleanly. Returns the exit code."""
        self.signal(signal.SIGTERM)
        return self.await_end()

    def kill(self):
        """kill -9: the daemon saves nothing more."""
        self.signal(signal.SIGKILL)
        self.await_end()

    def pause(self):
        self.signal(signal.SIGSTOP)

    def resume(self):
        self.signal(signal.SIGCONT)

    def signal(self, number):
        self._holder.ask("signal", node=self.id, signal=int(number))

    def await_end(self, timeout_s=STOP_TIMEOUT_S):
        """Waits until the process has ended. Returns its exit code; negative means the signal that killed it."""
        answer = self._holder.ask("wait", timeout_s + 5.0, node=self.id, timeout_s=timeout_s)
        if "timeout" in answer:
            raise LabError(f"node {self.id} has not ended within {timeout_s:g} s (see {self.log_path})")
        return answer["exit_code"]

    def journal(self):
        return journal.read_journal(self.path("flashdisk", journal.STORE), self.id, self.is_running())

    def durable(self, name):
        """Returns the bytes of one of the library's files in /flashdisk/cons."""
        with open(self.path("flashdisk", "cons", name), "rb") as file:
            return file.read()

    def kesh(self, subcommand, *arguments):
        """Returns the command line of a kesh subcommand for this daemon. Run it in the node's directory: the socket's
        address then fits, however deep that directory is."""
        if subcommand == "backup":  # of the store, which the node sees elsewhere
            return self.view(self._programs.kesh, subcommand, "--config", self.path("kesh.conf"), *arguments)
        return [self._programs.kesh, subcommand, "--socket", "run/kesh.sock", *arguments]

    def inside(self, command):
        """Returns a command line that runs `command` in the node's own view, network and queues."""
        return [self._programs.node_view, "--join", str(self.pid()), "--", *command]

    def run_inside(self, command, timeout_s=programs.COMMAND_TIMEOUT_S):
        """Returns the command's standard output. The command must succeed."""
        return programs.run(self.inside(command), f"node {self.id}: {command[0]}", timeout_s)

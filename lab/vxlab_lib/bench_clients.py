"""Many clients, each with one line under way: how many lines per second does kesh order, and how many puts does etcd,
with as many members, on the same disk, in the same run? Both clusters are up all the time and are loaded in turn. The
clients are at the leader, as those are that use a cluster's virtual address, or spread over all nodes."""

import itertools
import json
import os
import shutil
import socket
import statistics
import subprocess
import urllib.error
import urllib.request
from contextlib import ExitStack
from dataclasses import dataclass, field

from .chaos.build import find_program
from .durable_save import measure_save_us
from .errors import LabError
from .waiting import wait_until

NODES = 3
LEADER = 1
TURNS = 5  # of one client, and of payloads of one line that the daemon itself hands to the library
CLIENTS = [1, 32, 256, 1000]
LINE_BYTES = 100
WARM_UP_S = 2
END_S = 30.0  # beyond its time, a load may take so long for its last answers
ETCD_START_S = 30.0
ETCD_STOP_S = 10.0
SETTINGS = {"state.max": 1 << 20, "log.level": "warning"}  # what a larger state costs, `bench --durable` tells
PLACES = ["leader", "all"]
COLUMNS = ["system", "at", "clients", "per s", "p50 ms", "p99 ms", "p99/p50", "failed", "MiB of the largest process"]


@dataclass
class Cell:
    system: str
    at: str  # one of PLACES
    clients: int
    per_s: float
    p50_us: int
    p99_us: int
    failed: int
    memory_kb: int  # resident, of the largest process, when the load had ended

    def row(self):
        return [self.system, self.at, self.clients, f"{self.per_s:.0f}", f"{self.p50_us / 1000:.2f}",
                f"{self.p99_us / 1000:.2f}", f"{self.p99_us / max(1, self.p50_us):.1f}", self.failed,
                f"{self.memory_kb / 1024:.0f}"]


@dataclass
class Found:
    save_ms: float  # one durable save, before any load
    cells: list = field(default_factory=list)
    turns: list = field(default_factory=list)  # medians of one client and of a payload, in us
    etcd_version: str | None = None
    missing: list = field(default_factory=list)  # why a system was not measured


def resident_kb(pids):
    """Returns the memory of the largest of the processes."""
    def one(pid):
        with open(f"/proc/{pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024

    return max(map(one, pids))


def run_clients(program, targets, clients, seconds, directory):
    """Returns what the program prints. `targets` are addresses, or sockets relative to the directory."""
    command = [program, ",".join(targets), str(clients), str(seconds), str(LINE_BYTES)]
    done = subprocess.run(command, cwd=directory, capture_output=True, text=True, check=False, timeout=seconds + END_S)
    if done.returncode not in (0, 1) or not done.stdout.startswith("{"):  # 1: some were not acknowledged
        raise LabError(f"{os.path.basename(program)}: {done.stderr.strip() or f'exit code {done.returncode}'}")
    return json.loads(done.stdout)


class Kesh:
    name = "kesh"

    def __init__(self, cluster):
        self._cluster = cluster
        self.program = None

    def missing(self):
        """Returns why this system cannot be measured, or None."""
        self.program = find_program(self._cluster.programs.build_dir, "vx-kesh-clients")
        return None if self.program else "vx-kesh-clients is not built"

    def start(self):
        self._cluster.start_all(master=LEADER)

    def targets(self, at):
        return [f"node{node_id}/run/kesh.sock" for node_id in self._cluster.nodes if at == "all" or node_id == LEADER]

    def pids(self):
        return [node.pid() for node in self._cluster.nodes.values()]

    def stop(self):
        pass  # the cluster's owner ends it


class Etcd:
    """Three members on loopback ports, with the defaults of the distribution."""

    name = "etcd"

    def __init__(self, cluster):
        self._dir = cluster.dir
        self._build_dir = cluster.programs.build_dir
        self._etcd = shutil.which("etcd", path="/usr/bin:/usr/local/bin:/usr/sbin")
        self._members = []
        self._ports = []
        self.program = None
        self.version = None

    def missing(self):
        self.program = find_program(self._build_dir, "vx-etcd-clients")
        if not self._etcd:
            return "etcd is not installed (package etcd-server)"
        if not self.program:
            return "vx-etcd-clients is not built (packages libgrpc++-dev, protobuf-compiler-grpc)"
        printed = subprocess.run([self._etcd, "--version"], capture_output=True, text=True, check=True).stdout
        self.version = printed.split("\n", 1)[0].rpartition(" ")[2]
        return None

    def start(self):
        ports = free_ports(2 * NODES)
        self._ports, peers = ports[:NODES], ports[NODES:]
        everyone = ",".join(f"m{number}=http://127.0.0.1:{peer}" for number, peer in enumerate(peers, 1))
        for number, (port, peer) in enumerate(zip(self._ports, peers), 1):
            client_url, peer_url = f"http://127.0.0.1:{port}", f"http://127.0.0.1:{peer}"
            command = ["setpriv", "--pdeathsig", "KILL", self._etcd, "--name", f"m{number}", "--data-dir",
                       self._dir.file(f"etcd{number}"), "--listen-client-urls", client_url, "--advertise-client-urls",
                       client_url, "--listen-peer-urls", peer_url, "--initial-advertise-peer-urls", peer_url,
                       "--initial-cluster", everyone, "--initial-cluster-state", "new", "--log-level", "error"]
            with open(self._dir.file(f"etcd{number}.log"), "wb") as log:
                self._members.append(subprocess.Popen(command, stdout=log, stderr=log))
        wait_until(lambda: all(map(is_healthy, self._ports)), ETCD_START_S,
                   f"etcd is healthy (see {self._dir.file('etcd1.log')})", poll_s=0.2)

    def targets(self, at):
        return [f"127.0.0.1:{port}" for port in self._ports if at == "all" or leads(port)]

    def pids(self):
        return [member.pid for member in self._members]

    def stop(self):
        for member in self._members:
            member.terminate()
        for member in self._members:
            try:
                member.wait(ETCD_STOP_S)
            except subprocess.TimeoutExpired:
                member.kill()
                member.wait()


def free_ports(count):
    with ExitStack() as held:
        sockets = [held.enter_context(socket.socket()) for _ in range(count)]
        for one in sockets:
            one.bind(("127.0.0.1", 0))
        return [one.getsockname()[1] for one in sockets]


def is_healthy(port):
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/health", timeout=2.0) as answer:
            return json.load(answer).get("health") == "true"
    except (OSError, ValueError, urllib.error.URLError):
        return False


def leads(port):
    """Returns whether the member of etcd at this port is its leader."""
    asked = urllib.request.Request(f"http://127.0.0.1:{port}/v3/maintenance/status", data=b"{}")
    with urllib.request.urlopen(asked, timeout=5.0) as answer:
        told = json.load(answer)
    return told["leader"] == told["header"]["member_id"]


def measure(cluster, counts, seconds, progress):
    """Returns what it Found."""
    progress.say(f"{NODES} nodes of kesh come up, and {NODES} of etcd if it is installed")
    cluster.create(NODES, SETTINGS)
    found = Found(measure_save_us([cluster.node(LEADER).dir]) / 1000)
    systems = []
    etcd = Etcd(cluster)
    with ExitStack() as running:
        for system in (Kesh(cluster), etcd):
            if why := system.missing():
                found.missing.append(f"{system.name}: {why}")
                continue
            running.callback(system.stop)
            system.start()
            systems.append(system)
        for at, clients, system in itertools.product(PLACES, counts, systems):
            progress.update(f"{system.name}: {clients} clients at {at}")
            run_clients(system.program, system.targets(at), clients, WARM_UP_S, cluster.dir.path)
            told = run_clients(system.program, system.targets(at), clients, seconds, cluster.dir.path)
            found.cells.append(Cell(system.name, at, clients, told["per_s"], told["p50_us"], told["p99_us"],
                                    told["failed"], resident_kb(system.pids())))
        if 1 in counts and systems and systems[0].name == Kesh.name:
            kesh = systems[0]
            for turn in range(TURNS):
                progress.update(f"one client, then a payload of its own: {turn + 1} of {TURNS}")
                client = run_clients(kesh.program, kesh.targets("leader"), 1, seconds, cluster.dir.path)
                payload = cluster.node(LEADER).control.unbatched(seconds, LINE_BYTES)
                found.turns.append((client["p50_us"], payload["p50_us"]))
    found.etcd_version = etcd.version
    return found


def print_found(found, stream):
    table = [COLUMNS] + [[str(cell) for cell in one.row()] for one in found.cells]
    widths = [max(len(line[i]) for line in table) for i in range(len(COLUMNS))]
    for line in table:
        print("  ".join(text.rjust(width) for text, width in zip(line, widths)), file=stream)
    rates = {(one.system, one.at, one.clients): one.per_s for one in found.cells}
    for (system, at, clients), per_s in rates.items():
        other = rates.get(("etcd", at, clients))
        if system == "kesh" and other:
            print(f"{clients} clients at {at}: kesh {per_s:.0f}/s, etcd {other:.0f}/s, ratio {per_s / other:.2f}", file=stream)
    if found.turns:
        client, payload = (statistics.median(times) / 1000 for times in zip(*found.turns))
        ratios = sorted(client / payload for client, payload in found.turns)
        print(f"one client at the leader, by turns with a payload of its own, whose call returns later than its hook: "
              f"medians {client:.2f} and {payload:.2f} ms, {statistics.median(ratios):.2f} times "
              f"({ratios[0]:.2f} to {ratios[-1]:.2f})", file=stream)
    print(f"lines and values of {LINE_BYTES} bytes; {NODES} nodes each, all on this machine and disk; "
          f"etcd {found.etcd_version or 'was not measured'}; one durable save took {found.save_ms:.2f} ms", file=stream)
    for what in found.missing:
        print(f"missing: {what}", file=stream)

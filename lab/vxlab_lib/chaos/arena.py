"""The arena: a cluster under test. Each node has a network namespace with one Ethernet device, a TAP port of vx-fabric.
Its files are on an ext4 image made for the run. keepalived elects the leader if the plan says so. Needs root."""

import json
import os
import shutil
import subprocess

from .. import programs
from ..cluster import Cluster
from ..errors import LabError
from ..node import UNDO
from ..waiting import wait_until
from . import private_space
from .fabric_client import FabricClient
from .files import copy

FABRIC_TIMEOUT_S = 10.0
LOG_BYTES_MAX = 1 << 32  # no rotation
DEVICE = "vx0"
IMAGE_BYTES = 2 << 30  # a sparse file
SMALL_DISK_SIZE = "64m"

CLUSTER_ADDRESS = "10.81.0.100/24"
# As a node's own file in /etc/keepalived; host/keepalived/kesh.conf tells of it.
KEEPALIVED_CONF = """\
$KESH={kesh}
$INTERFACE={device}
$ADDRESS={address}
$PRIORITY={priority}
include {shipped}
"""


class WireCluster(Cluster):
    """A process that does nothing else holds each node's network, so that it outlives the daemon."""

    small_disk = None  # the node whose /flashdisk is a small file system

    def open(self, detached=False):
        if self.small_disk:  # the laboratory's programs see only earlier mounts
            target = self.node(self.small_disk).path("flashdisk")
            os.makedirs(target)
            private_space.mount("tmpfs", target, "tmpfs", 0, f"mode=0755,size={SMALL_DISK_SIZE}")
        super().open(detached)
        for node in self.nodes.values():
            answer = self.holder.ask("spawn", node=f"net{node.id}", dir=self.dir.path,
                                     output=self.dir.file("networks.log"),
                                     command=[self.programs.node_view, "--net-new", "--", "sleep", "infinity"])
            node.net_pid = answer["pid"]


class Arena:
    """One cluster in the new directory `work_dir`. `build` is a Build, `plan` says what to prepare. Use it as a
    context; `close` leaves nothing running."""

    def __init__(self, work_dir, build, plan):
        if os.geteuid() != 0:
            raise LabError("chaos needs root: it makes network devices and mounts a file system")
        self.dir = work_dir
        self.build = build
        self.plan = plan
        self.keepalived = plan.options.get("keepalived", False)
        self._keepalived_path = shutil.which("keepalived", path="/usr/sbin:/usr/bin:/sbin")
        if self.keepalived and not self._keepalived_path:
            raise LabError("keepalived is not installed: scripts/install-packages chaos")
        self._make_disk()
        self.cluster = WireCluster(self._mount_point, build.directory)
        self.cluster.small_disk = plan.options.get("small_disk")
        self.wire_log = os.path.join(work_dir, "wire.log")
        self.fabric_control = os.path.join(work_dir, "fabric")
        self.fabric = FabricClient(self.fabric_control)

    @staticmethod
    def address(node_id):
        return f"10.81.0.{node_id}"

    def _make_disk(self):
        image, self._mount_point = os.path.join(self.dir, "disk.img"), os.path.join(self.dir, "lab")
        os.makedirs(self._mount_point)
        with open(image, "wb") as file:
            file.truncate(IMAGE_BYTES)
        programs.run(["/usr/sbin/mkfs.ext4", "-q", "-m", "0", image], "make a file system")
        programs.run(["mount", "-o", "loop", image, self._mount_point], "mount the file system")
        os.rmdir(os.path.join(self._mount_point, "lost+found"))

    def settings(self, node):
        """Returns the configuration keys of one node."""
        keys = {"lab.trace": node.path("trace"), "log.max_size": LOG_BYTES_MAX,
                "messaging.interface": DEVICE}
        keys.update({f"messaging.node[{peer}].address": self.address(peer) for peer in range(1, self.plan.nodes + 1)})
        return {**keys, **self.plan.settings.get(0, {}), **self.plan.settings.get(node.id, {})}

    def environment(self, node):
        """Returns the environment of one node's daemon. It preloads the libraries that make faults, and limits the
        freed memory that a sanitizer keeps, since that would look like growth."""
        preload = self.build.preload(self.plan.options)
        found = {"LD_PRELOAD": ":".join(preload)} if preload else {}
        found["ASAN_OPTIONS"] = "quarantine_size_mb=8:" + os.environ.get("ASAN_OPTIONS", "")
        if self.plan.options.get("disk_faults"):
            found["VX_DISK_FAULTS"] = node.path("disk_faults")
        if self.plan.options.get("undo"):
            found["VX_DISK_UNDO"] = f"/flashdisk/{UNDO}"
        if self.plan.options.get("clock"):
            found["VX_CLOCK_SHIFT"] = node.path("clock_shift")
            with open(node.path("clock_shift"), "wb") as file:
                file.write(bytes(8))
        return found

    def open(self):
        """Configures all nodes and joins them to the fabric; starts none."""
        self.cluster.create(self.plan.nodes, self.settings)
        self._start_fabric()
        for node in self.cluster.nodes.values():
            node.environment = self.environment(node)
            self.fabric.ask("tap", node=node.id, netns=f"/proc/{node.net_pid}/ns/net", device=DEVICE,
                            address=f"{self.address(node.id)}/24")
            if self.keepalived:
                self._write_keepalived(node)

    def _start_fabric(self):
        command = ["setpriv", "--pdeathsig", "KILL", self.build.fabric, "--control", self.fabric_control, "--wire-log",
                   self.wire_log, "--seed", str(self.plan.seed)]
        output = os.path.join(self.dir, "fabric.log")
        self.cluster.holder.ask("spawn", node="fabric", dir=self.dir, output=output, command=command)
        wait_until(lambda: self.fabric.answers() or not self.program_runs("fabric"), FABRIC_TIMEOUT_S,
                   f"the fabric answers (see {output})")
        if not self.program_runs("fabric"):
            with open(output, encoding="utf-8", errors="replace") as file:
                raise LabError("the fabric does not start: " + (file.read().strip() or "no word of it"))

    def program_runs(self, name):
        program = self.cluster.holder.ask("state")["nodes"].get(name)
        return bool(program and program["running"])

    def stop_fabric(self):
        """Stops the fabric, so that wire.log is complete."""
        if self.program_runs("fabric"):
            self.fabric.ask("quit")
            if "timeout" in self.cluster.holder.ask("wait", 15.0, node="fabric", timeout_s=10.0):
                raise LabError("the fabric does not end, so wire.log may lack its end")

    def _write_keepalived(self, node):
        with open(node.path("keepalived.conf"), "w", encoding="utf-8") as file:
            file.write(KEEPALIVED_CONF.format(kesh=self.cluster.programs.kesh, device=DEVICE, address=CLUSTER_ADDRESS,
                                              priority=100 + 10 * node.id,
                                              shipped=programs.keepalived_conf()))

    def start_keepalived(self, node_id):
        """Starts keepalived in the node's view. In its own process id namespace, so that its helpers end with it."""
        node = self.cluster.node(node_id)
        for name in ("keepalived.pid", "vrrp.pid"):  # a killed one leaves them, and its process ids are used again
            if os.path.exists(node.path("run", name)):
                os.unlink(node.path("run", name))
        command = ["unshare", "--pid", "--fork", "--kill-child=KILL", self._keepalived_path, "--dont-fork",
                   "--log-console", "--vrrp", "--use-file", node.path("keepalived.conf"), "--pid",
                   "/run/keepalived.pid", "--vrrp_pid", "/run/vrrp.pid"]
        self.cluster.holder.ask("spawn", node=f"keepalived{node_id}", dir=node.dir,
                                output=node.path("keepalived.log"), command=node.view(*command))

    def has_keepalived(self, node_id):
        return self.program_runs(f"keepalived{node_id}")

    def stop_keepalived(self, node_id):
        """Kills keepalived as its machine's death would, without a message to the others."""
        try:
            self.cluster.holder.ask("signal", node=f"keepalived{node_id}", signal=9)
            self.cluster.holder.ask("wait", 10.0, node=f"keepalived{node_id}", timeout_s=5.0)
        except LabError:
            pass  # it was not running

    def node_is_down(self, node_id):
        """To be called when a node's process was ended on purpose, before it is started again."""
        if self.keepalived:
            self.stop_keepalived(node_id)
            self.cluster.node(node_id).write_state("BACKUP")

    def close(self):
        if self.keepalived:  # its parent process ignores SIGTERM
            for node_id in self.cluster.nodes:
                self.stop_keepalived(node_id)
        self.cluster.close()
        subprocess.run(["umount", "--recursive", "--lazy", self._mount_point], check=False, stderr=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def collect(self, evidence):
        """Copies what the nodes wrote into the layout that the checker reads: evidence/nodeK/..."""
        for node in self.cluster.nodes.values():
            target = os.path.join(evidence, f"node{node.id}")
            os.makedirs(target)
            names = {"trace": "trace", "kesh.log": "log", "output.log": "stderr", "kesh.conf": "kesh.conf",
                     "flashdisk": "flashdisk", "keepalived.log": "keepalived.log"}
            for name, new_name in names.items():
                copy(node.path(name), os.path.join(target, new_name))
            if os.path.isdir(node.payload_dir):  # names only: the payloads themselves would be too large to keep
                with open(os.path.join(target, "payloads.json"), "w", encoding="utf-8") as file:
                    json.dump({entry.name: entry.stat().st_size for entry in os.scandir(node.payload_dir)}, file)

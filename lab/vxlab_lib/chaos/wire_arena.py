"""The wire arena. Each node has a network namespace with one Ethernet device, a TAP port of vx-fabric. Its files are on
an ext4 image made for the run. keepalived elects the leader if the plan says so. Needs root."""

import os
import shutil
import subprocess

from .. import programs
from ..cluster import Cluster
from ..errors import LabError
from . import private_space
from .arena import Arena

DEVICE = "vx0"
IMAGE_BYTES = 2 << 30  # a sparse file
SMALL_DISK_SIZE = "64m"


KEEPALIVED_CONF = """\
global_defs {{
  router_id node{node}
  script_user root
  enable_script_security
  vrrp_garp_master_delay 0
}}
vrrp_instance cluster {{
  state BACKUP
  interface {device}
  virtual_router_id 81
  priority {priority}
  advert_int 0.3
  virtual_ipaddress {{
    10.81.0.100/24
  }}
  notify {notify}
}}
"""

# keepalived calls it with: INSTANCE cluster MASTER|BACKUP|FAULT|STOP priority
NOTIFY = """\
#!/bin/sh
exec {kesh} vrrp "$3"
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


class WireArena(Arena):
    name = "wire"

    @staticmethod
    def address(node_id):
        return f"10.81.0.{node_id}"
    cluster_class = WireCluster

    def __init__(self, work_dir, build, plan):
        if os.geteuid() != 0:
            raise LabError("the wire arena needs root: it makes network devices and mounts a file system")
        self.keepalived = plan.options.get("keepalived", False)
        self._keepalived_path = shutil.which("keepalived", path="/usr/sbin:/usr/bin:/sbin")
        if self.keepalived and not self._keepalived_path:
            raise LabError("keepalived is not installed: scripts/install-packages chaos")
        self._make_disk(work_dir)
        super().__init__(work_dir, build, plan)
        self.cluster.small_disk = plan.options.get("small_disk")

    def _make_disk(self, work_dir):
        image, self._mount_point = os.path.join(work_dir, "disk.img"), os.path.join(work_dir, "lab")
        os.makedirs(self._mount_point)
        with open(image, "wb") as file:
            file.truncate(IMAGE_BYTES)
        programs.run(["/usr/sbin/mkfs.ext4", "-q", "-m", "0", image], "make a file system")
        programs.run(["mount", "-o", "loop", image, self._mount_point], "mount the file system")
        os.rmdir(os.path.join(self._mount_point, "lost+found"))

    def settings(self, node):
        keys = {f"messaging.node[{peer}].address": self.address(peer) for peer in range(1, self.plan.nodes + 1)}
        return {**super().settings(node), **keys, "messaging.interface": DEVICE}

    def open(self):
        super().open()
        for node in self.cluster.nodes.values():
            node.on_spawn = lambda pid, node=node: self.fabric.ask("port", node=node.id, pid=pid)
            if self.keepalived:
                self._write_keepalived(node)

    def connect_nodes(self):
        for node in self.cluster.nodes.values():
            self.fabric.ask("tap", node=node.id, netns=f"/proc/{node.net_pid}/ns/net", device=DEVICE,
                            address=f"{self.address(node.id)}/24")

    def _write_keepalived(self, node):
        text = KEEPALIVED_CONF.format(node=node.id, device=DEVICE, priority=100 + 10 * node.id,
                                      notify=node.path("notify"))
        with open(node.path("keepalived.conf"), "w", encoding="utf-8") as file:
            file.write(text)
        with open(node.path("notify"), "w", encoding="utf-8") as file:
            file.write(NOTIFY.format(kesh=self.cluster.programs.kesh))
        os.chmod(node.path("notify"), 0o700)

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
        if self.keepalived:
            self.stop_keepalived(node_id)
            self.cluster.node(node_id).write_state("BACKUP")

    def close(self):
        if self.keepalived:  # its parent process ignores SIGTERM
            for node_id in self.cluster.nodes:
                self.stop_keepalived(node_id)
        super().close()
        subprocess.run(["umount", "--recursive", "--lazy", self._mount_point], check=False, stderr=subprocess.DEVNULL)

"""Machines on one network, each with root directory, network and processes of its own. All ends with this process,
which must be in namespaces of its own (`enter_own_namespaces`) and needs root for that.

Stand-ins take the place of what does not run here: `systemctl` asks init.py, `apt-get install` copies the files of an
installed tree that lies in the directory, `scp` copies from another machine's disk.
"""

import os
import shutil
import socket
import subprocess
import sys

from vxlab_lib.waiting import wait_until

INSIDE = "VX_MACHINES_INSIDE"
INIT = os.path.join(os.path.dirname(os.path.realpath(__file__)), "init.py")
BOOT_S = 20.0
DEVICE = "eth0"
ADDRESS = "192.0.2.{}"
STAND_INS = {
    "systemctl": f'exec /usr/bin/python3 -B {INIT} systemctl "$@"\n',
    "apt-get": "exec cp -a --remove-destination usr/. /usr/\n",
    "scp": """set -e
from=${2%%:*} path=${2#*:}
exec cp -p "/site/$from/upper$path" "$3"
""",
}


def enter_own_namespaces():
    """Starts this program anew where it may make networks and mounts that nobody else sees, and that end with it."""
    if os.environ.get(INSIDE) != "1":
        os.environ[INSIDE] = "1"
        os.execvp("unshare", ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child=KILL", "--mount-proc",
                              sys.executable, *sys.argv])


def run(*command, **options):
    try:
        return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout
    except subprocess.CalledProcessError as failed:
        raise RuntimeError(f"{' '.join(command)}: {failed.stderr.strip()}") from failed


def interfaces():
    """By netlink: /sys shows those of the network in which it was mounted."""
    return [name for _, name in socket.if_nameindex()]


class Machine:
    def __init__(self, site, number, disk_mb=None):
        """`disk_mb`: /flashdisk is a file system of that size; None: as large as the disk of the site."""
        self.number = number
        self.name = f"node{number}"
        self.dir = os.path.join(site.dir, self.name)
        self._disk_mb = disk_mb
        self._process = None
        self._pid = None
        for part in ("flashdisk", "packages"):
            os.makedirs(os.path.join(self.dir, part))
        tools = os.path.join(self.dir, "upper", "usr", "local", "bin")
        os.makedirs(tools)
        for name, script in STAND_INS.items():
            with open(os.path.join(tools, name), "w", encoding="ascii") as file:
                file.write("#!/bin/sh\n" + script)
            os.chmod(os.path.join(tools, name), 0o755)
        if disk_mb:
            image = os.path.join(self.dir, "disk.img")
            with open(image, "wb") as file:
                file.truncate(disk_mb << 20)
            run("/usr/sbin/mkfs.ext4", "-q", "-m", "0", image)
            run("mount", "-o", "loop", image, os.path.join(self.dir, "flashdisk"))

    def boot(self):
        """What is enabled starts, too; nobody waits for it."""
        with open(os.path.join(self.dir, "console"), "ab") as console:
            self._process = subprocess.Popen(
                ["unshare", "--mount", "--net", "--ipc", "--uts", "--pid", "--fork", "--kill-child=KILL", sys.executable,
                 "-B", INIT, self.dir, self.name], stdin=subprocess.DEVNULL, stdout=console, stderr=console)
        wait_until(self._find_init, BOOT_S, f"{self.name} boots")
        link = f"v{self.number}"
        run("ip", "link", "add", link, "type", "veth", "peer", "name", DEVICE, "netns", str(self._pid))
        run("ip", "link", "set", link, "master", "br0", "up")
        for words in ("link set lo up", f"addr add {ADDRESS.format(self.number)}/24 dev {DEVICE}", f"link set {DEVICE} up"):
            run("nsenter", "--net", "--target", str(self._pid), "ip", *words.split())
        wait_until(lambda: os.path.exists(f"/proc/{self._pid}/root/run/manager.sock"), BOOT_S, f"{self.name} is up")
        run(*self.command("systemctl", "network-online"))

    def _find_init(self):
        with open(f"/proc/{self._process.pid}/task/{self._process.pid}/children", encoding="ascii") as file:
            children = file.read().split()
        self._pid = int(children[0]) if children else None
        return self._pid is not None

    def power_off(self):
        """All its processes die at once. What they wrote stays: cuts of what is not on the disk are for vxlab chaos."""
        if self._process:
            self._process.kill()
            self._process.wait()
            self._process = None
            # The kernel removes a network some time after its last process.
            wait_until(lambda: f"v{self.number}" not in interfaces(), BOOT_S, f"{self.name} is gone")

    def command(self, *words):
        return ["nsenter", "--all", "--root", "--wd", "--target", str(self._pid), "env", "-i", "HOME=/root", "LC_ALL=C",
                "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", f"N={self.number}", *words]

    def deliver(self, tree):
        """From now on packages with these files lie in /root/packages."""
        directory = os.path.join(self.dir, "packages")
        for name in os.listdir(directory):
            shutil.rmtree(os.path.join(directory, name))
        shutil.copytree(tree, directory, symlinks=True, dirs_exist_ok=True)

    def path(self, path):
        """Where a file is that the machine wrote. Only to be read while it is up."""
        return os.path.join(self.dir, "upper", path.lstrip("/"))

    def remove(self):
        self.power_off()
        if self._disk_mb:
            run("umount", os.path.join(self.dir, "flashdisk"))
        shutil.rmtree(self.dir)


class Site:
    """A network, and room for its machines."""

    def __init__(self, directory):
        self.dir = directory
        self.machines = {}
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
        run("ip", "link", "set", "br0", "up")

    def add(self, number, **options):
        self.machines[number] = Machine(self, number, **options)
        return self.machines[number]

    def close(self):
        for machine in self.machines.values():
            machine.remove()
        run("ip", "link", "del", "br0")

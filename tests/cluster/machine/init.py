"""Process 1 of a machine of the tests: it takes the machine's root, and then does what the tests need of a service
manager. `systemctl` in the machine is a client of it.

    init.py DIR NAME      DIR/upper has what the machine wrote, DIR/flashdisk is its disk, DIR/packages is seen
                          as /root/packages and DIR/.. as /site
"""

import configparser
import ctypes
import json
import os
import signal
import socket
import subprocess
import sys
import threading
import time

SOCKET = "/run/manager.sock"
ENABLED = "/etc/machine-enabled"  # a file in it for each unit that starts when the network is there
UNITS = ("kesh", "keepalived")  # in the order in which they start
STOP_S = 60
READY_S = 60
MS_BIND, MS_REC, MS_PRIVATE, MS_RDONLY, MS_REMOUNT = 0x1000, 0x4000, 1 << 18, 1, 0x20
# The unit of the distribution has arguments and a protocol that take more of systemd than there is here.
OWN_UNITS = {"keepalived": "[Service]\nExecStart=/usr/sbin/keepalived --dont-fork --log-console --vrrp\n"}

# What a unit lets its process see and write, of that what may be in the way of a procedure.
CONFINE = """
set -e
for path in $WRITABLE; do [ ! -e $path ] || mount --bind $path $path; done
mount -o remount,bind,ro /
for path in /root /home /tmp; do mount -t tmpfs tmpfs $path; done
exec "$@"
"""

libc = ctypes.CDLL(None, use_errno=True)


def mount(source, target, kind=None, flags=0, data=None):
    os.makedirs(target, exist_ok=True)
    words = [word.encode() if word else None for word in (source, target, kind)]
    if libc.mount(*words, ctypes.c_ulong(flags), data.encode() if data else None) != 0:
        raise OSError(ctypes.get_errno(), f"mount {source} on {target}")


def take_root(directory, name):
    """The files of this computer, but what is changed or made stays in the machine's directory."""
    mount(None, "/", flags=MS_REC | MS_PRIVATE)
    root, upper, work = (os.path.join(directory, part) for part in ("root", "upper", "work"))
    os.makedirs(upper, exist_ok=True)
    os.makedirs(work, exist_ok=True)
    mount("overlay", root, "overlay", data=f"lowerdir=/,upperdir={upper},workdir={work}")
    mount("proc", root + "/proc", "proc")
    mount("/dev", root + "/dev", flags=MS_BIND | MS_REC)
    mount("/sys", root + "/sys", flags=MS_BIND | MS_REC)
    mount("tmpfs", root + "/run", "tmpfs", data="mode=0755")
    mount("tmpfs", root + "/tmp", "tmpfs")
    mount(os.path.join(directory, "flashdisk"), root + "/flashdisk", flags=MS_BIND)
    mount(os.path.join(directory, "packages"), root + "/root/packages", flags=MS_BIND)
    mount(os.path.dirname(directory), root + "/site", flags=MS_BIND)
    os.chroot(root)
    os.chdir("/root")
    socket.sethostname(name)


class Unit:
    """A service, as its unit file says; of what that may say only what the units here use."""

    def __init__(self, name):
        self.name = name
        self._process = None
        self._lock = threading.Lock()
        self._is_wanted = False

    def _read(self):
        unit = configparser.ConfigParser(strict=False, interpolation=None)
        unit.optionxform = str
        path = f"/usr/lib/systemd/system/{self.name}.service"
        if self.name in OWN_UNITS:
            unit.read_string(OWN_UNITS[self.name])
        else:
            unit.read(path)
        unit.read(path + ".d/kesh.conf")
        return unit["Service"]

    def is_running(self):
        return self._process is not None and self._process.poll() is None

    def _spawn(self, keys):
        """Returns whether it is there: at once, or when it has said so."""
        path = f"/run/notify.{self.name}"
        if os.path.exists(path):
            os.unlink(path)
        told = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        told.bind(path)
        is_ready_or_over = threading.Event()
        environment = {"PATH": os.environ["PATH"], "NOTIFY_SOCKET": path}
        command = keys["ExecStart"].split()
        if keys.get("ProtectSystem") == "strict":
            environment["WRITABLE"] = keys["ReadWritePaths"].replace("-/", "/")
            command = ["unshare", "--mount", "sh", "-c", CONFINE, "sh", *command]
        with open(f"/var/log/{self.name}.out", "ab") as output:
            self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output,
                                             stderr=output, cwd="/", env=environment)
        threading.Thread(target=self._listen, args=(told, is_ready_or_over), daemon=True).start()
        threading.Thread(target=self._watch, args=(self._process, keys, told), daemon=True).start()
        if keys.get("Type") == "notify":
            is_ready_or_over.wait(READY_S)
        return self.is_running()

    @staticmethod
    def _listen(told, is_ready_or_over):
        with told:
            while word := told.recv(4096):
                if word == b"READY=1":
                    is_ready_or_over.set()
        is_ready_or_over.set()

    def _watch(self, process, keys, told):
        """Until the process ends, and starts it again after a failure."""
        code = process.wait()
        told.shutdown(socket.SHUT_RD)  # ends _listen, which first takes what the process said
        if keys.get("ExecStopPost"):
            subprocess.run(keys["ExecStopPost"].lstrip("-").split(), check=False)
        is_failure = code not in (0, -signal.SIGTERM) and str(code) not in keys.get("RestartPreventExitStatus", "").split()
        if keys.get("Restart") == "on-failure" and is_failure and self._is_wanted:
            time.sleep(float(keys.get("RestartSec", "0.1")))
            with self._lock:
                if self._is_wanted and self._process is process:
                    self._spawn(keys)

    def start(self):
        with self._lock:
            self._is_wanted = True
            return self.is_running() or self._spawn(self._read())

    def stop(self):
        self._is_wanted = False
        with self._lock:
            if self.is_running():
                self._process.terminate()
                try:
                    self._process.wait(STOP_S)
                except subprocess.TimeoutExpired:
                    self._process.kill()
                    return False
        return True

    def reload(self):
        return subprocess.run(self._read()["ExecReload"].split(), check=False).returncode == 0


class Manager:
    def __init__(self):
        self._units = {name: Unit(name) for name in UNITS}

    def do(self, command, names):
        """Returns an exit code. Starts go in the units' order, stops the other way round."""
        order = [self._units[name] for name in UNITS if name in names]
        results = []
        if command in ("stop", "restart"):
            results += [unit.stop() for unit in reversed(order)]
        if command in ("start", "restart"):
            results += [unit.start() for unit in order]
        if command == "reload":
            results += [unit.reload() for unit in order]
        if command == "network-online":
            enabled = [name for name in UNITS if os.path.exists(os.path.join(ENABLED, name))]
            threading.Thread(target=self.do, args=("start", enabled), daemon=True).start()
            return 0
        if command == "is-active":
            results += [unit.is_running() for unit in order]
        return 0 if results and all(results) else 1

    def _serve(self, connection):
        with connection:
            command, names = json.loads(connection.recv(4096))
            connection.sendall(str(self.do(command, names)).encode())

    def run(self):
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(SOCKET + ".new")
        listener.listen()
        os.rename(SOCKET + ".new", SOCKET)  # who sees it can connect to it
        while True:
            threading.Thread(target=self._serve, args=(listener.accept()[0],), daemon=True).start()


def systemctl(command, *words):
    """The client: systemctl COMMAND [--now] UNIT..."""
    names = [word for word in words if word != "--now"]
    if command == "enable":
        os.makedirs(ENABLED, exist_ok=True)
        for name in names:
            with open(os.path.join(ENABLED, name), "wb"):
                pass
        if "--now" not in words:
            return 0
        command = "start"
    with socket.socket(socket.AF_UNIX) as manager:
        manager.connect(SOCKET)
        manager.sendall(json.dumps([command, names]).encode())
        return int(manager.recv(16))


if __name__ == "__main__":
    if sys.argv[1] == "systemctl":
        sys.exit(systemctl(*sys.argv[2:]))
    os.nice(-10)  # other work on this computer must not make elections here
    take_root(*sys.argv[1:])
    os.environ["PATH"] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
    Manager().run()

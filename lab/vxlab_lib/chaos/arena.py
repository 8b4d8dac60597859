"""What both arenas share: a cluster, and a vx-fabric that carries its datagrams."""

import json
import os
import shutil

from .. import programs
from ..cluster import Cluster
from ..errors import LabError
from ..node import UNDO
from ..waiting import wait_until
from .fabric_client import FabricClient

FABRIC_TIMEOUT_S = 10.0
STATE_MAX = 1 << 30  # more bytes than the lines of any run have, so that a snapshot holds them all
LOG_BYTES_MAX = 1 << 32  # no rotation, so that the whole log can be matched with the trace


class Arena:
    """One cluster in the new directory `work_dir`. `build` is a Build, `plan` says what to prepare. Use it as a
    context; `close` leaves nothing running."""

    name = ""
    cluster_class = Cluster

    def __init__(self, work_dir, build, plan):
        self.dir = work_dir
        self.build = build
        self.plan = plan
        self.cluster = self.cluster_class(os.path.join(work_dir, "lab"), build.directory)
        self.wire_log = os.path.join(work_dir, "wire.log")
        self.fabric_control = os.path.join(work_dir, "fabric")
        self.fabric = FabricClient(self.fabric_control)

    def settings(self, node):
        """Returns the configuration keys of one node."""
        keys = {"state.max": STATE_MAX, "trace.file": node.path("trace"), "log.max_size": LOG_BYTES_MAX}
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
        """Configures all nodes; starts the fabric, but no node."""
        self.cluster.create(self.plan.nodes, self.settings)
        for node in self.cluster.nodes.values():
            node.environment = self.environment(node)
        self.start_fabric(self.fabric_arguments())
        self.connect_nodes()

    def fabric_arguments(self):
        return []

    def connect_nodes(self):
        pass

    def start_fabric(self, arguments):
        command = ["setpriv", "--pdeathsig", "KILL", self.build.fabric, "--control", self.fabric_control, "--wire-log",
                   self.wire_log, "--seed", str(self.plan.seed), *arguments]
        output = os.path.join(self.dir, "fabric.log")
        self.cluster.holder.ask("spawn", node="fabric", dir=self.dir, output=output, command=command)
        wait_until(lambda: self.fabric.connect() or not self.program_runs("fabric"), FABRIC_TIMEOUT_S,
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
            self.cluster.holder.ask("wait", 15.0, node="fabric", timeout_s=10.0)
        self.fabric.close()

    def node_is_down(self, node_id):
        """Called when a node's process was ended on purpose, before it is started again."""

    def close(self):
        self.fabric.close()
        self.cluster.close()

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


def copy(source, target):
    """Copies a file or a directory. Does nothing if there is none."""
    if os.path.isdir(source):
        left_out = shutil.ignore_patterns("*-shm", UNDO, "payloads")
        shutil.copytree(source, target, ignore_dangling_symlinks=True, ignore=left_out)
    elif os.path.exists(source):
        shutil.copyfile(source, target)


def find_program(directory, name):
    for path in (os.path.join(directory, "bin", name), os.path.join(directory, "lib", name),
                 os.path.join(directory, name)):
        if os.path.exists(path):
            return path
    return None


class Build:
    """The programs of a run. `library` is a libvx_cons.so.1 to use instead of the build tree's."""

    def __init__(self, directory=None, library=None):
        self.directory = os.path.realpath(directory or programs.default_build_dir())
        self.library = os.path.realpath(library) if library else None
        if self.library and not os.path.isfile(self.library):
            raise LabError(f"there is no library {library}")
        self.fabric = self._need("vx-fabric")

    def pin_library(self, directory):
        """Makes all nodes load a copy of `library` from now on, since a build may replace the original."""
        if self.library:
            copy(self.library, os.path.join(directory, "libvx_cons.so.1"))
            self.library = os.path.join(directory, "libvx_cons.so.1")

    def _need(self, name):
        path = find_program(self.directory, name)
        if not path:
            raise LabError(f"there is no {name} in {self.directory}: build it, or name the build tree with --bin")
        return path

    def _sanitizer_runtime(self):
        """Returns the sanitizer runtime that must be loaded before all our libraries, or None."""
        try:
            with open(os.path.join(self.directory, "CMakeCache.txt"), encoding="utf-8") as file:
                cache = dict(line.rstrip("\n").split("=", 1) for line in file if "=" in line)
        except OSError:
            return None
        name = {"address": "libasan.so", "thread": "libtsan.so"}.get(cache.get("VX_SANITIZE:STRING"))
        compiler = next((value for key, value in cache.items() if key.startswith("CMAKE_CXX_COMPILER:")), "")
        if not name or "clang" in compiler:
            return None
        return programs.run([compiler, f"-print-file-name={name}"], "find the sanitizer's runtime").strip()

    def preload(self, options):
        """Returns the shared objects that the daemon preloads."""
        found = [self.library] if self.library else []
        for option, name in (("disk_faults", "libvx_disk_faults.so"), ("clock", "libvx_clock_shift.so")):
            if options.get(option):
                found.append(self._need(name))
        runtime = self._sanitizer_runtime() if found else None
        return [runtime, *found] if runtime else found

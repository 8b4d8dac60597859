"""The programs and libraries of a run."""

import os

from .. import programs
from ..errors import LabError
from .files import copy


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

"""The machine and the versions that something was measured on."""

import os
import platform
import re
import subprocess

from .page import Table

SOURCE = os.path.dirname(os.path.realpath(__file__))


def describe(directory, build_dir=None, further=()):
    """Returns a Table. `directory` lies on the disk that was used; `further`: more rows [what, value]."""
    rows = [
        ["processor", f"{field('/proc/cpuinfo', 'model name')}, {os.cpu_count()} cores"],
        ["memory", mebibytes(field("/proc/meminfo", "MemTotal"))],
        ["system", f"{os_name()}, Linux {platform.release()}, {platform.machine()}"],
        ["disk", file_system(directory)],
        ["source", commit()],
        ["build", build(build_dir)],
        ["python", platform.python_version()],
        ["load at the end", f"{os.getloadavg()[0]:.1f} in the last minute"],
    ]
    return Table(["what", "value"], [row for row in [*rows, *further] if row[1]])


def read(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read()
    except OSError:
        return ""


def field(path, name):
    found = re.search(rf"^{name}\s*:\s*(.*)$", read(path), re.MULTILINE)
    return found[1] if found else "unknown"


def mebibytes(text):
    return f"{int(text.split()[0]) // 1024} MiB" if text.endswith("kB") else text


def os_name():
    found = re.search(r'^PRETTY_NAME="?([^"\n]*)', read("/etc/os-release"), re.MULTILINE)
    return found[1] if found else "unknown"


def file_system(directory):
    """Returns kind and device of the file system that the directory is on."""
    place = os.path.realpath(directory)
    while not os.path.exists(place):
        place = os.path.dirname(place)
    found = ("", "unknown")
    for line in read("/proc/self/mounts").splitlines():
        device, target, kind = line.split()[:3]
        inside = (place + "/").startswith(target.rstrip("/") + "/")
        if inside and len(target) >= len(found[0]):
            found = (target, f"{kind} on {device}")
    return found[1]


def commit():
    """Returns the commit of the source tree; empty where it is not under git."""
    try:
        done = subprocess.run(["git", "-C", SOURCE, "describe", "--always", "--dirty"], capture_output=True, text=True,
                              check=False, timeout=10)
    except OSError:
        return ""
    return done.stdout.strip()


def build(directory):
    if not directory:
        return ""
    cache = read(os.path.join(directory, "CMakeCache.txt"))
    values = [re.search(rf"^{key}:\w+=(.*)$", cache, re.MULTILINE) for key in ("CMAKE_BUILD_TYPE", "CMAKE_CXX_COMPILER")]
    return ", ".join(found[1] for found in values if found and found[1])

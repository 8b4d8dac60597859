"""The programs that a laboratory runs, and the configuration file of a node."""

import os
import subprocess

from .errors import LabError, UsageError

COMMAND_TIMEOUT_S = 60.0
DURABLE_KEY = "cluster.durable_payloads"
YES = ("yes", "true", "on", "1")  # as kesh.conf(5) says
DURABLE = {True: {DURABLE_KEY: "yes"}, False: {DURABLE_KEY: "no"}}  # keys of every node; kesh configure writes yes

CONFIG = """\
# Node {node} of a laboratory; written by vxlab.
cluster.supported = yes
kesh.socket = /run/kesh.sock
log.file = {log}
log.level = {log_level}
"""


class Programs:
    """The programs of a build tree, or of an installation."""

    def __init__(self, build_dir):
        self.build_dir = os.path.realpath(build_dir)
        self.kesh = self._find("vx-kesh")  # kesh, and test aids
        self.node_view = self._find("vx-node-view")

    def _find(self, name):
        for path in (os.path.join(self.build_dir, "bin", name), os.path.join(self.build_dir, name)):
            if os.access(path, os.X_OK):
                return path
        raise UsageError(f"there is no program {name} in {self.build_dir}: build it (./run does), or name the build "
                         "tree with --bin")


LAB = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))


def keepalived_conf():
    """Returns the path of what ships for keepalived: in the source tree, or in an installation."""
    source = os.path.join(os.path.dirname(LAB), "host", "keepalived", "kesh.conf")
    installed = os.path.join(os.path.dirname(os.path.dirname(LAB)), "kesh", "keepalived.conf")
    return source if os.path.exists(source) else installed


def default_build_dir():
    installed = os.path.join(LAB, "programs")  # the installation makes this link
    built = os.path.join(os.path.dirname(LAB), "build")
    return os.environ.get("VXLAB_BIN") or (installed if os.path.isdir(installed) else built)


EVIDENCE = {"log.level": "debug", "log.queue": 0}  # every line, and none lost with a process that is killed


def config_text(node, log, settings):
    """Returns the text of a configuration file. `settings` (key -> value) override the defaults."""
    log_level = settings.get("log.level", "info")
    text = CONFIG.format(node=node, log=log, log_level=log_level)
    return text + "".join(f"{key} = {value}\n" for key, value in settings.items() if key != "log.level")


def set_key(config_path, key, value):
    """Changes a key that the file has already."""
    with open(config_path, encoding="utf-8") as file:
        lines = file.read().splitlines()
    with open(config_path, "w", encoding="utf-8") as file:
        file.writelines(f"{key} = {value}\n" if line.split(" ", 1)[0] == key else f"{line}\n" for line in lines)


def run(command, what, timeout_s=COMMAND_TIMEOUT_S, **options):
    """Returns the standard output of a command that must succeed. `what` names it in the error."""
    try:
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout_s, text=True,
                                errors="replace", **options)
    except subprocess.TimeoutExpired as error:
        raise LabError(f"{what}: no answer within {timeout_s:g} s") from error
    if result.returncode != 0:
        reason = result.stderr.strip() or result.stdout.strip() or f"exit code {result.returncode}"
        raise LabError(f"{what}: {reason}")
    return result.stdout

#!/usr/bin/python3
"""The packages, in a root of their own: install, run three nodes, upgrade, remove, purge, install again.

As root: package_test.py [DIRECTORY]. The directory has the packages; without one, scripts/build-packages makes them."""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
LAB_DIR = "/usr/share/vx_cons/lab"
DOC_DIR = "/usr/share/doc/vx_cons"
VIEW = "/usr/libexec/vx_cons/vx-node-view"
PACKAGES = ("libvx-cons1", "libvx-cons-dev", "kesh")
INDEX_OF_MANUALS = "/var/lib/man-db/auto-update"
TIMEOUT_S = 60.0


def run(*command, **options):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=TIMEOUT_S,
                            check=False, **options)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: exit code {result.returncode}\n{result.stdout}")
    return result.stdout


def mount(kind, target, options):
    os.makedirs(target, exist_ok=True)
    run("mount", "-t", kind, "-o", options, kind, target)


def enter_root(place, packages):
    """Makes `place` a copy of the machine's root that can be written, and enters it. It ends with this process."""
    mount("tmpfs", place, "mode=0755")
    root = os.path.join(place, "root")
    for name in ("upper", "work", "root"):
        os.mkdir(os.path.join(place, name))
    mount("overlay", root, f"lowerdir=/,upperdir={place}/upper,workdir={place}/work,volatile")
    mount("proc", root + "/proc", "nosuid")
    run("mount", "--rbind", "/dev", root + "/dev")
    for name in ("run", "tmp"):
        mount("tmpfs", f"{root}/{name}", "mode=0755")
    shutil.copytree(packages, root + "/tmp/packages")
    os.chroot(root)
    os.chdir("/")
    if os.path.exists(INDEX_OF_MANUALS):  # making it anew takes longer than the rest
        os.remove(INDEX_OF_MANUALS)


class Node:
    """Node 1 has the files of a machine, the others have theirs in /srv."""

    def __init__(self, number, network):
        self.number = number
        own = f"/srv/node{number}"
        place = "" if number == 1 else own
        self.flashdisk, self.config = place + "/flashdisk", place + "/etc/kesh.conf"
        self._view = [VIEW, "--flashdisk", self.flashdisk, "--run", own + "/run", "--net-pid", str(network), "--"]
        self._daemon = None
        for path in (self.flashdisk + "/cons", own + "/run", place + "/etc"):
            os.makedirs(path, exist_ok=True)

    def kesh(self, *arguments, **options):
        return run(*self._view, "kesh", *arguments, **options)

    def configure(self):
        shutil.copy(DOC_DIR + "/examples/kesh.conf.example", self.config)
        self.kesh("check", "--config", self.config)
        self.kesh("configure", "--config", self.config, "--nodes", "3", "--id", str(self.number), "--cluster", "test")

    def start(self):
        self._daemon = subprocess.Popen([*self._view, "kesh", "run", "--config", self.config], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        wait_until(lambda: self.is_running() and self.answers(), f"node {self.number} answers")
        if self.number == 1:
            self.kesh("vrrp", "MASTER")

    def answers(self):
        return subprocess.run([*self._view, "kesh", "health", "--live"], capture_output=True, check=False).returncode == 0

    def is_running(self):
        return self._daemon.poll() is None

    def stop(self):
        self._daemon.terminate()
        return self._daemon.wait(TIMEOUT_S)

    def journal(self):
        return self.kesh("journal").splitlines()


def wait_until(predicate, what):
    from vxlab_lib import waiting  # of the package
    return waiting.wait_until(predicate, TIMEOUT_S, what)


def next_version(packages):
    """Makes packages of a higher version with the same content. Returns their paths."""
    directory = tempfile.mkdtemp()
    for path in packages:
        tree = os.path.join(directory, os.path.basename(path) + ".tree")
        run("dpkg-deb", "-R", path, tree)
        with open(tree + "/DEBIAN/control", encoding="utf-8") as file:
            text = file.read()
        version = re.search(r"^Version: (.*)$", text, re.MULTILINE)[1]
        with open(tree + "/DEBIAN/control", "w", encoding="utf-8") as file:
            file.write(text.replace(f"Version: {version}\n", f"Version: {version}+next\n")
                       .replace(f"(= {version})", f"(= {version}+next)"))
        run("dpkg-deb", "-b", "-Znone", tree, directory)
    return glob.glob(directory + "/*.deb")


def contents(*places):
    """Returns path -> content of all files in these places."""
    files = [os.path.join(folder, name) for place in places for folder, _, names in os.walk(place) for name in names]
    files += [place for place in places if os.path.isfile(place)]
    result = {}
    for path in files:
        with open(path, "rb") as file:
            result[path] = file.read()
    return result


class Packages(unittest.TestCase):
    def install(self, paths):
        run("dpkg", "-i", *paths)
        versions = run("dpkg-query", "-W", "-f", "${Version} ${db:Status-Status}\n", *PACKAGES).splitlines()
        self.assertEqual(len(set(versions)), 1, versions)
        return versions[0]

    def order_lines(self, *words):
        """Each node submits a line for each word; all journals then have them, in one order."""
        for word in words:
            for node in self.nodes:
                self.lines.append(f"{word} of node {node.number}")
                node.kesh("submit", "-", input=self.lines[-1] + "\n")
        wait_until(lambda: all(len(node.journal()) >= len(self.lines) for node in self.nodes), "all lines on all nodes")
        journals = [node.journal() for node in self.nodes]
        self.assertEqual(journals[0], self.lines)
        self.assertEqual(journals[1:], journals[:1] * 2)

    def cluster_files(self):
        return contents(*(place for node in self.nodes for place in (node.flashdisk, node.config)))

    def check_installed(self):
        run("systemd-analyze", "verify", "/lib/systemd/system/kesh.service")  # its program and its manual pages, too
        self.assertTrue(os.path.islink("/etc/systemd/system/multi-user.target.wants/kesh.service"))
        with open("/usr/lib/sysctl.d/30-kesh.conf", encoding="utf-8") as limits, \
                open(DOC_DIR + "/examples/kesh.conf.example", encoding="utf-8") as example:
            self.assertEqual(re.search(r"rmem_max = (\d+)", limits.read())[1],
                             re.search(r"messaging.receive_buffer = (\d+)", example.read())[1])
        for page in glob.glob(DOC_DIR + "/**/*.md", recursive=True):
            with open(page, encoding="utf-8") as file:
                for link in re.findall(r"\]\((?!https?:)([^)#]+)", file.read()):
                    self.assertTrue(os.path.exists(os.path.join(os.path.dirname(page), link)), f"{page}: {link}")

    def check_tools(self):
        run("vxlab", "--dir", "/tmp/lab", "up", "3")
        run("vxlab", "--dir", "/tmp/lab", "kesh", "3", "submit", "-", input="line\n")
        self.assertEqual(run("vxlab", "--dir", "/tmp/lab", "kesh", "1", "journal"), "line\n")
        run("vxlab", "--dir", "/tmp/lab", "down", "--remove")
        run("vx-check", "--help")
        run("vx-sim", "--seed", "1", "--seeds", "1")

    def build_host(self):
        flags = run("pkg-config", "--cflags", "--libs", "vx_cons", "vx_host").split()
        run("cc", "-std=c11", "-Wall", "-Werror", "-o", "/tmp/by_pkg_config", DOC_DIR + "/examples/minimal_host.c", *flags)
        run("cmake", "-S", DOC_DIR + "/examples", "-B", "/tmp/by_cmake")
        run("cmake", "--build", "/tmp/by_cmake")
        for program in ("/tmp/by_pkg_config", "/tmp/by_cmake/minimal_host"):
            told = subprocess.run([program], capture_output=True, text=True, timeout=TIMEOUT_S, check=False)
            self.assertIn("usage", told.stderr.lower(), told)  # it found both libraries

    def test_life_of_an_installation(self):
        first = [path for name in PACKAGES for path in glob.glob(f"/tmp/packages/{name}_*.deb")]
        self.assertEqual(len(first), 3)
        old = self.install(first)
        self.check_installed()
        self.check_tools()
        self.build_host()

        sys.path.insert(0, LAB_DIR)
        network = subprocess.Popen([VIEW, "--tmp", "--net-new", "--", "sh", "-c", "echo up; exec cat"],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(network.communicate)
        self.assertEqual(network.stdout.readline(), "up\n")
        self.nodes, self.lines = [Node(number, network.pid) for number in (1, 2, 3)], []
        for node in self.nodes:
            node.configure()
        for node in self.nodes:
            node.start()
        self.order_lines("a line", "another line")

        self.assertNotEqual(self.install(next_version(first)), old)
        self.assertTrue(all(node.is_running() for node in self.nodes), "an upgrade ends no daemon")
        for node in reversed(self.nodes):
            self.assertEqual(node.stop(), 0)
            node.start()
        self.order_lines("a line after the upgrade")

        self.assertEqual([node.stop() for node in self.nodes], [0, 0, 0])
        shipped = [path for path in run("dpkg", "-L", *PACKAGES).splitlines()
                   if os.path.lexists(path) and not os.path.isdir(path)]
        self.assertIn("/usr/bin/kesh", shipped)
        kept = self.cluster_files()
        self.assertIn("/flashdisk/kesh.store", kept)
        run("dpkg", "-r", *PACKAGES)
        self.assertEqual([path for path in shipped if os.path.lexists(path)], ["/etc/logrotate.d/kesh"])
        self.assertEqual([path for path in (LAB_DIR, DOC_DIR, os.path.dirname(VIEW)) if os.path.exists(path)], [])
        self.assertEqual(self.cluster_files(), kept)
        told = run("dpkg", "--purge", *PACKAGES)
        self.assertIn("/flashdisk/cons is kept", told)
        self.assertEqual(self.cluster_files(), kept)
        self.assertEqual(run("find", "/etc", "/var/lib/systemd", "-name", "*kesh*", "-not", "-name", "kesh.conf"), "")

        self.install(first)  # what was kept is of use
        for node in self.nodes:
            node.start()
        self.order_lines("a line after the purge")
        self.assertEqual([node.stop() for node in self.nodes], [0, 0, 0])


def main():
    if sys.argv[1:2] == ["--inside"]:
        enter_root(*sys.argv[2:])
        unittest.main(argv=sys.argv[:1])
    if os.geteuid() != 0:
        sys.exit("package_test: this needs root, for dpkg")
    with tempfile.TemporaryDirectory(prefix="package-") as place:
        packages = sys.argv[1] if len(sys.argv) > 1 else os.path.join(place, "packages")
        if len(sys.argv) < 2:
            source = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
            subprocess.run([source + "/scripts/build-packages", "--out", packages], check=True)
        own_root = os.path.join(place, "own")
        return subprocess.run(["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "--net", "--ipc",
                               sys.executable, os.path.realpath(__file__), "--inside", own_root, packages],
                              check=False).returncode


if __name__ == "__main__":
    sys.exit(main())

"""An installation is complete, may be moved, and needs nothing but a C compiler of a host."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
BUILD_DIR = os.environ["VX_BUILD_DIR"]
SOURCE_DIR = os.environ["VX_SOURCE_DIR"]
ENVIRONMENT = {key: value for key, value in os.environ.items()
               if not key.startswith(("LD_", "VXLAB_", "PKG_CONFIG_", "CMAKE_"))}


def run(*command, **options):
    result = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False,
                            env={**ENVIRONMENT, **options.pop("environment", {})}, **options)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: exit code {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout


class Installation(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.path = tempfile.mkdtemp(prefix="install-", dir=BUILD_DIR)
        cls.addClassCleanup(shutil.rmtree, cls.path)
        cls.first = os.path.join(cls.path, "first")
        cls.root = os.path.join(cls.path, "moved", "here")
        run("cmake", "--install", BUILD_DIR, "--prefix", cls.first)
        os.makedirs(os.path.dirname(cls.root))
        os.rename(cls.first, cls.root)
        sys.path.insert(0, os.path.join(cls.root, "share", "vx_cons", "lab"))

    def installed(self, *parts):
        return os.path.join(self.root, *parts)

    def files(self):
        for directory, _, names in os.walk(self.root):
            yield from (os.path.join(directory, name) for name in names)

    def test_names_no_place_that_it_was_in(self):
        for path in self.files():
            with self.subTest(os.path.relpath(path, self.root)), open(path, "rb") as file:  # open: no link is broken
                content = file.read()
                if content.startswith(b"\x7fELF"):
                    ways = re.findall(r"\(R(?:UN)?PATH\).*\[(.*)\]", run("readelf", "-d", path))
                    self.assertTrue(all(way.startswith("$ORIGIN/") for way in ways), ways)
                else:
                    for place in (self.first, BUILD_DIR, SOURCE_DIR):
                        self.assertNotIn(place.encode(), content)

    def test_documents_link_to_what_is_there(self):
        documents = [path for path in self.files() if path.endswith(".md")]
        self.assertGreater(len(documents), 5)
        for path in documents:
            with open(path, encoding="utf-8") as file:
                links = re.findall(r"\]\((?!https?:)([^)#]+)", file.read())
            missing = [link for link in links if not os.path.exists(os.path.join(os.path.dirname(path), link))]
            self.assertEqual(missing, [], path)

    def test_programs_run_from_it(self):
        def vxlab(*arguments, **options):
            return run(self.installed("bin", "vxlab"), "--dir", os.path.join(self.path, "lab"), *arguments, **options)

        self.addCleanup(vxlab, "down", "--remove")
        vxlab("up", "3")
        vxlab("kesh", "2", "submit", "-", input="one\ntwo\n")
        self.assertEqual(vxlab("kesh", "2", "journal"), "one\ntwo\n")
        for program in ("kesh", "vx-check"):
            run(self.installed("bin", program), "--help")
        run(self.installed("bin", "vx-sim"), "--seed", "1", "--seeds", "1")

    def build_with_pkg_config(self):
        program = os.path.join(self.path, "by_pkg_config")
        where = {"PKG_CONFIG_PATH": self.installed("lib", "pkgconfig")}
        flags = run("pkg-config", "--cflags", "--libs", "vx_cons", "vx_host", environment=where).split()
        libraries = run("pkg-config", "--variable=libdir", "vx_cons", environment=where).strip()
        run("cc", "-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-O2", "-o", program,
            self.installed("share", "doc", "vx_cons", "examples", "minimal_host.c"), *flags, f"-Wl,-rpath,{libraries}")
        return program

    def build_with_cmake(self):
        build = os.path.join(self.path, "by_cmake")
        run("cmake", "-G", "Ninja", "-S", self.installed("share", "doc", "vx_cons", "examples"), "-B", build,
            f"-DCMAKE_PREFIX_PATH={self.root}")
        run("cmake", "--build", build)
        return os.path.join(build, "minimal_host")

    def test_a_host_in_c(self):
        from minimal_cluster import MinimalCluster  # needs what setUpClass has installed
        by_pkg_config, by_cmake = self.build_with_pkg_config(), self.build_with_cmake()
        cluster = MinimalCluster(self.installed("libexec", "vx_cons", "vx-node-view"),
                                 os.path.join(self.path, "cluster"), {1: by_pkg_config, 2: by_cmake, 3: by_cmake})
        self.addCleanup(cluster.close)
        first, second, third = cluster.start_all()
        for node in cluster.nodes.values():
            node.submit(5)
        cluster.await_lines(15)
        self.assertEqual(third.stop(), 0)
        first.submit(130)  # more than a log holds, so that only a snapshot brings the third node up to date
        second.submit(130)
        cluster.await_lines(275, (first, second))
        third.start()
        third.submit(5)
        cluster.await_lines(280)
        self.assertEqual([node.stop() for node in cluster.nodes.values()], [0, 0, 0])

        orders = [node.order() for node in cluster.nodes.values()]
        self.assertEqual(orders[0], orders[1])
        self.assertEqual(list(orders[0]), list(range(1, 281)))
        self.assertLess(orders[2].items(), orders[0].items())
        missing = orders[0].keys() - orders[2].keys()
        self.assertIn(max(missing), third.snapshots(), "a snapshot stands for what it never delivered")
        submitted = [text for node in cluster.nodes.values() for text in node.submitted]
        self.assertCountEqual([text for _, text in orders[0].values()], submitted)


if __name__ == "__main__":
    unittest.main()

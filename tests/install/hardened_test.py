"""What ships is hardened. A flag that got lost, or that a target does not take over, changes nothing else."""

import os
import re
import subprocess
import tempfile
import unittest

BUILD_DIR = os.environ["VX_BUILD_DIR"]
SOURCE_DIR = os.environ["VX_SOURCE_DIR"]
IS_OPTIMISED = os.environ.get("VX_OPTIMISED", "1") == "1"
PROGRAM = "bin/kesh"
LIBRARIES = ("lib/libvx_cons.so.1", "lib/libvx_host.so.1")


def read_elf(path):
    return subprocess.run(["readelf", "-W", "-h", "-l", "-d", "--dyn-syms", os.path.join(BUILD_DIR, path)],
                          capture_output=True, text=True, check=True, env={**os.environ, "LC_ALL": "C"}).stdout


class Hardened(unittest.TestCase):
    def test_addresses_are_fixed_once_at_random_places(self):
        for path in (PROGRAM, *LIBRARIES):
            with self.subTest(path):
                text = read_elf(path)
                self.assertRegex(text, r"Type: +DYN")
                self.assertRegex(text, r"\n +GNU_RELRO ")
                self.assertRegex(text, r"\(FLAGS\).* BIND_NOW|\(FLAGS_1\).* NOW")
                self.assertRegex(text, r"\n +GNU_STACK .* RW +0x")
                self.assertNotIn("TEXTREL", text)
        self.assertRegex(read_elf(PROGRAM), r"\(FLAGS_1\).* PIE")

    def test_overruns_are_noticed(self):
        for path in (PROGRAM, *LIBRARIES):
            with self.subTest(path):
                names = set(re.findall(r" UND (\w+)", read_elf(path)))
                self.assertIn("__stack_chk_fail", names)
                if IS_OPTIMISED:
                    self.assertTrue([name for name in names if re.fullmatch(r"__\w+_chk", name)], "no fortified call")

    def test_the_unit_is_sound_and_gives_few_rights(self):
        with tempfile.TemporaryDirectory(prefix="unit-", dir=BUILD_DIR) as directory:
            path = os.path.join(directory, "kesh.service")
            with open(os.path.join(SOURCE_DIR, "host", "systemd", "kesh.service"), encoding="utf-8") as file:
                unit = file.read()
            with open(path, "w", encoding="utf-8") as file:
                file.write(unit.replace("/usr/bin/kesh", os.path.join(BUILD_DIR, PROGRAM)))
            for words in (("verify", "--man=no"), ("security", "--offline=yes", "--threshold=21")):
                told = subprocess.run(["systemd-analyze", *words, path], capture_output=True, text=True, check=False)
                self.assertEqual((told.returncode, told.stderr), (0, ""), words)


if __name__ == "__main__":
    unittest.main()

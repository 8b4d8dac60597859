#!/usr/bin/python3
"""Clusters in one process, every interleaving from a seed. Usage: sim_test.py VX_SIM [unittest options]"""

import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
VX_SIM = sys.argv.pop(1)


def run(*options):
    return subprocess.run([VX_SIM, *options], capture_output=True, text=True, timeout=500)


class Simulator(unittest.TestCase):
    def assert_good(self, *options):
        done = run(*options)
        self.assertEqual(done.returncode, 0, done.stdout[-2000:] + done.stderr[-6000:])
        return done

    def test_a_seed_is_one_execution(self):
        """The lines hold a hash over every step; a trace holds every step itself."""
        options = ("--seeds", "20", "--steps", "60", "--verbose")
        first = self.assert_good(*options)
        self.assertEqual(first.stdout, self.assert_good(*options).stdout)
        self.assertEqual(len(set(line.rsplit(" ", 1)[1] for line in first.stdout.splitlines()[:20])), 20)
        with_kernel_threads = self.assert_good("--seeds", "2", *options[2:], "--kernel-threads")
        self.assertEqual(first.stdout.splitlines()[:2], with_kernel_threads.stdout.splitlines()[:2])
        with tempfile.TemporaryDirectory() as directory:
            traces = []
            for name in "ab":
                path = os.path.join(directory, name)
                self.assert_good("--seed", "7", "--steps", "40", "--trace", path)
                with open(path, "rb") as file:
                    traces.append(file.read())
            self.assertEqual(traces[0], traces[1])
            self.assertGreater(len(traces[0]), 100_000)

    def test_what_was_found_once(self):
        with open(os.path.join(HERE, "regressions"), encoding="utf-8") as file:
            lines = [line.split() for line in file if line.strip() and not line.startswith("#")]
        self.assertTrue(lines)
        for options in lines:
            with self.subTest(options=" ".join(options)):
                self.assert_good(*options)

    def test_no_promise_is_broken(self):
        self.assert_good("--seed", "1000", "--seeds", "240")
        self.assert_good("--seed", "2000", "--seeds", "60", "--payloads", "memory")
        self.assert_good("--seed", "3000", "--seeds", "10", "--nodes", "5", "--steps", "100")
        self.assert_good("--seed", "4000", "--seeds", "2", "--nodes", "16", "--steps", "20")

    def test_a_wrong_command_line_is_refused(self):
        for options, said in ((("--faults", "no-such"), 'no fault is named "no-such"'),
                              (("--library", "/no/such"), "cannot read the library /no/such"),
                              (("--nodes", "17"), "--nodes")):
            done = run(*options)
            self.assertEqual(done.returncode, 2)
            self.assertIn(said, done.stderr)


if __name__ == "__main__":
    unittest.main()

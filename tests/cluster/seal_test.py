"""Sealed datagrams: a key is introduced and rotated while lines go on, and a node with the wrong key takes no part."""

import os
import subprocess
import unittest

from scenario import Scenario, wait_until

BAD_CONFIG = 3


class Sealed(Scenario):
    def settings(self, node):
        os.makedirs(node.path("flashdisk"), exist_ok=True)
        self.write_keys(node, "seal plain")
        return {"messaging.keys": "/flashdisk/kesh.keys"}

    def write_keys(self, node, *lines):
        path = node.path("flashdisk", "kesh.keys")
        with open(path + ".new", "w", encoding="ascii") as file:
            file.writelines(line + "\n" for line in lines)
        os.chmod(path + ".new", 0o600)
        os.rename(path + ".new", path)

    def reload(self, number, *lines):
        node = self.cluster.node(number)
        self.write_keys(node, *lines)
        return subprocess.run(node.kesh("reload"), cwd=node.dir, capture_output=True, text=True, check=False, timeout=20)

    def keygen(self):
        node = self.cluster.node(1)
        return subprocess.run(node.kesh("keygen")[:2], capture_output=True, text=True, check=True).stdout.strip()

    def heard_with(self, number):
        """Returns the key with which the node has heard each of the others."""
        return {peer["key"] for peer in self.cluster.status(number)["messages"]["peers"] if peer["node"] != number}

    def drops_all_of_the_others(self, number):
        peers = [peer for peer in self.cluster.status(number)["messages"]["peers"] if peer["node"] != number]
        return len(peers) == 2 and all("unknown_key" in peer["dropped"] for peer in peers)

    def test_a_key_is_introduced_and_rotated_while_lines_go_on(self):
        one, two = (f"{number} {self.keygen()}" for number in (1, 2))
        part = self.submit(2, 300, window=1)
        for key, lines in ((None, ("seal plain", f"accept {one}")), (1, (f"seal {one}", "accept plain")),
                           (1, (f"seal {one}",)), (1, (f"seal {one}", f"accept {two}")),
                           (2, (f"seal {two}", f"accept {one}")), (2, (f"seal {two}",))):
            for number in (1, 2, 3):
                self.assertEqual(self.reload(number, *lines).returncode, 0)
                self.submit(1, 10).wait(10.0)
            if key:
                wait_until(lambda: all(self.heard_with(number) == {key} for number in (1, 2, 3)), 10.0,
                           f"all are heard with key {key}")
        part.wait()
        self.cluster.restart(3)
        self.submit(3, 20).wait()
        self.check_all()

        refused = self.reload(3, f"seal {two}", "accept")
        self.assertEqual(refused.returncode, BAD_CONFIG)
        self.assertIn("line 2: expected an identifier", refused.stderr)
        self.submit(3, 20).wait()
        self.reload(3, f"seal {one}")
        wait_until(lambda: self.drops_all_of_the_others(3), 20.0, "node 3 drops what the others send")
        wait_until(lambda: "not ordering: only 1 of 3 nodes heard" in self.cluster.status(3)["cluster"]["sentence"], 20.0,
                   "node 3 hears nobody")
        self.await_log(3, "sealed with a key that the key file does not have")
        self.submit(1, 20).wait()
        self.reload(3, f"seal {two}")
        self.submit(3, 20).wait()
        self.check_all()


if __name__ == "__main__":
    unittest.main()

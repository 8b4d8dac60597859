"""The network as machines have it: an interface that is removed and made again, an address that comes after the daemon."""

import json
import re
import subprocess
import time
import unittest

from scenario import BUILD_DIR, Scenario, wait_until

from vxlab_lib import programs
from vxlab_lib.chaos.arena import WireCluster

DEVICE = "vx0"
BRIDGE = "vxbridge"
DEAF_MAX_S = 10.0  # hellos come once a second; a node that is deaf stays so
NO_NETWORK = "not ordering: this node has no network: "


def address(node):
    return f"10.81.0.{node}"


class Network(Scenario):
    """Each node has a network of its own, with one port of a bridge that is in another one."""

    settings = {f"messaging.node[{node}].address": address(node) for node in (1, 2, 3)}

    def make_cluster(self):
        return WireCluster(self.path, BUILD_DIR)

    def before_start(self):
        view = self.cluster.programs.node_view
        self.switch = self.cluster.holder.ask("spawn", node="switch", dir=self.path, output=f"{self.path}/switch.log",
                                              command=[view, "--net-new", "--", "sleep", "infinity"])["pid"]
        for pid in (self.switch, *(node.net_pid for node in self.cluster.nodes.values())):
            wait_until(lambda pid=pid: self.program_of(pid) == "sleep", 10.0, f"process {pid} has a network of its own")
        self.on_switch("ip", "link", "add", BRIDGE, "type", "bridge")
        self.on_switch("ip", "link", "set", BRIDGE, "up")
        for node in self.cluster.nodes:
            self.plug(node)
            self.give_address(node)

    @staticmethod
    def program_of(pid):
        with open(f"/proc/{pid}/comm", encoding="ascii") as name:
            return name.read().strip()

    def on_switch(self, *command):
        return programs.run([self.cluster.programs.node_view, "--net-pid", str(self.switch), "--", *command], command)

    def ip(self, node, *arguments):
        return programs.run(self.cluster.node(node).view("ip", *arguments), f"ip of node {node}")

    def plug(self, node):
        self.on_switch("ip", "link", "add", f"vx{node}", "type", "veth", "peer", "name", DEVICE, "netns",
                       str(self.cluster.node(node).net_pid))
        self.on_switch("ip", "link", "set", f"vx{node}", "master", BRIDGE, "up")
        self.ip(node, "link", "set", DEVICE, "up")

    def give_address(self, node):
        self.ip(node, "address", "add", f"{address(node)}/24", "dev", DEVICE)

    def sentence(self, node):
        return self.cluster.status(node)["cluster"]["sentence"]

    def await_sentence(self, node, beginning):
        wait_until(lambda: self.sentence(node).startswith(beginning), 30.0,
                   lambda: f"node {node} says: {beginning}; it says: {self.sentence(node)}")

    def await_hearing(self):
        """Waits until each node has heard all others since now. Returns how long that took."""
        begin = time.monotonic()

        def has_heard_all(node):
            since_ms = 1000 * (time.monotonic() - begin)
            peers = self.cluster.status(node)["cluster"]["peers"]
            return len(peers) == self.nodes - 1 and all(peer["age_ms"] < since_ms for peer in peers)

        for node in self.cluster.nodes:
            self.await_sentence(node, "ordering")
            wait_until(lambda node=node: has_heard_all(node), 30.0, f"node {node} hears all others")
        return time.monotonic() - begin

    def test_an_interface_that_is_made_anew_is_used_at_once(self):
        for node, remaining in ((3, 1), (1, 2)):  # a follower, then the node that leads
            pid = self.cluster.node(node).pid()
            self.submit(remaining, 20).wait()
            self.ip(node, "link", "delete", DEVICE)
            self.await_sentence(node, f"{NO_NETWORK}address {address(node)} is on no interface")
            self.plug(node)
            self.give_address(node)
            self.assertLess(self.await_hearing(), DEAF_MAX_S)
            self.submit(node, 20).wait()
            self.assertEqual(self.cluster.node(node).pid(), pid)
            told = re.findall("messaging: this node (.*)", self.log_of(node))
            self.assertEqual(told, [f"has no network: address {address(node)} is on no interface; it waits for that",
                                    f"is on the network, by interface {DEVICE}; it has joined the group there"])
        self.check_all()

    def test_an_address_may_come_after_the_daemon(self):
        self.cluster.stop(2)
        self.ip(2, "link", "delete", DEVICE)
        self.cluster.start(2)
        self.submit(1, 20).wait()
        self.await_sentence(2, f"{NO_NETWORK}address {address(2)} is on no interface; only 1 of 3 nodes heard")
        self.plug(2)
        self.give_address(2)
        self.await_hearing()
        self.submit(2, 20).wait()
        self.assertIn('"address": "10.81.0.2"', programs.run(self.cluster.node(1).kesh("status", "--json"), "status",
                                                           cwd=self.cluster.node(1).dir))
        self.check_all()

    def probe(self, node):
        command = self.cluster.node(node).kesh("probe", "--count", "10", "--json")
        result = subprocess.run(command, cwd=self.cluster.node(node).dir, capture_output=True, text=True, check=False,
                                timeout=30)
        return result.returncode, {peer["node"]: peer for peer in json.loads(result.stdout)["peers"]}

    def test_a_probe_tells_what_the_network_does(self):
        self.on_switch("ip", "link", "set", "vx2", "mtu", "1400")
        code, peers = self.probe(1)
        self.assertEqual(code, 0)
        for node, mtu in ((2, 1400), (3, 1500)):
            for way in ("unicast", "multicast"):
                self.assertEqual((peers[node][way]["answered"], peers[node][way]["mtu"]), (10, mtu), (node, way))
                times = peers[node][way]["rtt_us"]
                self.assertTrue(0 < times["min"] <= times["avg"] <= times["max"] < 5e6, times)
        self.cluster.stop(3)
        code, peers = self.probe(1)
        self.assertEqual((code, peers[2]["unicast"]["answered"], peers[3]["unicast"]["answered"]), (5, 10, 0))
        self.assertNotIn("not sent", self.log_of(1))


if __name__ == "__main__":
    unittest.main()

"""Strangers on the cluster's multicast group: valid messages, but of another cluster or build. A node that accepted one
would diverge, since the numbers in them are far above the cluster's own.

Run it as a program inside a node's network: ADDRESS CLUSTER BUILD COUNT SEED.
"""

import os
import random
import re
import socket
import struct
import subprocess
import sys
import time

from ..errors import LabError

PORT_BASE = 17480
GROUP = "224.0.0.81"
NUMBER = 1_000_000


def payloads():
    """Yields (channel, payload) of messages that would change the state of a node that accepts them."""
    log = struct.pack("<I", 2) + struct.pack("<BI", 1, NUMBER) + struct.pack("<BI", 2, NUMBER + 1) + bytes(248 * 5)
    yield 4, struct.pack("<II", 0, NUMBER) + bytes(5) + log + b"\0"
    yield 4, struct.pack("<IBI", 1, 1, NUMBER) + bytes(3)
    yield 3, struct.pack("<III", 0, 2, NUMBER)
    yield 3, struct.pack("<IIII", 3, 2, NUMBER, len(log)) + log
    yield 5, struct.pack("<HBBI", 0, 1, 1, NUMBER)
    yield 5, struct.pack("<HBBI", 4, 2, 1, 1)


def datagram(channel, payload, cluster_id, build):
    envelope = struct.pack("<QI4BI", cluster_id, build, 127, 1, 0, 1, len(payload))
    return b"VX\0" + bytes([channel]) + envelope + payload


def main(address, cluster, build, count, seed):
    """`address` is that of the device that reaches the group, `cluster` and `build` are those of the nodes."""
    draw = random.Random(seed)
    others = [(cluster ^ 1, build), (cluster ^ (1 << 40), build), (cluster ^ (1 << 31), build), (cluster, build + 1),
              (cluster, build ^ (1 << 24))]
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 1)
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
        for _ in range(count):
            channel, payload = draw.choice(list(payloads()))
            sock.sendto(datagram(channel, payload, *draw.choice(others)), (GROUP, PORT_BASE + channel))
            time.sleep(0.002)


def cluster_number(config_path):
    """Returns the number of the cluster, the MAC address of node 1."""
    with open(config_path, "rb") as file:
        found = re.search(rb"^cluster\.node\[0\]\.mac *= *\"?([0-9a-fA-F:]{17})", file.read(), re.MULTILINE)
    if not found:
        raise LabError(f"{config_path} does not tell the MAC address of node 1")
    return int(found[1].replace(b":", b""), 16)


def build_number(log_path):
    with open(log_path, "rb") as file:
        found = re.search(rb"kesh: starting, build (\d+)", file.read())
    if not found:
        raise LabError(f"{log_path} does not tell the build number")
    return int(found[1])


def send(cluster, address_of, count, seed):
    """Sends the messages from inside the network of the lowest running node."""
    node = cluster.node(min(cluster.running()))
    lab_parent = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
    command = [sys.executable, "-B", "-m", "vxlab_lib.chaos.strangers", address_of(node.id),
               str(cluster_number(node.path("kesh.conf"))), str(build_number(node.log_path)), str(count), str(seed)]
    subprocess.run(node.inside(command), cwd=lab_parent, check=True, timeout=30.0)


if __name__ == "__main__":
    main(sys.argv[1], *(int(word) for word in sys.argv[2:]))

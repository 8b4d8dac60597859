"""How long is nothing acknowledged when the MASTER goes? By hand, it is no test:

    VX_BUILD_DIR=build/gcc VX_LAB_DIR=$PWD/lab tests/cluster/failover_figures.py [FAILOVERS]

Three machines with keepalived as it ships, each with a client that submits one line after the other. For each kind of
end the MASTER goes so often, and comes back before the next time.
"""

import os
import shutil
import statistics
import sys
import tempfile
import time

from scenario import BUILD_DIR, wait_until
from vxlab_lib.waiting import WaitTimeout

from machine import Load, Site, enter_own_namespaces, install_tree, longest_gap
from procedures import NODES, bash, read_sections, run_block

BACK_S = 120.0
KILL = r"kill -9 $(kesh status | sed -n 's/.* process \([0-9]*\),.*/\1/p')"


def is_ready(machine):
    return bash(machine, "kesh health --ready").returncode == 0


def leads(site, node):
    """Whether it does, and all are ready. The node of the highest priority is meant: none takes its place then."""
    return "leader         yes" in bash(site.machines[node], "kesh status").stdout and all(map(is_ready, site.machines.values()))


def await_new_master(site, old):
    """Until one of the others has an acknowledgement: the load sees when."""
    others = [machine for node, machine in site.machines.items() if node != old]
    wait_until(lambda: bash(others[0], "echo after | kesh submit --timeout 20").returncode == 0, BACK_S, "order goes on")


def fail_over(site, end, come_back):
    """Returns the seconds in which nothing was acknowledged."""
    node = max(NODES)
    wait_until(lambda: leads(site, node), BACK_S, f"node {node} leads, and all are ready")
    loads = [Load(machine) for number, machine in site.machines.items() if number != node]
    wait_until(lambda: bash(site.machines[node % 3 + 1], "echo before | kesh submit").returncode == 0, BACK_S, "order")
    began = time.time()
    end(site.machines[node])
    await_new_master(site, node)
    ended = time.time()
    gap = longest_gap([row for load in loads for row in load.end()], began, ended)
    come_back(site.machines[node])
    return gap


KINDS = {
    "its machine loses power": (lambda machine: machine.power_off(), lambda machine: machine.boot()),
    "its daemon is killed": (lambda machine: bash(machine, KILL), lambda machine: None),  # systemd starts it again
    "keepalived is stopped": (lambda machine: bash(machine, "systemctl stop keepalived"),
                              lambda machine: bash(machine, "systemctl start keepalived")),
}


def measure(path, count):
    install_tree(BUILD_DIR, os.path.join(path, "tree"))
    os.mkdir(os.path.join(path, "site"))
    site = Site(os.path.join(path, "site"))
    try:
        for node in NODES:
            site.add(node).deliver(os.path.join(path, "tree"))
            site.machines[node].boot()
        for block in read_sections()["First cluster on three machines"]:
            run_block(site, block)
        for kind, steps in KINDS.items():
            gaps = []
            for _ in range(count):
                gaps.append(fail_over(site, *steps))
                print(f"{kind}: {gaps[-1]:.2f} s", flush=True)
            print(f"{kind}, {count} times: median {statistics.median(gaps):.2f} s, max {max(gaps):.2f} s; load "
                  f"{os.getloadavg()[0]:.0f}", flush=True)
    except WaitTimeout:
        for machine in site.machines.values():
            print(bash(machine, "kesh status; tail -n 20 /var/log/kesh.log; tail -n 20 /var/log/keepalived.out").stdout)
        raise
    finally:
        site.close()


if __name__ == "__main__":
    enter_own_namespaces()
    work_dir = tempfile.mkdtemp(prefix="failovers-", dir=BUILD_DIR)
    try:
        measure(work_dir, int(sys.argv[1]) if len(sys.argv) > 1 else 20)
    finally:
        shutil.rmtree(work_dir)

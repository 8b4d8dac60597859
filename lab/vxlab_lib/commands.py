"""The commands of vxlab. One function per command adds its parser."""

import argparse
import json
import subprocess
import sys

from . import bench, bench_clients, demo, network
from .chaos.command import add_command as chaos
from .cluster import NODES_MAX, Cluster
from .errors import LabError, NoLabError, UsageError
from .progress import Progress
from .report import needs


def lab(options):
    """Returns the laboratory of the run directory, which must be up."""
    cluster = Cluster(options.dir, options.bin)
    if not cluster.dir.holder_pid():
        raise NoLabError(f"no laboratory is up in {cluster.dir.path}: `vxlab up 3` starts one")
    return cluster


def add(subparsers, name, help_text, run, **more):
    parser = subparsers.add_parser(name, help=help_text, description=help_text, **more)
    parser.set_defaults(run=run)
    return parser


def add_node(parser):
    parser.add_argument("node", type=int, metavar="NODE", help="number of a node, from 1")
    return parser


def up(subparsers):
    def run(options):
        progress = Progress()
        cluster = Cluster(options.dir, options.bin)
        try:
            if options.keep:
                if not cluster.nodes:
                    raise UsageError(f"{cluster.dir.path} holds no cluster that could be kept")
                cluster.open(detached=True)
            else:
                progress.say(f"{options.count} nodes are made in {cluster.dir.path}")
                cluster.create(options.count, dict(options.set or []), detached=True)
            for node_id in cluster.nodes:
                progress.update(f"node {node_id} starts")
                cluster.start(node_id)
            if not cluster.masters():
                cluster.set_master(1)
            cluster.await_active()
        except BaseException:
            if cluster.holder.started_here:
                cluster.close()
            raise
        progress.say(f"the cluster is up, node {cluster.masters()[0]} is MASTER")

    parser = add(subparsers, "up", "make a new cluster and start it (an old one in the run directory is removed)", run)
    parser.add_argument("count", type=int, nargs="?", default=3, metavar="N",
                        help=f"number of nodes, 1 to {NODES_MAX} (default 3)")
    parser.add_argument("--keep", action="store_true", help="start the cluster that is in the run directory again")
    parser.add_argument("--set", action="append", type=setting, metavar="KEY=VALUE",
                        help="a configuration key for every node; repeat it for more")


def setting(text):
    key, equals, value = text.partition("=")
    if not key or not equals:
        raise ValueError(text)
    return key.strip(), value.strip()


def down(subparsers):
    def run(options):
        cluster = Cluster(options.dir, options.bin)
        cluster.close()
        if options.remove:
            cluster.dir.remove()

    parser = add(subparsers, "down", "stop all nodes and end the laboratory; fine if there is none", run)
    parser.add_argument("--remove", action="store_true", help="remove the run directory, too")


def status(subparsers):
    def run(options):
        cluster = lab(options)
        rows = {node_id: node_status(cluster, node_id) for node_id in cluster.nodes}
        if options.json:
            print(json.dumps({"nodes": rows, "partition": [sorted(part) for part in cluster.partition_parts()]}))
            return
        form = "{:>4}  {:<8} {:<7} {:<6} {:>9} {:>8} {:>8}  {:<16}"
        print(form.format("node", "process", "state", "active", "decision", "payloads", "lines", "hash"))
        for node_id, row in rows.items():
            found = row["status"]
            cells = ["-", "-", "-", "-", "-"]
            if found:
                decision, lines = found["decision"], found["journal"]
                cells = ["yes" if found["active"] else "no", decision["number"] if decision else "-", lines["n"],
                         lines["lines"], lines["hash"]]
            print(form.format(node_id, row["process"], row["state"], *cells))
        parts = cluster.partition_parts()
        if parts:
            print("partition: " + " | ".join(",".join(map(str, sorted(part))) for part in parts))

    parser = add(subparsers, "status", "all nodes at a glance", run)
    parser.add_argument("--json", action="store_true", help="everything, for programs")


def node_status(cluster, node_id):
    node = cluster.node(node_id)
    process = node.process()
    found, what = None, "down"
    if process and process["running"]:
        try:
            found, what = node.control.status(timeout_s=2.0), "running"
        except LabError:
            what = "mute"  # paused, or not up yet
    elif process and process["exit_code"]:
        what = f"exit {process['exit_code']}" if process["exit_code"] > 0 else f"signal {-process['exit_code']}"
    return {"process": what, "state": node.state(), "status": found}


def kesh(subparsers):
    def run(options):
        node = lab(options).node(options.node)
        command = node.kesh(options.command, *options.arguments)
        return subprocess.run(command, cwd=node.dir, check=False).returncode

    parser = add_node(add(subparsers, "kesh", "run a command of kesh on a node, in the node's directory", run))
    parser.add_argument("command", metavar="COMMAND", help="submit, journal, status, say, heard, ..")
    parser.add_argument("arguments", nargs=argparse.REMAINDER, metavar="ARGUMENT", help="as for kesh; files by absolute paths")


def master(subparsers):
    def run(options):
        lab(options).set_master(*options.nodes)

    parser = add(subparsers, "master", "say MASTER to this node and BACKUP to all others, as keepalived would", run)
    parser.add_argument("nodes", type=int, nargs="+", metavar="NODE", help="several make a split brain")


def one_node(name, help_text, act):
    def command(subparsers):
        def run(options):
            act(lab(options), options.node)

        add_node(add(subparsers, name, help_text, run))

    return command


start = one_node("start", "start a node that is down", lambda cluster, node: cluster.start(node))
stop = one_node("stop", "stop a node cleanly", lambda cluster, node: cluster.stop(node))
kill = one_node("kill", "kill -9 a node", lambda cluster, node: cluster.kill(node))
pause = one_node("pause", "freeze a node", lambda cluster, node: cluster.node(node).pause())
resume = one_node("resume", "let a frozen node go on", lambda cluster, node: cluster.node(node).resume())


def partition(subparsers):
    def run(options):
        cluster = lab(options)
        cluster.partition(*network.parse_partition("|".join(options.parts), len(cluster.nodes)))

    parser = add(subparsers, "partition", "split the network: nodes of different parts do not hear each other", run)
    parser.add_argument("parts", nargs="+", metavar="NODES", help="one part, such as 1,2 or 3-5; nodes left out are "
                        "one more part ('1,2|3' in one word works, too)")


def heal(subparsers):
    add(subparsers, "heal", "end the partition", lambda options: lab(options).heal())


def execute(subparsers):
    def run(options):
        node = lab(options).node(options.node)
        return subprocess.run(node.inside(options.command), check=False).returncode

    parser = add_node(add(subparsers, "exec", "run a command inside a node's view: its files, queues and network", run))
    parser.add_argument("command", nargs="+", metavar="COMMAND", help="after -- if it has options")


def run_demo(subparsers):
    def run(options):
        needs.demand(options.report)
        progress = Progress()
        path = demo.text_file(options.file)
        with Cluster(options.dir, options.bin) as cluster:
            show = demo.Demo(cluster, progress)
            rows = show.run(path, options.lines)
        progress.say("all journals are equal")
        print()
        demo.print_summary(rows, sys.stdout)
        print(f"\nThe journals are in {cluster.dir.path}/node*/flashdisk/kesh.store.")
        if options.report:
            from .report import demo_page, machine, page  # the packages that they need may be missing

            measured_on = machine.describe(cluster.dir.path, cluster.programs.build_dir)
            text = demo_page.demo_page(rows, show.timeline(), measured_on)
            print(f"What happened, to look at: {page.write(options.report, 'demo.html', text)}")

    parser = add(subparsers, "demo", "three nodes order a real text, lose their leader and take it back", run)
    parser.add_argument("file", nargs="?", metavar="FILE", help="text to take (default: one that Debian ships)")
    parser.add_argument("--lines", type=int, metavar="N",
                        help="take N lines (default: as many as this disk does in a minute)")
    needs.add_option(parser, "demo.html")


def run_bench(subparsers):
    def run(options):
        needs.demand(options.report)
        progress = Progress()
        if options.clients:
            with Cluster(options.dir, options.bin) as cluster:
                found = bench_clients.measure(cluster, options.clients, round(options.seconds), progress)
            progress.close()
            bench_clients.print_found(found, sys.stdout)
            return write_bench_report(options, cluster, clients=found)
        plan = bench.Plan(options.nodes, options.roles, options.sizes, options.submitters, options.seconds,
                          options.durable)
        with Cluster(options.dir, options.bin) as cluster:
            rows, idle, roll_overs = bench.Bench(cluster, progress).run(plan)
        progress.close()
        bench.print_table(rows, idle, roll_overs, sys.stdout)
        path = options.csv or cluster.dir.file("bench.csv")
        bench.write_csv(rows, path)
        print(f"written to {path}")
        write_bench_report(options, cluster, rows=rows, idle=idle, roll_overs=roll_overs)

    parser = add(subparsers, "bench", "measure submissions against the cost of a durable save", run)
    numbers = {"type": number_list, "metavar": "LIST"}
    parser.add_argument("--clients", nargs="?", const=bench_clients.CLIENTS, help="instead: so many clients with one "
                        "line under way each, at kesh and at etcd (default 1,32,256,1000)", **numbers)
    parser.add_argument("--nodes", default=[3], help="sizes of cluster (default 3; all: 3,5,16)", **numbers)
    parser.add_argument("--roles", default=["leader", "follower"], type=lambda text: text.split(","), metavar="LIST",
                        help="where to submit (default leader,follower)")
    parser.add_argument("--sizes", default=[100, 10_000, 1_000_000, 10_000_000],
                        help="payload bytes (default 100,10000,1000000,10000000)", **numbers)
    parser.add_argument("--submitters", default=[1, 4, 16], help="lines under way at once (default 1,4,16)", **numbers)
    parser.add_argument("--durable", action="store_true", help="each also with durable payloads, the ratios, and what "
                        "a new log costs")
    parser.add_argument("--seconds", type=float, default=3.0, help="about so long for each combination (default 3)")
    parser.add_argument("--csv", metavar="FILE", help="where the figures go (default: bench.csv in the run directory)")
    needs.add_option(parser, "bench.html")


def write_bench_report(options, cluster, **figures):
    if options.report:
        from .report import bench_page, machine, page  # the packages that they need may be missing

        measured_on = machine.describe(cluster.dir.path, cluster.programs.build_dir)
        text = bench_page.bench_page(bench_page.Figures(**figures), measured_on)
        print(f"report: {page.write(options.report, 'bench.html', text)}")


def number_list(text):
    return [int(word) for word in text.split(",")]


COMMANDS = [up, status, kesh, master, kill, start, stop, pause, resume, partition, heal, execute, run_bench, run_demo,
            chaos, down]

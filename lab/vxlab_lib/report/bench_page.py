"""The page of a bench: a plot of everything that it measured, and the numbers below each."""

from dataclasses import dataclass, field
from statistics import median

from .bench_plots import EVERYWHERE, P50, P99, Curve, Panel, draw_bars, draw_panels, number, span
from .page import Plot, Table, render

ONE_SAVE = "one durable save on this disk"
TITLE_MAX = 56  # as wide as a panel
PER_S, MS = "per second", "latency (ms)"
CELL_COLUMNS = ["system", "at", "clients", "per s", "p50 ms", "p99 ms", "p99/p50", "failed", "MiB of the largest process"]
ROW_COLUMNS = {"role": "where", "payload_bytes": "bytes", "submitters": "submitters", "submissions": "n",
               "median_ms": "p50 ms", "p99_ms": "p99 ms", "per_s": "per s", "save_ms": "save ms",
               "save_at_once_ms": "save ms, all at once", "saves_in_series": "saves in series", "ratio": "ratio",
               "ratio_at_once": "ratio, all at once", "all_nodes_median_ms": "p50 ms, all nodes",
               "node_saves": "saves per node", "node_bytes": "bytes per node"}


@dataclass
class Figures:
    """What a bench found; each part may be empty. bench.py and bench_clients.py tell the shapes."""

    rows: list = field(default_factory=list)
    idle: dict = field(default_factory=dict)
    roll_overs: dict = field(default_factory=dict)
    clients: object = None


@dataclass
class Section:
    title: str
    text: str
    plots: list


def bench_page(figures, machine):
    """Returns the page. `machine` is a Table."""
    sections = client_sections(figures.clients) if figures.clients else []
    for nodes, durable in dict.fromkeys((row["nodes"], row["durable"]) for row in figures.rows):
        rows = [row for row in figures.rows if (row["nodes"], row["durable"]) == (nodes, durable)]
        sections.append(submission_section(rows, nodes, durable == "yes"))
    if figures.roll_overs:
        sections.append(roll_over_section(figures.roll_overs))
    if figures.idle:
        sections.append(idle_section(figures.idle))
    lead = "What one machine and one disk gave. Compare plots of one page only: other machines, other figures."
    return render("bench.html", title="Bench of a cluster", lead=lead, sections=sections, machine=machine)


def client_sections(found):
    cells = found.cells
    table = Table(CELL_COLUMNS, [cell.row() for cell in cells], f"One durable save took {found.save_ms:.2f} ms.")
    places = list(dict.fromkeys(cell.at for cell in cells))
    rates, latencies, memories = [], [], []
    for at in places:
        where = "Clients at the leader" if at == "leader" else "Clients at all nodes"
        here = [cell for cell in cells if cell.at == at]
        own = {system: [cell for cell in here if cell.system == system]
               for system in dict.fromkeys(cell.system for cell in here)}
        rates.append(panel(where, "/s", own, [(P50, lambda cell: cell.per_s)], PER_S))
        latencies.append(panel(where, " ms", own, [(P50, lambda cell: cell.p50_us / 1000),
                                                   (P99, lambda cell: cell.p99_us / 1000)], MS, found.save_ms))
        memories.append(panel(where, " MiB", own, [(P50, lambda cell: cell.memory_kb / 1024)], "resident (MiB)",
                              is_log=False))
    plots = [Plot(draw_panels([rates, latencies], "clients", "clients-", "Rate and latency over clients", ONE_SAVE), table),
             Plot(draw_panels([memories], "clients", "memory-", "Memory of the largest process over clients"),
                  Table(["system", "at", "clients", "MiB"],
                        [[cell.system, cell.at, cell.clients, f"{cell.memory_kb / 1024:.0f}"] for cell in cells]))]
    text = "Each client has one line under way. " + " ".join(f"Not measured: {why}." for why in found.missing)
    if found.etcd_version:
        text += f"Beside it etcd {found.etcd_version} with its defaults, in the same run, on the same disk."
    return [Section("Rate, latency and memory over clients", text, plots)]


def panel(where, unit, groups, lines, label, level=None, is_log=True, x=lambda cell: cell.clients):
    """`groups`: name -> what was measured, a curve each; `lines`: (kind of line, value of it)."""
    curves, told, usual = [], [], []
    for index, (name, measured) in enumerate(groups.items()):
        for line, value in lines:
            points = [(x(one), value(one)) for one in measured if value(one)]
            if not points:
                continue
            curves.append(Curve(name, index, sorted(points), line))
            if line == lines[0][0]:
                told.append(f"{name} {span(points)}{unit}")
                usual += points
    title = f"{where}: " + ", ".join(told)
    if len(title) > TITLE_MAX and usual:
        title = f"{where}: {span(usual)}{unit}"
    return Panel(title, curves, label, level, is_log)


def submission_section(rows, nodes, is_durable):
    kind = "durable payloads" if is_durable else "payloads in memory"
    key = f"n{nodes}{'d' if is_durable else 'm'}"
    columns = [column for column in ROW_COLUMNS if any(row[column] is not None for row in rows)]
    table = Table([ROW_COLUMNS[column] for column in columns], [[row[column] for column in columns] for row in rows],
                  "ratio: p50 / (flushes in series x one durable save)")
    plots = [Plot(over(rows, "payload_bytes", "submitters", "payload (bytes)", f"{key}-size-"), table)]
    if len({row["submitters"] for row in rows}) > 1:
        plots.append(Plot(over(rows, "submitters", "payload_bytes", "submitters", f"{key}-callers-"),
                          brief(rows, ["role", "submitters", "payload_bytes", "per_s", "median_ms", "p99_ms"])))
    if any(row["node_bytes"] for row in rows):
        plots.append(Plot(saved_bytes(rows, f"{key}-disk-"),
                          brief(rows, ["role", "payload_bytes", "submitters", "node_saves", "node_bytes"])))
    return Section(f"Submissions, {nodes} nodes, {kind}", "From the call to its return, by the node that submits.", plots)


def brief(rows, columns):
    return Table([ROW_COLUMNS[column] for column in columns], [[row[column] for column in columns] for row in rows])


def group_name(key, value):
    return f"{number(value)} bytes" if key == "payload_bytes" else f"{value} submitter{'s' * (value != 1)}"


def by_role(rows, grouped_by):
    """Returns [(role, {name of the group -> its rows})], with every group in each."""
    values = list(dict.fromkeys(row[grouped_by] for row in rows))
    return [(role, {group_name(grouped_by, value): [row for row in rows if row["role"] == role and
                                                    row[grouped_by] == value] for value in values})
            for role in dict.fromkeys(row["role"] for row in rows)]


def over(rows, x_key, grouped_by, x_unit, key):
    save_ms = median(row["save_ms"] for row in rows)
    rates, latencies = [], []
    for role, groups in by_role(rows, grouped_by):
        where, x = f"At a {role}" if role != "leader" else "At the leader", lambda row: row[x_key]
        rates.append(panel(where, "/s", groups, [(P50, lambda row: row["per_s"])], PER_S, x=x))
        latencies.append(panel(where, " ms", groups, [
            (P50, lambda row: row["median_ms"]), (P99, lambda row: row["p99_ms"]),
            (EVERYWHERE, lambda row: row["all_nodes_median_ms"])], MS, save_ms, x=x))
    return draw_panels([rates, latencies], x_unit, key, f"Rate and latency over {x_unit}", ONE_SAVE)


def saved_bytes(rows, key):
    panels = [panel(f"At the {role}", " bytes", groups, [(P50, lambda row: row["node_bytes"])], "bytes saved",
                    x=lambda row: row["payload_bytes"]) for role, groups in by_role(rows, "submitters")]
    return draw_panels([panels], "payload (bytes)", key, "Bytes that the library saves per submission and node")


def roll_over_section(found):
    """`found`: (nodes, durable, MB of state) -> (usual ms, [ms of each submission that met a new log])."""
    panels = []
    for nodes in dict.fromkeys(key[0] for key in found):
        curves = []
        for durable in dict.fromkeys(key[1] for key in found):
            kind = "durable" if durable else "in memory"
            own = {mb: value for (count, is_durable, mb), value in found.items() if (count, is_durable) == (nodes, durable)}
            curves += [Curve(f"{kind}, slowest at a new log", 2 * durable, [(mb, max(met)) for mb, (_, met) in own.items()]),
                       Curve(f"{kind}, usual", 2 * durable + 1, [(mb, usual) for mb, (usual, _) in own.items()])]
        slowest = [point for curve in curves if "slowest" in curve.name for point in curve.points]
        panels.append(Panel(f"{nodes} nodes: a new log takes {span(slowest)} ms", curves, MS))
    table = Table(["nodes", "payloads", "state (MB)", "usual ms", "ms with a new log"],
                  [[nodes, "durable" if durable else "in memory", mb, f"{usual:.1f}", ", ".join(f"{each:.0f}" for each in met)]
                   for (nodes, durable, mb), (usual, met) in found.items()])
    svg = draw_panels([panels], "state (MB)", "logs-", "Latency at a new log over the size of the state")
    text = "Ordering stands still while a new log begins, which carries the state. Submissions at the leader, one by one."
    return Section("New logs", text, [Plot(svg, table)])


def idle_section(idle):
    values = [(f"{nodes} nodes", percent) for nodes, percent in idle.items()]
    title = f"An idle cluster uses {span([(0, percent) for percent in idle.values()])} % of one core"
    svg = draw_bars(values, "% of one core, all nodes together", title, "idle-", "Processor time of an idle cluster")
    return Section("Idle", "No submissions, over ten seconds.",
                   [Plot(svg, Table(["nodes", "% of one core"], [[nodes, f"{percent:.1f}"] for nodes, percent in idle.items()]))])

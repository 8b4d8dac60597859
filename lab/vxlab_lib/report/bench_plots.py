"""Figures of a bench -> SVG."""

from dataclasses import dataclass

from .svg import INK, SERIES, look, render, styled  # before matplotlib: sets its caches

from matplotlib.figure import Figure
from matplotlib.lines import Line2D
from matplotlib.ticker import FuncFormatter, NullLocator

WIDTH, LEFT, RIGHT, BOTTOM = 11.0, 0.75, 0.15, 0.5  # inches, as all sizes here
HEIGHT, TITLE, GAP, LEGEND_ROW = 2.1, 0.35, 0.75, 0.2
LEGEND_COLUMNS = 6
BAR = 0.45
P50, P99, EVERYWHERE, SAVE = "-", "--", ":", (0, (1, 3))
LINE_NAMES = {P50: "p50", P99: "p99", EVERYWHERE: "p50 until all nodes have it"}


@dataclass
class Curve:
    """One line. Curves of one thing have the same index, and with it colour and marker."""

    name: str
    index: int
    points: list  # (x, y)
    line: str = P50


@dataclass
class Panel:
    title: str
    curves: list
    unit: str
    level: float | None = None  # a line across, for comparison: one durable save
    is_log: bool = True


def number(value):
    """Returns the number as people write it, with three digits that matter."""
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def short(value):
    """Returns the number as it stands at an axis."""
    for size, letter in ((1e6, "M"), (1e3, "k")):
        if abs(value) >= size:
            return f"{value / size:.3g} {letter}"
    return f"{value:.3g}"


def span(points):
    low, high = min(value for _, value in points), max(value for _, value in points)
    return number(low) if low == high else f"{number(low)} to {number(high)}"


@styled
def draw_panels(rows, x_unit, key, name, level_name=None):
    """`rows`: lists of Panels, all of one length. Panels over each other share their x values. Returns the SVG."""
    columns = len(rows[0])
    entries = legend_entries([panel for row in rows for panel in row], level_name)
    top = LEGEND_ROW * (-(-len(entries) // LEGEND_COLUMNS) + 0.5)
    height = top + len(rows) * (TITLE + HEIGHT) + BOTTOM
    figure, tips = Figure(figsize=(WIDTH, height)), {}
    width = (WIDTH - LEFT - RIGHT - GAP * (columns - 1)) / columns
    for row, panels in enumerate(rows):
        y = height - top - (row + 1) * (TITLE + HEIGHT)
        for column, panel in enumerate(panels):
            x = LEFT + column * (width + GAP)
            axes = figure.add_axes((x / WIDTH, y / height, width / WIDTH, HEIGHT / height))
            draw_panel(axes, panel, f"{row}-{column}", tips)
            axes.tick_params(labelbottom=row == len(rows) - 1)
            axes.set_xlabel(x_unit if row == len(rows) - 1 else "")
    figure.legend(handles=entries, loc="upper left", bbox_to_anchor=(0.0, 1.0), ncol=LEGEND_COLUMNS, borderaxespad=0.3)
    return render(figure, key, name, tips)


def draw_panel(axes, panel, place, tips):
    axes.set_title(panel.title)
    axes.set_ylabel(panel.unit)
    if panel.is_log:
        axes.set_yscale("log")
        axes.yaxis.set_minor_locator(NullLocator())
    for index, curve in enumerate(panel.curves):
        colour, _, marker = look(curve.index)
        gid = f"curve-{place}-{index}"
        axes.plot(*zip(*curve.points), linestyle=curve.line, marker=marker, color=colour, gid=gid)
        points = ", ".join(f"{number(y)} at {number(x)}" for x, y in curve.points)
        tips[gid] = f"{curve.name}, {LINE_NAMES[curve.line]}: {points}" if panel.level else f"{curve.name}: {points}"
    if panel.level:
        axes.axhline(panel.level, color=INK, linestyle=SAVE, gid=f"level-{place}")
        tips[f"level-{place}"] = f"one durable save: {panel.level:.2f} ms"
    if not panel.is_log:
        axes.set_ylim(bottom=0)
    axes.yaxis.set_major_formatter(FuncFormatter(lambda value, _: short(value)))
    label_x(axes, sorted({x for curve in panel.curves for x, _ in curve.points}))


def label_x(axes, values):
    """A tick for each value that was measured. They lie orders of magnitude apart, and may include 0."""
    if values and values[0] > 0:
        axes.set_xscale("log")
    else:
        axes.set_xscale("symlog", linthresh=1)
    axes.xaxis.set_minor_locator(NullLocator())
    axes.set_xticks(values, [short(value) for value in values])


def legend_entries(panels, level_name):
    names, lines = {}, []
    for curve in (curve for panel in panels for curve in panel.curves):
        names.setdefault(curve.name, curve.index)
        if curve.line not in lines:
            lines.append(curve.line)
    entries = []
    for name, index in names.items():
        colour, _, marker = look(index)
        entries.append(Line2D([], [], color=colour, marker=marker, label=name))
    if len(lines) > 1:
        entries += [Line2D([], [], color=INK, linestyle=line, label=LINE_NAMES[line]) for line in lines]
    if level_name:
        entries.append(Line2D([], [], color=INK, linestyle=SAVE, label=level_name))
    return entries


@styled
def draw_bars(values, unit, title, key, name):
    """`values`: (name, value)."""
    height = TITLE + BOTTOM + BAR * len(values)
    figure = Figure(figsize=(WIDTH, height))
    axes = figure.add_axes((2 * LEFT / WIDTH, BOTTOM / height, (WIDTH - 2 * LEFT - 1.0) / WIDTH, BAR * len(values) / height))
    places = range(len(values), 0, -1)
    bars = axes.barh(places, [value for _, value in values], height=0.6, color=SERIES[0])
    axes.bar_label(bars, [number(value) for _, value in values], padding=4)
    axes.set_yticks(places, [each for each, _ in values])
    axes.grid(axis="y", visible=False)
    axes.set_xlim(left=0)
    axes.set_xlabel(unit)
    axes.set_title(title)
    return render(figure, key, name)

"""Timeline -> SVG: faults, a lane per node, decisions, slow submissions and memory over one axis of time."""

from .svg import ALARM, HATCHES, INK, QUIET, RULE, SERIES, look, render, styled  # before matplotlib: sets its caches

from matplotlib.figure import Figure
from matplotlib.lines import Line2D
from matplotlib.patches import Patch

WIDTH, LEFT, RIGHT = 11.0, 2.3, 1.25  # inches, as all sizes here
TITLE, BOTTOM, LEGEND_ROW = 0.42, 0.5, 0.2
FAULT, LANE, PLOT = 0.24, 0.34, 1.3
TITLE_PADS = 12, 5  # points: below the first title stand the numbers of violations
LEGEND_COLUMNS = 5
BLUE, VERMILION, _, PURPLE, ORANGE, _ = SERIES
# kind of span -> (what it is called, colour, lower edge and height within the lane)
LOOKS = {
    "up": ("runs", QUIET, 0.1, 0.8),
    "stopped": ("protocol stopped", HATCHES["stopped"], 0.1, 0.8),
    "down": ("down", HATCHES["down"], 0.1, 0.8),
    "isolated": ("isolated itself", HATCHES["isolated"], 0.1, 0.8),
    "frozen": ("frozen", HATCHES["frozen"], 0.1, 0.8),
    "part": ("cut from some nodes", HATCHES["part"], 0.1, 0.22),
    "alone": ("cut from a majority", ORANGE, 0.1, 0.22),
    "master": ("is told MASTER", BLUE, 0.68, 0.22),
}
MARKS = {"roll-over": ("new log", "|", INK, 0.5), "isolation": ("isolates itself", "X", PURPLE, 0.5)}
OUTCOMES = {"acknowledged": ("acknowledged", "o", BLUE), "failed": ("-1", "x", VERMILION),
            "open": ("no answer", "^", ORANGE)}


class Sheet:
    """Places axes of one width below each other, with one axis of time."""

    def __init__(self, heights, end, top):
        self._total = sum(heights) + TITLE * len(heights) + BOTTOM + top
        self._y = self._total - top
        self._end = end
        self._first = None
        self.figure = Figure(figsize=(WIDTH, self._total))
        self.all = []

    def next(self, height, title):
        self._y -= TITLE + height
        place = (LEFT / WIDTH, self._y / self._total, (WIDTH - LEFT - RIGHT) / WIDTH, height / self._total)
        axes = self.figure.add_axes(place, sharex=self._first)
        self._first = self._first or axes
        axes.set_title(title, pad=TITLE_PADS[len(self.all) > 0])
        axes.set_xlim(0, max(self._end, 0.1))
        axes.tick_params(labelbottom=False)
        self.all.append(axes)
        return axes

    def close(self):
        self.all[-1].tick_params(labelbottom=True)
        self.all[-1].set_xlabel("time since the beginning (s)")


@styled
def draw(timeline, key, name):
    """Returns the SVG. Parts that the timeline knows nothing of are left out."""
    kinds = [kind for kind in LOOKS if any(lane.of(kind) for lane in timeline.lanes)]
    marks = [kind for kind in MARKS if any(lane.marks_of(kind) for lane in timeline.lanes)]
    has_memory = any(len(points) > 1 for points in timeline.memory.values())
    heights = ([FAULT * len(timeline.faults)] if timeline.faults else []) + [LANE * len(timeline.lanes)]
    heights += [PLOT] * (bool(timeline.decisions) + bool(timeline.submissions) + has_memory)
    legend_rows = -(-(len(kinds) + len(marks) + 2) // LEGEND_COLUMNS)
    sheet = Sheet(heights, timeline.end, LEGEND_ROW * legend_rows)
    tips = {}
    if timeline.faults:
        draw_faults(sheet.next(heights[0], faults_title(timeline)), timeline.faults, tips)
    draw_lanes(sheet.next(LANE * len(timeline.lanes), lanes_title(timeline)), timeline.lanes, tips)
    if timeline.decisions:
        draw_lines(sheet.next(PLOT, decisions_title(timeline)), timeline.decisions, "decision number", "decisions", tips)
    if timeline.submissions:
        draw_slow(sheet.next(PLOT, slow_title(timeline)), timeline, tips)
    if has_memory:
        draw_lines(sheet.next(PLOT, memory_title(timeline)), timeline.memory, "resident (MiB)", "memory", tips)
    draw_moments(sheet.all, timeline, tips)
    draw_places(sheet.all[bool(timeline.faults)], timeline, tips)
    draw_legend(sheet.figure, kinds, marks, timeline)
    sheet.close()
    return render(sheet.figure, key, name, tips)


def times(count, one, more=None):
    return f"{count} {one if count == 1 else more or one + 's'}"


def faults_title(timeline):
    return f"{timeline.faults_title}: " + times(sum(len(row.spans) for row in timeline.faults), "time")


def lanes_title(timeline):
    led = sum(len(lane.of("master")) for lane in timeline.lanes)
    ordered_end = timeline.end if timeline.faults_end is None else timeline.faults_end
    down = sum(span.start < ordered_end for lane in timeline.lanes for span in lane.of("down"))
    return f"Nodes: {times(led, 'term')} as MASTER, {times(down, 'time')} down, {times(timeline.roll_overs, 'new log')}"


def decisions_title(timeline):
    last = max((number for points in timeline.decisions.values() for _, number in points), default=0)
    return f"Decisions: {last} in {timeline.end:.0f} s"


def slow_title(timeline):
    answered = [one.ms for one in timeline.slow if one.outcome == "acknowledged"]
    usual = f"; half took less than {timeline.usual_ms:.1f} ms, the slowest {max(answered):.0f} ms" if answered else ""
    return f"The slowest of {times(timeline.submissions, 'submission')}{usual}"


def memory_title(timeline):
    sizes = [size for points in timeline.memory.values() for _, size in points]
    return f"Memory: {min(sizes):.0f} to {max(sizes):.0f} MiB over {times(timeline.roll_overs, 'new log')}"


def in_time(span):
    return f"{span.start:.2f} to {span.end:.2f} s"


def draw_faults(axes, rows, tips):
    for index, row in enumerate(rows):
        y = len(rows) - 1 - index
        for number, span in enumerate(row.spans):
            gid = f"fault-{index}-{number}"
            axes.broken_barh([(span.start, max(span.end - span.start, 0.02))], (y + 0.15, 0.7), facecolor=VERMILION,
                             edgecolor=INK, linewidth=0.4, alpha=0.8, gid=gid)
            tips[gid] = f"{row.name}, {in_time(span)}: {span.text}"
    label_rows(axes, [row.name for row in rows])


def label_rows(axes, names):
    axes.set_ylim(0, len(names))
    axes.set_yticks([len(names) - 0.5 - index for index in range(len(names))], names)
    axes.tick_params(axis="y", length=0)
    axes.grid(axis="y", visible=False)


def draw_lanes(axes, lanes, tips):
    for index, lane in enumerate(lanes):
        draw_lane(axes, lane, len(lanes) - 1 - index, tips)
    label_rows(axes, [f"node {lane.node}" for lane in lanes])
    axes.hlines(range(len(lanes) + 1), *axes.get_xlim(), color=RULE, linewidth=0.6)


def draw_lane(axes, lane, y, tips):
    for kind, (label, colour, low, height) in LOOKS.items():
        spans = lane.of(kind)
        if not spans:
            continue
        gid = f"lane-{lane.node}-{kind}"
        axes.broken_barh([(span.start, span.end - span.start) for span in spans], (y + low, height), facecolor=colour,
                         edgecolor=INK, linewidth=0.3, gid=gid)
        tips[gid] = f"node {lane.node} {label}: " + "; ".join(
            in_time(span) + (f" ({span.text})" if span.text else "") for span in spans[:20])
    for kind, (label, marker, colour, at) in MARKS.items():
        if moments := lane.marks_of(kind):
            gid = f"lane-{lane.node}-{kind}"
            axes.plot(moments, [y + at] * len(moments), marker, color=colour, markersize=7, gid=gid)
            tips[gid] = f"node {lane.node}, {label}: {len(moments)} times"


def draw_lines(axes, series, unit, what, tips):
    for index, (node, points) in enumerate(series.items()):
        colour, line, _ = look(index)
        gid = f"{what}-{node}"
        axes.plot([t for t, _ in points], [value for _, value in points], line, color=colour, label=f"node {node}",
                  linewidth=1.1, gid=gid)
        tips[gid] = f"node {node}"
    axes.set_ylabel(unit)
    axes.set_ylim(bottom=0)
    beside(axes, 2 if len(series) > 8 else 1)


def beside(axes, columns=1):
    axes.legend(loc="upper left", bbox_to_anchor=(1.0, 1.05), ncol=columns, handlelength=1.6, labelspacing=0.25,
                columnspacing=0.6, fontsize=7 if columns > 1 else 8, borderaxespad=0.2)


def draw_slow(axes, timeline, tips):
    for outcome, (label, marker, colour) in OUTCOMES.items():
        some = [one for one in timeline.slow if one.outcome == outcome]
        if some:
            axes.plot([one.t for one in some], [max(one.ms, 0.01) for one in some], marker, color=colour, markersize=3,
                      label=label, gid=f"slow-{outcome}")
            tips[f"slow-{outcome}"] = f"{len(some)} submissions: {label}"
    if timeline.usual_ms:
        axes.axhline(timeline.usual_ms, color=INK, linewidth=0.8, linestyle=":", label="median")
    axes.set_yscale("log")
    axes.set_ylabel("took (ms)")
    if axes.get_legend_handles_labels()[0]:
        beside(axes)


def draw_moments(all_axes, timeline, tips):
    """The end of the faults and the violations cross all axes."""
    for number, axes in enumerate(all_axes):
        if timeline.faults_end is not None:
            axes.axvline(timeline.faults_end, color=INK, linestyle="--", linewidth=0.9)
        for violation in timeline.violations:
            gid = f"violation-{violation.number}-{number}"
            axes.axvline(violation.t, color=ALARM, linewidth=1.4, gid=gid)
            tips[gid] = f"violation {violation.number}, {violation.t:.3f} s: {violation.text}"
    for violation in timeline.violations:
        all_axes[0].annotate(str(violation.number), (violation.t, 1.0), xycoords=("data", "axes fraction"), color=ALARM,
                             ha="center", va="bottom", fontweight="bold")


def draw_places(axes, timeline, tips):
    """Stars the lane of the node where a promise broke."""
    rows = {lane.node: len(timeline.lanes) - 0.5 - index for index, lane in enumerate(timeline.lanes)}
    for violation in timeline.violations:
        if violation.node in rows:
            gid = f"violation-{violation.number}-at-{violation.node}"
            axes.plot([violation.t], [rows[violation.node]], "*", color=ALARM, markersize=11, gid=gid)
            tips[gid] = f"violation {violation.number} on node {violation.node}: {violation.text}"


def draw_legend(figure, kinds, marks, timeline):
    entries = [Patch(facecolor=colour, edgecolor=INK, linewidth=0.3, label=label)
               for label, colour, *_ in (LOOKS[kind] for kind in kinds)]
    entries += [Line2D([], [], color=colour, marker=marker, linestyle="", label=label)
                for label, marker, colour, _ in (MARKS[kind] for kind in marks)]
    if timeline.faults_end is not None:
        entries.append(Line2D([], [], color=INK, linestyle="--", label="the faults end"))
    if timeline.violations:
        entries.append(Line2D([], [], color=ALARM, marker="*", label="a broken promise"))
    figure.legend(handles=entries, loc="upper left", ncol=LEGEND_COLUMNS, bbox_to_anchor=(0.0, 1.0), handlelength=2.2,
                  borderaxespad=0.3)

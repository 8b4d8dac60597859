"""A figure of matplotlib as SVG within a page: text stays text, all colours follow the page's theme."""

import html
import io
import os
import re
import tempfile

if "MPLCONFIGDIR" not in os.environ:  # for its caches, which would lie in the home directory
    _caches = tempfile.TemporaryDirectory(prefix="vxlab-plots-")  # goes with this process
    os.environ["MPLCONFIGDIR"] = _caches.name

from matplotlib import rc_context  # noqa: E402

# Colours of matplotlib stand for the theme's, which templates/style.css has.
INK, RULE, PAPER, QUIET, ALARM = "#000000", "#cccccc", "#ffffff", "#e0e7e0", "#c00000"
SERIES = ["#0072b2", "#d55e00", "#009e73", "#cc79a7", "#e69f00", "#56b4e9"]
LINES = ["-", "--", ":"]
MARKERS = ["o", "s", "^", "D", "v", "P"]
# These stand for patterns of templates/hatches.html. Those of matplotlib would be a hundred times as large, per figure.
HATCHES = {name: f"#fa00{number:02x}" for number, name in enumerate(("stopped", "down", "isolated", "frozen", "part"))}
THEME = {INK: "currentColor", RULE: "var(--rule)", PAPER: "var(--paper)", QUIET: "var(--quiet)",
         ALARM: "var(--alarm)", **{colour: f"var(--series-{number})" for number, colour in enumerate(SERIES, 1)},
         **{colour: f"url(#hatch-{name})" for name, colour in HATCHES.items()}}

styled = rc_context({
    "svg.fonttype": "none", "svg.hashsalt": "vxlab", "font.family": "DejaVu Sans", "font.size": 9,
    "figure.facecolor": "none", "savefig.facecolor": "none", "axes.facecolor": "none", "axes.edgecolor": INK,
    "axes.spines.top": False, "axes.spines.right": False, "axes.grid": True, "axes.axisbelow": True,
    "axes.titlesize": 10, "axes.titlelocation": "left", "grid.color": RULE, "grid.linewidth": 0.6,
    "legend.frameon": False, "legend.fontsize": 8, "lines.linewidth": 1.4, "lines.markersize": 4})

NO_PARTS = re.compile(r"<metadata>.*?</metadata>|<style type=.*?</style>|<!--.*?-->| xmlns(:\w+)?=\"[^\"]*\"", re.DOTALL)
SIZE = re.compile(r'<svg [^>]*viewBox="([^"]*)"[^>]*>')
FONT = re.compile(r"font: ([^';\"]*)'[^;\"]*")
COLOUR = re.compile(r"#[0-9a-fA-F]{6}\b")
COORDINATES = re.compile(r' (?:d|x|y|x1|y1|x2|y2|width|height|transform|points)="[^"]*"')
NUMBER = re.compile(r"-?\d+\.\d{3,}")


def look(index):
    """Returns (colour, line, marker) of the index-th of many series; they differ in more than the colour."""
    return SERIES[index % len(SERIES)], LINES[index // len(SERIES) % len(LINES)], MARKERS[index % len(MARKERS)]


def render(figure, key, name, tips=None):
    """Returns the figure as an <svg> element. Its ids begin with `key`, which is unique in the page; `name` says to
    those who do not see it what it is. `tips`: gid of an artist -> the text that a pointer on it shows."""
    buffer = io.StringIO()
    figure.savefig(buffer, format="svg")
    text = buffer.getvalue()
    text = NO_PARTS.sub("", text[text.index("<svg"):])
    text = SIZE.sub(lambda found: f'<svg viewBox="{found[1]}" role="img" aria-label="{html.escape(name)}">', text, 1)
    text = FONT.sub(r"font: \1sans-serif", text)
    text = COORDINATES.sub(lambda found: NUMBER.sub(lambda one: f"{float(one[0]):.2f}", found[0]), text)
    text = re.sub(r' (?:xlink:)?href="#', f' href="#{key}', text)
    text = re.sub(r' id="', f' id="{key}', text).replace("url(#", f"url(#{key}")
    text = COLOUR.sub(lambda found: THEME.get(found[0].lower(), found[0]), text)
    text = re.sub(r"\s*\n\s*", "\n", text)
    for gid, tip in (tips or {}).items():
        text = text.replace(f'<g id="{key}{gid}">', f'<g id="{key}{gid}"><title>{html.escape(tip)}</title>', 1)
    return text

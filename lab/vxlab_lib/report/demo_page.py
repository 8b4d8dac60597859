"""The page of the demo."""

from .page import Table, render
from .timeline_plot import draw

LEAD = ("Three nodes put the lines of a text in one order while the leader is killed, another node takes over, and the "
        "lost node comes back. All journals are equal at the end.")


def demo_page(summary, timeline, machine):
    """`summary`: (what, value) of each figure. Returns the page."""
    return render("demo.html", title="A cluster at work", lead=LEAD, machine=machine,
                  svg=draw(timeline, "demo-", "What each node did, over time"),
                  summary=Table(["what", "value"], [list(row) for row in summary]))

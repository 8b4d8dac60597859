"""Pages to look at: what a bench, a campaign of faults or the demo saw. Each is one HTML file that needs no other.

    needs.py          says before the work whether a page can be made after it
    timeline.py       an episode over time, as plain data
    lanes.py          what happens to a node: spans and marks
    fault_spans.py    when each fault was in force
    observed.py       evidence -> timeline             story.py         the demo -> timeline
    around.py         log lines and messages around a moment
    svg.py            figure -> SVG within a page      timeline_plot.py, bench_plots.py   data -> SVG
    page.py           templates -> page                bench_page.py, chaos_page.py, demo_page.py
    machine.py        what it was measured on        campaign_report.py   a campaign, episode by episode

svg.py, the plots and the pages need the packages that needs.py names. Import them only where a page is made.
"""

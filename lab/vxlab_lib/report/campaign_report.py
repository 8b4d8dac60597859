"""Collects what a campaign of faults saw, and writes its page."""

from .chaos_page import chaos_page, make_entry, not_run
from .machine import describe
from .page import Table, write

NAME = "chaos.html"


class CampaignReport:
    def __init__(self, directory, build_dir):
        self._directory = directory
        self._build_dir = build_dir
        self._entries = []

    def add(self, plan, outcome, again):
        """Takes an episode that was judged. Its evidence must still be there."""
        self._entries.append(make_entry(plan, outcome, again))

    def add_not_run(self, plan, reason, again):
        self._entries.append(not_run(plan, reason, again))

    def write(self, columns, row):
        """`columns` and `row` sum the campaign up. Returns the path of the page."""
        machine = describe(self._directory, self._build_dir, [["disks of the nodes", "ext4 images in memory"]])
        return write(self._directory, NAME, chaos_page(self._entries, Table(columns, [row]), machine))

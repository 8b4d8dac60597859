"""Templates -> one HTML file that needs no other."""

import os
import re
from dataclasses import dataclass
from functools import lru_cache

from jinja2 import Environment, FileSystemLoader, StrictUndefined

from ..rundir import write_by_rename

TEMPLATES = os.path.join(os.path.dirname(os.path.realpath(__file__)), "templates")
FIGURE = re.compile(r"[-+]?\d[\d,]*(\.\d+)?")


@dataclass
class Table:
    columns: list
    rows: list  # of lists; None is an empty cell
    caption: str = ""

    def figures(self):
        """Returns for each column whether nothing but numbers stands in it."""
        columns = [[str(row[column]) for row in self.rows if row[column] not in (None, "")]
                   for column in range(len(self.columns))]
        return [bool(cells) and all(map(FIGURE.fullmatch, cells)) for cells in columns]


@dataclass
class Plot:
    svg: str
    table: Table  # its numbers


@lru_cache(maxsize=1)
def environment():
    return Environment(loader=FileSystemLoader(TEMPLATES), autoescape=True, undefined=StrictUndefined, trim_blocks=True,
                       lstrip_blocks=True)


def render(template, **values):
    return environment().get_template(template).render(**values)


def write(directory, name, text):
    """Returns the path of the page."""
    os.makedirs(directory, exist_ok=True)
    path = os.path.join(directory, name)
    write_by_rename(path, text)
    return path

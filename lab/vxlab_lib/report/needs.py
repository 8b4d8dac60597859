"""Says before the work whether its report can be written after it."""

import importlib.util
import os

from ..errors import LabError, UsageError

PACKAGES = {"matplotlib": "python3-matplotlib", "jinja2": "python3-jinja2"}


def add_option(parser, page):
    parser.add_argument("--report", metavar="DIR", help=f"also write what was seen as a page to look at: DIR/{page}")


def demand(directory):
    """Raises LabError if no report can be written into the directory. None is no report. Makes no directory yet: a
    laboratory may empty the place first."""
    if directory is None:
        return
    missing = [package for module, package in PACKAGES.items() if importlib.util.find_spec(module) is None]
    if missing:
        raise LabError(f"--report needs {' and '.join(missing)}: scripts/install-packages report")
    place = os.path.abspath(directory)
    while not os.path.lexists(place):
        place = os.path.dirname(place)
    if not os.path.isdir(place) or not os.access(place, os.W_OK):
        raise UsageError(f"--report {directory}: {place} is no directory that can be written to")

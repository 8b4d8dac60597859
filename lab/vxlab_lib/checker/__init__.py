"""Judges the evidence of an episode: journals, traces, logs, files, datagrams. `check(directory)` does it all.

    evidence.py   reads the files              invariants_*.py  one small function per promise
    log_scan.py   finds the lines that matter  findings.py      what a check saw and found
    history.py    all states of all journals   report.py        for people and programs
    model.py      the whole episode
"""

from .findings import Finding, Result
from .invariants_process import sanitizer_word
from .judge import CouldNotRun, check, check_journals, judge, read
from .model import write_acknowledged
from .report import place
from .report import verdict as summary

__all__ = ["CouldNotRun", "Finding", "Result", "check", "check_journals", "judge", "place", "read", "sanitizer_word",
           "summary", "write_acknowledged"]

"""Runs episode after episode until the time is over. Shows what they find, live and as one row of a table."""

import os
import shutil
import signal
import time
from collections import Counter

from ..errors import EXIT_FAILED, EXIT_OK, LabError
from . import private_space
from .episode import Episode
from .plan import choose_faults, make_plan

EXIT_COULD_NOT_RUN = 3
WORK_SIZE = "6g"
COLUMNS = ["nodes", "faults", "seeds", "minutes", "submissions", "acknowledged", "roll-overs", "leader moves",
           "faults made", "at roll-over", "violations", "could not run"]


class Campaign:
    """`options`: the command line's (seed, minutes or episodes, nodes, faults, keep, ..)."""

    def __init__(self, options, build, progress):
        self._options = options
        self._build = build
        self._progress = progress
        self.totals = Counter()
        self.excused = Counter()
        self.violated = []
        self.not_run = []
        self.seeds = []
        self._report = None

    def run(self):
        """Returns the exit code: violated takes precedence over could not run, and that over held."""
        options = self._options
        evidence_root = os.path.abspath(options.keep or os.path.join(options.dir, "chaos"))
        os.makedirs(evidence_root, exist_ok=True)
        private_space.enter(WORK_SIZE)
        self._build.pin_library(private_space.WORK_ROOT)
        if options.report:
            from ..report.campaign_report import CampaignReport  # the packages that it needs may be missing

            self._report = CampaignReport(options.report, self._build.directory)
        for number in (signal.SIGINT, signal.SIGTERM):  # a shell may have started this in the background
            signal.signal(number, signal.default_int_handler)
        begun = time.monotonic()
        seed = options.seed
        try:
            while True:
                self._one(seed, evidence_root)
                seed += 1
                if options.episodes:
                    is_over = seed - options.seed >= options.episodes
                else:
                    is_over = time.monotonic() - begun >= options.minutes * 60
                if is_over:
                    break
                if self.violated and options.first:
                    break
        finally:
            self.minutes = (time.monotonic() - begun) / 60
            self._tell()
        return EXIT_FAILED if self.violated else EXIT_COULD_NOT_RUN if self.not_run or not self.seeds else EXIT_OK

    def _one(self, seed, evidence_root):
        options = self._options
        faults = choose_faults(seed, options.faults)
        plan = make_plan(seed, options.nodes, faults, options.seconds)
        for line in plan.lines():
            self._progress.say(line)
        work_dir = os.path.join(private_space.WORK_ROOT, "vxlab")
        episode = Episode(plan, self._build, work_dir, lambda text: self._progress.update(f"seed {seed}: {text}"))
        evidence = os.path.join(evidence_root, f"{plan.nodes}-{'+'.join(plan.faults) or 'none'}-{seed}")
        try:
            outcome = episode.run()
        except LabError as error:
            kept = self._keep(episode, evidence)
            self.not_run.append(seed)
            self._progress.say(f"seed {seed}: could not run: {error}; {kept}")
            if self._report:
                self._report.add_not_run(plan, str(error), self._again(plan))
            return
        except BaseException:
            shutil.rmtree(work_dir, ignore_errors=True)
            raise
        self.seeds.append(seed)
        self.totals.update(outcome.figures)
        excused = Counter(f"{finding.invariant} {finding.excuse}" for check in outcome.result.checks
                          for finding in check.excused)
        self.excused.update(excused)
        text = (f"seed {seed}: {outcome.verdict} in {outcome.seconds:.0f} s: " +
                ", ".join(f"{value} {name.replace('_', ' ')}" for name, value in outcome.figures.items()) +
                "".join(f"; excused {count} x {name}" for name, count in sorted(excused.items())))
        if outcome.verdict == "violated":
            self.violated.append((seed, outcome.reason))
        elif outcome.verdict != "held":
            self.not_run.append(seed)
        if outcome.verdict != "held" or options.keep:
            text += f"; {self._keep(episode, evidence)}"
        self._progress.say(text)
        if outcome.verdict != "held":
            self._progress.say(f"  {outcome.reason}")
            self._progress.say(f"  again: {self._again(plan)}")
        if self._report:
            self._report.add(plan, outcome, self._again(plan))
        shutil.rmtree(work_dir, ignore_errors=True)

    def _keep(self, episode, evidence):
        if os.path.isdir(evidence):
            shutil.rmtree(evidence)
        shutil.copytree(episode.evidence, evidence)
        return f"evidence in {evidence}"

    def _again(self, plan):
        faults = "+".join(plan.faults) or "none"
        bin_dir = f" --bin {self._options.bin}" if self._options.bin else ""
        library = f" --library {self._options.library}" if self._options.library else ""
        library += f" --seconds {self._options.seconds:g}" if self._options.seconds else ""
        return (f"vxlab{bin_dir} chaos --nodes {plan.nodes} --faults {faults} "
                f"--replay {plan.seed}{library}")

    def row(self):
        options = self._options
        seeds = f"{self.seeds[0]}-{self.seeds[-1]}" if self.seeds else "-"
        return [options.nodes, ",".join(options.faults), seeds, f"{self.minutes:.1f}",
                self.totals["submissions"], self.totals["acknowledged"], self.totals["roll_overs"],
                self.totals["moved"], self.totals["faults"], self.totals["at_roll_over"], len(self.violated),
                len(self.not_run)]

    def _tell(self):
        self._progress.close()
        print("| " + " | ".join(COLUMNS) + " |")
        print("|" + "---|" * len(COLUMNS))
        print("| " + " | ".join(str(cell) for cell in self.row()) + " |")
        for name, count in sorted(self.excused.items()):
            print(f"excused {count} x {name}")
        for seed, reason in self.violated:
            print(f"violated by seed {seed}: {reason}")
        for seed in self.not_run:
            print(f"could not run: seed {seed}")
        if self._report:
            print(f"report: {self._report.write(COLUMNS, self.row())}")

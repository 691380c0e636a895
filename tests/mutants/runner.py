"""Runs faults on copies of the sources: one worker per processor, each fault through the stages."""
import collections
import concurrent.futures
import dataclasses
import fcntl
import json
import math
import os
import pathlib
import subprocess
import sys
import threading
import time

import build
import generate
import stages

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "plugin"))
import log_lines  # noqa: E402


@dataclasses.dataclass
class Fault:
    """key       names it among results
    identity  its members in the results
    changes   functions from the text of a source to the faulty one, by path
    test      the one that has to fail, of a named fault
    patch     a file with the changes instead
    was       the result of an earlier run
    """
    key: tuple
    text: str
    identity: dict
    changes: dict = dataclasses.field(default_factory=dict)
    test: str = ""
    patch: object = None
    was: object = None

    def texts(self, worker):
        """Returns the texts of the sources that the fault changes."""
        if not self.patch:
            return {name: change(worker.build.files[name])
                    for name, change in self.changes.items()}
        done = subprocess.run(["patch", "--strip=1", "--force", "--no-backup-if-mismatch",
                               "--reject-file=-", f"--directory={worker.folder / 'tree'}",
                               f"--input={self.patch}"], capture_output=True, text=True)
        if done.returncode != 0:
            raise build.Failed(f"{self.text} does not apply to {build.PLUGINS}: "
                               f"{(done.stdout + done.stderr).strip()}")
        return worker.changed()


class Run:
    """Runs faults in order, on one worker per processor, until enough of them compiled."""

    def __init__(self, root, project, options, faults, reasons=None, counted=0):
        """counted: results of earlier runs that --count includes."""
        self.faults, self.reasons = collections.deque(faults), reasons or {}
        self.wanted = math.inf if options.count is None else options.count - counted
        self.options, self.build = options, project
        self.until = time.monotonic() + (options.seconds or math.inf)
        self.lock = threading.Lock()
        self.records, self.errors = [], []
        self.processes = build.Processes()
        self.log_rows = log_lines.rows_of_document((root / log_lines.DOCUMENT).read_text())
        self.folder = pathlib.Path(options.build).resolve() / "mutants"
        self.folder.mkdir(exist_ok=True)
        self.stages = stages.Stages(root, self.folder, self.processes)
        if options.named:  # which name scenarios and unit tests only
            del self.stages.all[2:]

    def next(self):
        """Returns the next fault; None when there are enough, or the time is over: one result is
        better than none."""
        with self.lock:
            if not self.faults or self.wanted <= 0 or self.processes.stopped or \
                    self.records and time.monotonic() > self.until:
                return None
            self.wanted -= 1
            return self.faults.popleft()

    def keep(self, fault, record):
        with self.lock:
            if self.processes.stopped:  # an interrupted mutant has no result
                return
            self.records.append(record)
            if self.options.results:
                with open(self.options.results, "a", encoding="utf-8") as file:
                    file.write(json.dumps(record) + "\n")
            if record["result"] == "dropped":  # the next one replaces it
                self.wanted += 1
                return
            by = f"  <- {generate.short(record['by'], 100)}" if record["by"] else ""
            print(f"{record['result']:10} {record['seconds']:5.1f} s  {fault.text}{by}", flush=True)

    def work(self, number):
        try:
            worker = build.Worker(self.build, self.folder / str(number), self.processes)
            for fault in iter(self.next, None):
                begin = time.monotonic()
                result, by, stage = (self.try_named if fault.test else self.try_one)(worker, fault)
                self.keep(fault, {**fault.identity, "result": result, "stage": stage,
                                  "by": generate.short(by, 200),
                                  "seconds": round(time.monotonic() - begin, 2)})
        except build.Failed as error:
            if not self.processes.stopped:
                self.errors.append(str(error))
            self.processes.stop()

    def changed_log_lines(self, texts):
        """Returns the differences from the list of log lines, with some faulty texts."""
        return log_lines.differences(log_lines.statements_of({**self.build.files, **texts}),
                                     self.log_rows)

    def unusable(self, fault, why):
        """A mutant that cannot be built is dropped; for a patch that is an error."""
        if fault.patch and not self.processes.stopped:
            raise build.Failed(f"{fault.text} {why}")
        return "dropped", why.split(":")[0], ""

    def try_one(self, worker, fault):
        """Returns a fault's result, what killed it, and in which stage."""
        texts = fault.texts(worker)
        for line in [] if fault.patch else self.changed_log_lines(texts):
            return "killed", f"log lines: {line}", "log lines"
        objects, differs, output = worker.compile_changed(texts)
        if objects is None:
            return self.unusable(fault, f"does not compile:\n{output}")
        if not differs and not fault.patch:
            return "equivalent", "compiles to the same code", ""
        for stage in self.stages.all:
            if stage.patterns is stages.RECORDED and fault.key in self.reasons:
                break  # the record holds calls without an effect, too
            output = worker.link(stage.program, objects)
            if output:
                return self.unusable(fault, f"does not link:\n{output}")
            by = self.stages.run(stage, worker.folder)
            if by:
                return "killed", f"{stage.name}: {by}", stage.name
        reason = self.reasons.get(fault.key, "")
        return "equivalent" if reason else "survived", reason, ""

    def try_named(self, worker, fault):
        """Runs the test that the fault names; all scenarios and unit tests only if it passes."""
        objects, _, output = worker.compile_changed(fault.texts(worker))
        if objects is None:
            error = next((line for line in output.splitlines() if "error:" in line), output)
            return "unusable", f"does not compile: {error.split('error:')[-1].strip()}", ""
        scenarios, unit_tests = self.stages.all
        first = scenarios if fault.test.endswith(".json") else unit_tests
        for stage, test in ((first, fault.test), (scenarios, ""), (unit_tests, "")):
            output = worker.link(stage.program, objects)
            if output:
                raise build.Failed(f"{fault.text}: does not link:\n{output}")
            by = self.stages.run(stage, worker.folder, test)
            if by:
                return ("caught", by, "") if test else \
                    ("missed", f"expected {fault.test}; only {by} fails", "")
        return "survived", f"expected {fault.test}", ""

    def check_baseline(self):
        for problem in self.changed_log_lines({}):
            raise build.Failed(problem)
        worker = build.Worker(self.build, self.folder / "0", self.processes)
        worker.forget_old()
        for target in self.build.links:
            output = worker.link(target, {})
            if output:
                raise build.Failed(f"{target} cannot be linked without a fault:\n{output}")
        self.stages.start_wine()
        if self.options.seconds:  # other tests of that run show that all pass without a fault
            self.stages.assume()
        else:
            self.stages.measure(worker.folder)

    def go(self):
        """Runs all; an interruption ends every process and keeps the results. Returns whether it
        was interrupted."""
        workers = os.cpu_count() or 1
        if not self.faults or self.wanted <= 0:
            return False
        with open(self.folder / "lock", "w", encoding="utf-8") as alone:
            try:
                fcntl.flock(alone, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except OSError as error:
                raise build.Failed(f"another run uses {self.folder}") from error
            try:
                self.check_baseline()
                with concurrent.futures.ThreadPoolExecutor(workers) as pool:
                    try:
                        list(pool.map(self.work, range(workers)))
                    except KeyboardInterrupt:
                        self.processes.stop()
                        return True
            finally:
                self.stages.stop_wine()
        if self.errors:
            raise build.Failed("\n".join(self.errors))
        return False

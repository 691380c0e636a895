"""Runs faults on copies of the sources: one worker per processor, each fault through the stages."""
import collections
import concurrent.futures
import contextlib
import fcntl
import json
import os
import pathlib
import subprocess
import sys
import threading
import time

import build
import generate
import stages

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests/plugin"))
import log_lines  # noqa: E402


class Fault:
    """A mutant or a patch: key names it in results, apply puts it into a worker's sources."""

    def __init__(self, key, text, apply, identity=None, was=None, test=""):
        self.key, self.text, self.apply = key, text, apply
        self.test = test  # that has to fail, of a named fault
        self.identity = identity or {"patch": text}
        self.is_patch = identity is None
        self.was = was  # the result of an earlier run


def mutant_fault(mutant, was=None):
    def apply(worker):
        worker.write(mutant.file, mutant.apply(worker.build.files[mutant.file]))
    return Fault(mutant.key, str(mutant), apply, {**mutant.identity, "line": mutant.line}, was)


def patch_fault(name):
    path = pathlib.Path(name).resolve()
    if not path.is_file():
        raise build.Failed(f"{name}: file not found")

    def apply(worker):
        done = subprocess.run(["patch", "--strip=1", "--force", "--no-backup-if-mismatch",
                               "--reject-file=-", f"--directory={worker.folder / 'tree'}",
                               f"--input={path}"], capture_output=True, text=True)
        if done.returncode != 0:
            raise build.Failed(f"{name} does not apply to {build.PLUGINS}: "
                               f"{(done.stdout + done.stderr).strip()}")
    return Fault((name,), name, apply)


@contextlib.contextmanager
def timed(seconds, step):
    start = time.monotonic()
    yield
    seconds[step] = round(seconds.get(step, 0) + time.monotonic() - start, 2)


class Run:
    """Runs faults in order, on one worker per processor, until enough of them compiled."""

    def __init__(self, project, faults, count, reasons, options):
        self.faults = collections.deque(faults)
        self.wanted = count
        self.reasons = reasons
        self.lock = threading.Condition()
        self.counted = self.flying = 0
        self.records = []
        self.errors = []
        self.processes = build.Processes()
        self.build = project
        self.log_rows = log_lines.rows_of_document((ROOT / log_lines.DOCUMENT).read_text())
        for problem in log_lines.differences(log_lines.statements_of(project.files), self.log_rows):
            raise build.Failed(problem)
        self.folder = pathlib.Path(options.build).resolve() / "mutants"
        self.folder.mkdir(exist_ok=True)
        self.alone = open(self.folder / "lock", "w", encoding="utf-8")
        try:
            fcntl.flock(self.alone, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError as error:
            raise build.Failed(f"another run uses {self.folder}") from error
        self.stages = stages.Stages(ROOT, self.folder, self.processes)
        self.results = open(options.results, "a", encoding="utf-8") if options.results else None

    def next(self):
        """Returns the next fault; None when there are enough. A mutant that does not compile is
        replaced by the next one."""
        with self.lock:
            while self.faults and not self.processes.stopped:
                if self.wanted is None or self.counted + self.flying < self.wanted:
                    self.flying += 1
                    return self.faults.popleft()
                if self.flying == 0:
                    return None
                self.lock.wait(1)
            return None

    def keep(self, fault, record):
        with self.lock:
            self.flying -= 1
            self.counted += record["result"] != "dropped"
            self.lock.notify_all()
            if self.processes.stopped:  # an interrupted mutant has no result
                return
            self.records.append(record)
            if self.results:
                self.results.write(json.dumps(record) + "\n")
                self.results.flush()
            if record["result"] != "dropped":
                by = f"  <- {generate.short(record['by'], 100)}" if record["by"] else ""
                print(f"{record['result']:10} {sum(record['seconds'].values()):5.1f} s  "
                      f"{fault.text}{by}", flush=True)

    def try_one(self, worker, fault):
        """The record of one fault."""
        seconds = {}

        def record(result, by="", stage=""):
            return {**fault.identity, "result": result, "stage": stage,
                    "by": generate.short(by, 200), "seconds": seconds}

        with timed(seconds, "log lines"):
            by = "" if fault.is_patch else self.changed_log_lines(worker, fault)
        if by:
            return record("killed", f"log lines: {by}", "log lines")
        with timed(seconds, "compile"):
            objects, differs, output = worker.compile_changed(lambda: fault.apply(worker))
        if objects is None:
            return record("dropped", self.unusable(fault, "does not compile", output))
        if not differs and not fault.is_patch:
            return record("equivalent", "compiles to the same code")
        linked = set()
        for stage in self.stages.all:
            if stage.program not in linked:
                linked.add(stage.program)
                with timed(seconds, "link"):
                    output = worker.link(stage.program, objects)
                if output:
                    return record("dropped", self.unusable(fault, "does not link", output))
            with timed(seconds, stage.name):
                by = self.stages.run(stage, worker.folder)
            if by:
                return record("killed", f"{stage.name}: {by}", stage.name)
        if fault.key in self.reasons:
            return record("equivalent", self.reasons[fault.key])
        return record("survived")

    def changed_log_lines(self, worker, fault):
        """Returns the first difference from the list of log lines that a fault makes."""
        fault.apply(worker)
        changed = worker.changed()
        worker.restore()
        return next(iter(log_lines.differences(
            log_lines.statements_of({**self.build.files, **changed}), self.log_rows)), "")

    def unusable(self, fault, why, output):
        """A mutant that cannot be built is dropped; for a patch that is an error."""
        if fault.is_patch and not self.processes.stopped:
            raise build.Failed(f"{fault.text} {why}:\n{output}")
        return why

    def work(self, number):
        try:
            worker = build.Worker(self.build, self.folder / str(number), self.processes)
            for fault in iter(self.next, None):
                self.keep(fault, self.try_one(worker, fault))
        except build.Failed as error:
            if not self.processes.stopped:
                self.errors.append(str(error))
            self.processes.stop()

    def check_baseline(self):
        worker = build.Worker(self.build, self.folder / "0", self.processes)
        worker.forget_old()
        for target in self.build.links:
            output = worker.link(target, {})
            if output:
                raise build.Failed(f"{target} cannot be linked without a fault:\n{output}")
        self.stages.start_wine()
        self.stages.measure(worker.folder)

    def go(self):
        """Runs all; an interruption ends every process and keeps the results."""
        workers = os.cpu_count() or 1
        try:
            self.check_baseline()
            with concurrent.futures.ThreadPoolExecutor(workers) as pool:
                done = [pool.submit(self.work, number) for number in range(workers)]
                try:
                    for one in done:
                        one.result()
                except BaseException:
                    self.processes.stop()
                    raise
        finally:
            self.stages.stop_wine()
            if self.results:
                self.results.close()
        if self.errors:
            raise build.Failed("\n".join(self.errors))

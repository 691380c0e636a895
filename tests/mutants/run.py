#!/usr/bin/env python3
"""Puts one fault after another into the plug-in and checks whether the tests find it.

Exit status: 0 every mutant is killed or equivalent; 1 one survived; 2 the command line or the list
of equivalents is wrong, or a test fails without a fault.
"""
import argparse
import collections
import concurrent.futures
import contextlib
import fcntl
import json
import os
import pathlib
import signal
import subprocess
import sys
import threading
import time

import build
import generate
import results
import stages

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
EQUIVALENTS = HERE / "equivalents.json"


def arguments():
    parser = argparse.ArgumentParser(prog="./dev mutants", description=__doc__.splitlines()[0],
                                     epilog="See docs/mutants.md.")
    parser.add_argument("--count", type=int, metavar="N", help="only N mutants, of all files")
    parser.add_argument("--seed", default="1", metavar="S", help="which N, and in which order")
    parser.add_argument("--file", metavar="NAME", help="only files whose path holds NAME")
    parser.add_argument("--patch", action="append", default=[], metavar="FILE",
                        help="the fault of a unified diff instead; may be repeated")
    parser.add_argument("--list", action="store_true", help="prints the mutants and runs none")
    parser.add_argument("--results", metavar="FILE", help="writes one JSON object per mutant")
    parser.add_argument("--continue", dest="resume", action="store_true",
                        help="with --results: skips the mutants in FILE; the sums include them")
    parser.add_argument("--again", metavar="FILE",
                        help="the mutants of earlier results, on the sources as they are now")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.resume and not options.results:
        parser.error("--continue needs --results FILE")
    if options.count is not None and options.count < 1:
        parser.error("--count: expected 1 or more")
    if options.results and os.path.exists(options.results) and not options.resume:
        parser.error(f"{options.results} exists already; --continue adds to it")
    return options


class Fault:
    """A mutant or a patch: key names it in results, apply puts it into a worker's sources."""

    def __init__(self, key, text, apply, identity=None, was=None):
        self.key, self.text, self.apply = key, text, apply
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


def equivalents(finder):
    """Reasons by key of the mutants in the list, and what is wrong with it."""
    reasons, wrong = {}, []
    for entry in json.loads(EQUIVALENTS.read_text()):
        mutant = finder.find(entry)
        if mutant is None:
            wrong.append(f"an entry no longer applies: {entry['file']}: {entry['function']}: "
                         f"{entry['original']} -> {entry['replacement']} in {entry['statement']}")
        elif not entry.get("reason"):
            wrong.append(f"an entry has no reason: {mutant}")
        else:
            reasons[mutant.key] = entry["reason"]
    return reasons, wrong


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


def faults_of_options(options, mutants, finder):
    """The faults to run, and how many earlier ones no longer apply."""
    if options.patch:
        return [patch_fault(name) for name in options.patch], 0
    if options.again:
        faults, gone = {}, 0
        for record in results.read(options.again):
            if record["result"] == "dropped" or "patch" in record or \
                    options.file and options.file not in record["file"]:
                continue
            mutant = finder.find(record)
            if mutant is None:
                gone += 1
                print(f"no longer applies: {record['file']}: {record['function']}: "
                      f"{record['original']} -> {record['replacement']}"
                      f" in {generate.short(record['statement'])}")
            else:
                faults.setdefault(mutant.key, mutant_fault(mutant, record["result"]))
        return list(faults.values()), gone
    chosen = [one for one in mutants if not options.file or options.file in one.file]
    if not chosen:
        raise build.Failed(f"--file {options.file}: no source of the plug-in has it in its path")
    return [mutant_fault(one) for one in generate.sample(chosen, options.seed)], 0


def main():
    options = arguments()
    project = build.Build(ROOT, pathlib.Path(options.build).resolve() / "win")
    mutants = [one for name, text in sorted(project.files.items())
               for one in generate.mutants_of(name, text)]
    finder = generate.Finder(mutants)
    reasons, wrong = equivalents(finder)
    faults, gone = faults_of_options(options, mutants, finder)
    if options.list:
        for fault in faults[:options.count]:
            print(fault.text)
        return 0
    was = {fault.key: fault.was for fault in faults}
    earlier = results.read(options.results) if options.resume and os.path.exists(
        options.results) else []
    known = {results.key_of(record) for record in earlier}
    counted = sum(record["result"] != "dropped" for record in earlier)
    todo = [fault for fault in faults if fault.key not in known]
    count = None if options.count is None else max(0, options.count - counted)
    records, interrupted = earlier, False
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    if todo and count != 0:
        run = Run(project, todo, count, reasons, options)
        try:
            run.go()
        except KeyboardInterrupt:
            interrupted = True
        records = earlier + run.records
    wrong += [f"an entry is killed by {one['by']}: {results.text_of(one)}" for one in records
              if one["result"] == "killed" and results.key_of(one) in reasons]
    status = results.report(records, was, wrong, gone)
    return 130 if interrupted else status


if __name__ == "__main__":
    try:
        sys.exit(main())
    except build.Failed as error:
        print(f"mutants: {error}", file=sys.stderr)
        sys.exit(2)

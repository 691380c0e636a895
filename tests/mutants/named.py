"""Named faults: one for each rule of the plug-in, with the test that has to fail.

named.json has one object a fault:
  "rule"   the rule that the fault breaks, as a sentence
  "file"   the source; when the text has moved, the one source that contains it
  "from"   text that occurs there once; a run of blanks and line feeds equals one blank
  "to"     its replacement
  "fails"  the scenario "NAME.json" or the unit test "SUITE.NAME" that has to fail
"""
import datetime
import json
import os
import pathlib
import random
import re
import time

import build
from runner import Fault, Run, timed

ROWS = pathlib.Path(__file__).resolve().parent / "named.json"
MEMBERS = ["rule", "file", "from", "to", "fails"]


class Named:
    """One named fault."""

    def __init__(self, row):
        self.rule, self.file, self.old, self.new, self.test = (row[name] for name in MEMBERS)

    def __str__(self):
        return f"{self.file}: {self.rule}"

    def expression(self):
        return re.compile(r"\s+".join(re.escape(word) for word in self.old.split()))

    def place(self, files):
        """Returns the source that has the text once, and the match; None without one."""
        find = self.expression()
        found = [(name, match) for name, text in files.items() for match in find.finditer(text)]
        own = [one for one in found if one[0] == self.file]
        found = own or found
        return found[0] if len(found) == 1 else None

    def apply(self, worker):
        """Writes the faulty source. Other lines keep their number for the log."""
        name, match = self.place(worker.build.files)
        text = worker.build.files[name]
        lines = match.group().count("\n") - self.new.count("\n")
        worker.write(name, text[:match.start()] + self.new + "\n" * max(lines, 0) +
                     text[match.end():])


def read():
    return [Named(row) for row in json.loads(ROWS.read_text())]


def problems(files, scenarios, unit_tests):
    """Returns what is wrong with the rows. unit_tests: the text of their sources."""
    rows = json.loads(ROWS.read_text())
    found = [f"members are not {MEMBERS}: {row}" for row in rows if list(row) != MEMBERS]
    if found:
        return found
    rules = [row["rule"] for row in rows]
    found += [f"twice: {rule}" for rule in sorted(set(rules)) if rules.count(rule) > 1]
    for one in map(Named, rows):
        suite, _, name = one.test.partition(".")
        if one.place(files) is None:
            found.append(f"{one}: no source, or more than one place, has: {one.old}")
        if name == "json" and one.test not in scenarios:
            found.append(f"{one}: there is no scenario {one.test}")
        if name != "json" and not re.search(rf"TEST\({suite}, {name}\)", unit_tests):
            found.append(f"{one}: there is no unit test {one.test}")
    return found


def shuffled(seed):
    """Returns the seed, by default today, and all faults in its order."""
    seed = seed or datetime.date.today().isoformat()
    rows = read()
    random.Random(seed).shuffle(rows)
    return seed, rows


class NamedRun(Run):
    """Runs named faults, each against the test that it names, and against all if that passes."""

    def __init__(self, project, faults, options):
        super().__init__(project, [Fault((one.rule,), str(one), one.apply, {"named": one.rule},
                                       test=one.test) for one in faults], None, {}, options)
        self.stages.all = self.stages.all[:2]
        self.until = time.monotonic() + options.seconds if options.seconds else None

    def next(self):
        if self.until and time.monotonic() > self.until:
            return None
        return super().next()

    def check_baseline(self):
        started = time.monotonic()
        super().check_baseline()
        if self.until:  # it is not part of the time
            self.until += time.monotonic() - started

    def try_one(self, worker, fault):
        seconds = {}
        with timed(seconds, "all"):
            result, by = self.try_named(worker, fault)
        return {**fault.identity, "result": result, "by": by, "seconds": seconds}

    def try_named(self, worker, fault):
        objects, _, output = worker.compile_changed(lambda: fault.apply(worker))
        if objects is None:
            error = next((line for line in output.splitlines() if "error:" in line), output)
            return "unusable", f"does not compile: {error.split('error:')[-1].strip()}"
        scenario, unit = self.stages.all
        first = scenario if fault.test.endswith(".json") else unit
        for stage in (first, unit if first is scenario else scenario):
            output = worker.link(stage.program, objects)
            if output:
                raise build.Failed(f"{fault.text}: does not link:\n{output}")
            if stage is first:
                by = self.stages.run(stage, worker.folder, fault.test)
                if by:
                    return "caught", by
            by = self.stages.run(stage, worker.folder)
            if by:
                return "missed", f"expected {fault.test}; only {by} fails"
        return "survived", f"expected {fault.test}"


def run(options, project):
    """Runs the named faults. Result: the exit status."""
    seed, rows = shuffled(options.seed or os.environ.get("BYPASS_NAMED_SEED"))
    rows = [one for one in rows if not options.file or options.file in one.file]
    for one in rows if options.list else []:
        print(f"{one}  <- {one.test}")
    lost = [one for one in rows if one.place(project.files) is None]
    if lost:
        raise build.Failed("\n".join(f"{one}: its text is in no source, or in several places"
                                     for one in lost))
    if options.list:
        return 0
    print(f"seed {seed}", flush=True)
    runner = NamedRun(project, rows, options)
    runner.go()
    records = runner.records
    caught = sum(one["result"] == "caught" for one in records)
    for one in records:
        if one["result"] != "caught":
            print(f"FAILED: {one['result']}: {one['named']}: {one['by']}")
    print(f"{len(records)} of {len(rows)} named faults, seed {seed}: {caught} caught, "
          f"{len(records) - caught} not")
    return 0 if records and caught == len(records) else 1

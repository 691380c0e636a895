#!/usr/bin/env python3
"""Runs scenarios, plug-in tests, unit tests and some random machines with the counting build, and
prints which lines and branches of the plug-in ran.

usage: run.py --build BUILD

BUILD/coverage/report/index.html shows each line. Lines that do not run are listed with a reason in
unreached.json beside this file. Exit status: 0 the targets are met, 1 a line that is not listed
does not run, a listed one runs, too few branches run, or a test fails.
"""
import argparse
import glob
import json
import os
import re
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))
BRANCHES_PERCENT = 95
BOOTS = ["--boots", "1000", "--seed", "1"]


def play(build):
    """Runs the tests one after another: two processes would overwrite each other's counters."""
    for old in glob.glob(build + "/**/*.gcda", recursive=True):
        os.remove(old)
    scenarios = sorted(glob.glob(SOURCE + "/scenarios/*.json"))
    for program, arguments in [
            ("oxni_devhost", ["run", "--quiet", "--log", "none", *scenarios]),
            ("unit_tests", ["--gtest_brief=1"]),
            ("load_plugin", ["20"]),
            ("load_plugin", ["exit"]),
            ("harness", ["simulate", *BOOTS])]:
        run = subprocess.run([SOURCE + "/cmake/wine-run", f"{build}/bin/{program}.exe", *arguments],
                             capture_output=True, text=True, errors="replace", check=False)
        if run.returncode != 0:
            sys.exit(f"{run.stdout}{run.stderr}coverage: {program} failed ({run.returncode})")


def count(build):
    """The files of gcovr's report: path, and lines with counts and branches."""
    report, counts = build + "/report", build + "/coverage.json"
    os.makedirs(report, exist_ok=True)
    subprocess.run(["gcovr", "--root", SOURCE, "--filter", SOURCE + "/oxni_sys/",
                    "--gcov-executable", "x86_64-w64-mingw32-gcov-posix",
                    "--exclude-throw-branches", "--json", counts,
                    "--html-details", report + "/index.html", build],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(counts, encoding="utf-8") as file:
        return [(entry["file"], [line for line in entry["lines"] if not line["gcovr/noncode"]])
                for entry in json.load(file)["files"]]


def lines_of(entry):
    """The line numbers of the one place of a source that contains an entry's text."""
    with open(os.path.join(SOURCE, entry["file"]), encoding="utf-8") as file:
        source = file.read()
    words = [re.escape(word) for word in entry["text"].split()]
    places = list(re.finditer(r"\s+".join(words), source))
    if len(places) != 1:
        sys.exit(f"unreached.json: {entry['file']} has {len(places)} places of: {entry['text']}")
    first = source.count("\n", 0, places[0].start()) + 1
    return range(first, source.count("\n", 0, places[0].end()) + 2)


def percent(part, whole):
    return f"{100 * part / whole if whole else 100:5.1f} %"


def row(name, lines, branches):
    print(f"{name:52} {percent(*lines)} of {lines[1]:4} lines  {percent(*branches)} of "
          f"{branches[1]:4} branches")


def check(files):
    """Prints a row a file and the complaints; returns whether the targets are met."""
    with open(HERE + "/unreached.json", encoding="utf-8") as file:
        listed = [(entry, lines_of(entry)) for entry in json.load(file)]
    complaints, used = [], set()
    total = [0, 0, 0, 0]
    for name, lines in files:
        branches = [branch["count"] for line in lines for branch in line["branches"]]
        sums = [sum(line["count"] > 0 for line in lines), len(lines),
                sum(number > 0 for number in branches), len(branches)]
        total = [one + other for one, other in zip(total, sums)]
        row("/".join(name.split("/")[2:]).replace("windows/win_event_parse/", ""), sums[:2],
            sums[2:])
        for number in (line["line_number"] for line in lines if line["count"] == 0):
            reasons = [place for place, (entry, span) in enumerate(listed)
                       if entry["file"] == name and number in span]
            used.update(reasons)
            if not reasons:
                complaints.append(f"{name}:{number}: no test runs this line")
    row("all", total[:2], total[2:])
    complaints += [f"unreached.json: {entry['file']}: a test runs: {entry['text']}"
                   for place, (entry, _) in enumerate(listed) if place not in used]
    if 100 * total[2] < BRANCHES_PERCENT * total[3]:
        complaints.append(f"fewer than {BRANCHES_PERCENT} % of the branches run")
    print(f"{total[1] - total[0]} lines do not run, {len(listed)} places are listed with a reason")
    print("".join(text + "\n" for text in complaints), end="")
    return not complaints


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    build = os.path.abspath(parser.parse_args().build) + "/coverage"
    play(build)
    met = check(count(build))
    print(f"report: {build}/report/index.html")
    sys.exit(0 if met else 1)


main()

#!/usr/bin/env python3
"""Makes the checks under Wine and on the development host's machine, on the disk and in memory.

usage: conformance_test.py SOURCE BIN

The answers that differ from Windows' must be the ones in differences.txt, and each call that
the plug-in makes needs a check.
"""
import os
import re
import subprocess
import sys
import tempfile

source, programs = sys.argv[1:3]
here = os.path.dirname(os.path.abspath(__file__))
problems = []


def windows_path(path):
    return "Z:" + path.replace("/", "\\")


def lines_of(*command):
    """Runs a program under Wine and returns its lines about checks."""
    done = subprocess.run([f"{source}/cmake/wine-run", *command], capture_output=True, text=True,
                          encoding="utf-8", errors="replace")
    lines = [line.split("conformance: ")[-1].strip() for line in done.stdout.splitlines()]
    found = [line for line in lines if re.match(r"(ok|DIFFERS|open) \w+: ", line)]
    if not found:
        problems.append(f"{command}: no check was made, status {done.returncode}\n{done.stderr}")
    return found


def listed(machine):
    """The checks that differences.txt lists for a machine: "machine | call: case | reason"."""
    rows = [line.rstrip("\n").split(" | ") for line in open(f"{here}/differences.txt")
            if line.strip() and not line.startswith("#")]
    problems.extend(f"differences.txt: expected three columns: {row}" for row in rows
                    if len(row) != 3)
    return {row[1] for row in rows if row[0] == machine}


def name_of(line):
    """The call and the case of a line, without the answer."""
    return re.sub(r"^\w+ ", "", line).rsplit(": ", 1)[0]


def compare(machine, lines):
    names = [name_of(line) for line in lines]
    problems.extend(f"{machine}: {name}: two checks" for name in {n for n in names
                                                                  if names.count(n) > 1})
    differing = {name_of(line): line for line in lines if line.startswith("DIFFERS")}
    known = listed(machine)
    problems.extend(f"{machine}: {differing[name]}" for name in sorted(differing.keys() - known))
    problems.extend(f"{machine}: {name}: is listed and does not differ"
                    for name in sorted(known - differing.keys()))
    return {name.split(":")[0] for name in names}


def calls_of_plugin():
    with open(f"{source}/devhost/calls/calls_table.h", encoding="utf-8") as file:
        return set(re.findall(r'\{"(?:kernel32|advapi32|msvcrt)\.dll",\s*"(\w+)"', file.read()))


def main():
    plugin = windows_path(f"{programs}/conformance_plugin.dll")
    scenario = windows_path(f"{here}/machine.json")
    with tempfile.TemporaryDirectory() as folder:
        wine = lines_of(f"{programs}/windows_check.exe", windows_path(f"{folder}/lines.txt"))
        kept = open(f"{folder}/lines.txt").read().splitlines()
        if kept != wine:
            problems.append(f"windows_check's file has {len(kept)} lines, {len(wine)} were printed")
    checked = compare("wine", wine)
    compare("disk", lines_of(f"{programs}/oxni_devhost.exe", "run", "--plugin", plugin, scenario))
    compare("memory", lines_of(f"{programs}/harness.exe", "simulate", "--plugin", plugin, "--file",
                               scenario))
    problems.extend(f"{call}: no check" for call in sorted(calls_of_plugin() - checked))
    print("\n".join(problems) or f"{len(wine)} checks on each of three machines")
    sys.exit(1 if problems else 0)


main()

#!/usr/bin/env python3
"""Breaks one promise of the reference platform at a time; the platform check must find each.

usage: faults.py SOURCE BUILD [--seconds N] [--seed S]

faults.json has rows of the operation, a source below platform/, a text that occurs there once, and
its replacement. Without --seconds every fault is tried, else as many as fit, in an order that
depends on the day or on S.
"""
import argparse
import concurrent.futures
import datetime
import json
import os
import pathlib
import random
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "mutants"))
from build import for_output, link_command # noqa: E402

parser = argparse.ArgumentParser()
parser.add_argument("source", type=pathlib.Path)
parser.add_argument("build", type=pathlib.Path)
parser.add_argument("--seconds", type=float, default=1e9)
parser.add_argument("--seed", default=datetime.date.today().isoformat())
options = parser.parse_args()
until = time.monotonic() + options.seconds
commands = {one["file"]: shlex.split(one["command"]) for one in
            json.loads((options.build / "compile_commands.json").read_text())}
PROGRAM = "platform_check.exe"
WINE = [options.source / "cmake/wine-run"]


def run(command):
    done = subprocess.run(command, cwd=options.build, stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, errors="replace")
    return done.returncode, done.stdout.replace("\r", "")


def library_of(source):
    return source.relative_to(options.source / "platform").parts[0]


def build_fault(folder, source, text):
    """Compiles a changed source and links its library. Result: empty, or what failed."""
    words = commands[str(source)]
    unchanged, changed = words[words.index("-o") + 1], str(folder / "changed.obj")
    words = for_output(words, changed)
    (folder / source.name).write_text(text)
    words[words.index("-c") + 1] = str(folder / source.name)
    status, output = run([*words, "-O0", f"-I{source.parent}"])
    if status != 0:
        return output
    library = library_of(source)
    words = [changed if word == unchanged else word for word in links[library]]
    words[words.index("-o") + 1] = str(folder / f"{library}.dll")
    status, output = run(words)
    return output if status != 0 else ""


def try_fault(row):
    """Result: None: no time; empty: the check finds it; else what happened."""
    operation, name, old, new = row
    source = options.source / "platform" / name
    text = source.read_text()
    if time.monotonic() > until:
        return None
    with tempfile.TemporaryDirectory() as made:
        folder = pathlib.Path(made)
        for library in [*links, PROGRAM[:-4]]:
            file = library + (".exe" if library == PROGRAM[:-4] else ".dll")
            shutil.copy(options.build / "bin" / file, folder / file)
        (folder / f"{library_of(source)}.dll").unlink()
        failed = build_fault(folder, source, text.replace(old, new))
        if failed:
            return f"does not compile: {failed}"
        status, output = run([*WINE, folder / PROGRAM, "--seconds=2", operation, last_of[operation]])
        # The area's last row is checked even if the platform crashes or hangs before.
        if status == 1 and f"FAIL {operation}: " in output and f" {last_of[operation]}: " in output:
            return ""
        return f"exit status {status}\n{output}"


listed = [line.split("\t") for line in
          run([*WINE, options.build / "bin" / PROGRAM, "--list"])[1].splitlines()]
last_of_area = {area: operation for area, operation, _ in listed if not area.startswith("host_")}
last_of = {operation: last_of_area[area] for area, operation, _ in reversed(listed)
           if area in last_of_area}
faults = json.loads((pathlib.Path(__file__).parent / "faults.json").read_text())
for operation, name, old, _ in faults: # all of them, though the time permits only some
    if (options.source / "platform" / name).read_text().count(old) != 1:
        raise SystemExit(f"FAILED: {operation}: {name}: {old}\nexpected once")
links = {row[1].split("/")[0]: None for row in faults}
links = {name: link_command(options.build, f"bin/{name}.dll") for name in links}
random.Random(options.seed).shuffle(faults)
with concurrent.futures.ThreadPoolExecutor(min(2, os.cpu_count())) as pool:
    results = [(row, found) for row, found in zip(faults, pool.map(try_fault, faults))
               if found is not None]
missed = [(row, found) for row, found in results if found]
for row, found in missed:
    print(f"FAILED: {row[0]}: {row[1]}: {row[2]}\n{found}")
print(f"{len(results)} of {len(faults)} faults, seed {options.seed}: {len(missed)} not found")
raise SystemExit(1 if missed or not results else 0)

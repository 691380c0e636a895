#!/usr/bin/env python3
"""What the plug-in does in the scenarios and on random machines, compared with what was recorded: its
calls with arguments and results, its messages and log lines, in their order. A scenario's log lines are
compared with the sources, too.

usage: behaviour.py PROJECT_FOLDER BIN_FOLDER [HOST_OPTION...]    BIN_FOLDER: has the programs

BYPASS_RECORD=yes records instead.
"""
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

import log_lines

RECORD = "tests/plugin/behaviour.txt"
# Random machines: name, boots, option.
MACHINES = [("machines", 2000, []), ("odd machines", 1000, ["--odd"])]
MACHINES_A_ROW = 10
# Calls that a person cannot observe: of memory, of clocks for log lines, of conversions; as in call_hash.cpp.
UNSEEN = re.compile(r'"text":"(?:oxni_time|oxni_time_stamp_to_local|oxni_log_output|oxni_log_is_regestered'
                    r'|oxni_free_|oxni_zero_malloc_|oxni_ralloc_|oxni_strdup|oxni_xhash_\w+|wdu_json_object'
                    r'|wdu_json_delete_ejs|MultiByteToWideChar|WideCharToMultiByte|oxni_str_utf8_to_unicode)\(')
# What differs between computers and between builds: line numbers, addresses, a folder that makes a path as
# long as a scenario wants it, and timers, whose numbers go on from scenario to scenario.
PLACE = re.compile(r"(\.cpp:|subscriber\()[0-9A-Fa-f]+")
TIMER = re.compile(r"(?<=oxni_timer_stop\()\d+|(?<== )\d+$")
LONG_FOLDER = re.compile(r"(b+\\)*b{20,}")


def run(root, *command):
    done = subprocess.run([f"{root}/cmake/wine-run", *command], capture_output=True, encoding="utf-8",
                          errors="replace", check=False, env={**os.environ, "TZ": "UTC"})
    if done.returncode != 0:
        sys.exit(f"FAILED: exit status {done.returncode}: {done.stderr[-500:]}\n{done.stdout[-2000:]}")
    return done.stdout.splitlines()


def row_of(lines):
    return f"{len(lines)} {hashlib.sha256(''.join(lines).encode()).hexdigest()[:16]}"


def of_scenarios(happenings):
    """Returns by scenario the number of calls and log lines of the plug-in, and their hash."""
    found = {}
    for what in happenings:
        if what["kind"] == "scenario":
            name, lines, timers = pathlib.PurePath(what["file"]).name, [], {"0": 0}
        elif what["kind"] in ("call", "log"):
            text = PLACE.sub(r"\1", what["text"]) if what["kind"] == "log" else what["text"]
            if text.startswith("oxni_timer_"):
                text = TIMER.sub(lambda number: str(timers.setdefault(number[0], len(timers))), text)
            text = LONG_FOLDER.sub("", text) if "bbbb" in text else text
            lines.append(f"{what['boot']} {what['ms']} {text}\n")
        elif what["kind"] == "result":
            found[name] = row_of(lines)
    return found


def of_machines(root, programs, options):
    """Returns by seeds of some machines a hash of what the simulation prints of them."""
    found = {}
    for kind, boots, more in MACHINES:
        output = run(root, f"{programs}/harness.exe", "simulate", "--boots", str(boots), "--seed", "1",
                     "--hash-calls", *more, *options)
        machines = [line for line in output if line.startswith("machine ")]
        for at in range(0, len(machines), MACHINES_A_ROW):
            found[f"{kind} from {at + 1}"] = row_of(machines[at:at + MACHINES_A_ROW])
    return found


def differences(found, recorded):
    """A scenario that is not recorded is no problem: it may be yours alone. What was not played is one."""
    yield from (f"{name}: recorded, but not played" for name in recorded if name not in found)
    for name in sorted(found):
        if name not in recorded:
            print(f"{name}: not recorded")
        elif found[name] != recorded[name]:
            yield f"{name}: the plug-in does not do what was recorded: {found[name]}, recorded {recorded[name]}"


def main(root, programs, *options):
    scenarios = sorted(map(str, pathlib.Path(root, "scenarios").glob("*.json")))
    happenings = [json.loads(line) for line in run(root, f"{programs}/oxni_devhost.exe", "run", "--json", "--trace",
                                                   "--log", "debug", *options, *scenarios) if not UNSEEN.search(line)]
    # The platform's own lines about a damaged file do not count.
    happenings = [what for what in happenings if not what.get("text", "").startswith("ejs: ")]
    found = {**of_scenarios(happenings), **of_machines(root, programs, options)}
    record = pathlib.Path(root, RECORD)
    if os.environ.get("BYPASS_RECORD"):
        record.write_text("".join(f"{name}: {what}\n" for name, what in found.items()))
    recorded = dict(line.split(": ") for line in record.read_text().splitlines())
    problems = list(differences(found, recorded))
    if not options: # another plug-in may have its statements on other lines
        problems += log_lines.run_problems(root, happenings)
    for problem in problems[:20]:
        print("FAILED:", problem)
    if problems:
        print("docs/mutants.md says how to compare two plug-ins, and how to record a wanted change.")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))

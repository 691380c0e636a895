#!/usr/bin/env python3
"""Puts one fault after another into the plug-in and checks whether the tests find it.

Exit status: 0 every mutant is killed or equivalent; 1 one survived; 2 the command line or the list
of equivalents is wrong, or a test fails without a fault.
"""
import argparse
import json
import os
import pathlib
import signal
import sys

import build
import generate
import named
import results
from runner import Fault, Run

ROOT = pathlib.Path(__file__).resolve().parents[2]
EQUIVALENTS = pathlib.Path(__file__).resolve().parent / "equivalents.json"


def arguments():
    parser = argparse.ArgumentParser(prog="./dev mutants", description=__doc__.splitlines()[0],
                                     epilog="See docs/mutants.md.")
    parser.add_argument("--count", type=int, metavar="N", help="only N mutants, of all files")
    parser.add_argument("--seed", metavar="S",
                        help="which N, and in which order (1; with --named today's date)")
    parser.add_argument("--file", metavar="NAME", default="",
                        help="only files whose path holds NAME")
    parser.add_argument("--patch", action="append", default=[], metavar="FILE",
                        help="the fault of a unified diff instead; may be repeated")
    parser.add_argument("--named", action="store_true",
                        help="the faults of named.json: each must fail the test that it names")
    parser.add_argument("--seconds", type=int, metavar="N",
                        help="with --named: starts no further fault N seconds after the start")
    parser.add_argument("--list", action="store_true", help="prints the mutants and runs none")
    parser.add_argument("--results", metavar="FILE", help="writes one JSON object per mutant")
    parser.add_argument("--continue", dest="resume", action="store_true",
                        help="with --results: skips the mutants in FILE; the sums include them")
    parser.add_argument("--again", metavar="FILE",
                        help="the mutants of earlier results, on the sources as they are now")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    for holds, message in [
            (options.results or not options.resume, "--continue needs --results FILE"),
            (options.count is None or options.count > 0, "--count: expected 1 or more"),
            (options.named or options.seconds is None, "--seconds needs --named"),
            (options.resume or not os.path.exists(options.results or ""),
             f"{options.results} exists already; --continue adds to it")]:
        if not holds:
            parser.error(message)
    return options


def equivalents(finder):
    """Reasons by key of the mutants in the list, and what is wrong with it."""
    reasons, wrong = {}, []
    for entry in json.loads(EQUIVALENTS.read_text()):
        mutant = finder.find(entry)
        if mutant is None:
            wrong.append(f"an entry no longer applies: {results.text_of(entry)}")
        elif not entry.get("reason"):
            wrong.append(f"an entry has no reason: {mutant}")
        else:
            reasons[mutant.key] = entry["reason"]
    return reasons, wrong


def mutant_fault(mutant, was=None):
    return Fault(mutant.key, str(mutant), {**mutant.identity, "line": mutant.line},
                 {mutant.file: mutant.apply}, was=was)


def patch_fault(name):
    path = pathlib.Path(name).resolve()
    if not path.is_file():
        raise build.Failed(f"{name}: file not found")
    return Fault((name,), name, {"patch": name}, patch=path)


def earlier_faults(options, finder):
    """The mutants of earlier results, and how many no longer apply."""
    faults, gone = {}, 0
    for record in results.read(options.again):
        if record["result"] == "dropped" or options.file not in record.get("file", ""):
            continue
        mutant = "patch" not in record and finder.find(record)
        if mutant:
            faults.setdefault(mutant.key, mutant_fault(mutant, record["result"]))
        elif mutant is None:
            gone += 1
            print(f"no longer applies: {results.text_of(record)}")
    return list(faults.values()), gone


def faults_of_options(options, mutants, finder):
    """The faults to run, and how many earlier ones no longer apply."""
    if options.patch:
        return [patch_fault(name) for name in options.patch], 0
    if options.again:
        return earlier_faults(options, finder)
    chosen = [one for one in mutants if options.file in one.file]
    if not chosen:
        raise build.Failed(f"--file {options.file}: no source of the plug-in has it in its path")
    return [mutant_fault(one) for one in generate.sample(chosen, options.seed or "1")], 0


def run_mutants(options, project):
    mutants = [one for name, text in sorted(project.files.items())
               for one in generate.mutants_of(name, text)]
    finder = generate.Finder(mutants)
    reasons, wrong = equivalents(finder)
    faults, gone = faults_of_options(options, mutants, finder)
    if options.list:
        for fault in faults[:options.count]:
            print(fault.text)
        return 0
    earlier = results.read(options.results) if options.resume and os.path.exists(
        options.results) else []
    known = {results.key_of(record) for record in earlier}
    run = Run(ROOT, project, options, [fault for fault in faults if fault.key not in known],
              reasons, sum(record["result"] != "dropped" for record in earlier))
    interrupted = run.go()
    records = earlier + run.records
    wrong += [f"an entry is killed by {one['by']}: {results.text_of(one)}" for one in records
              if one["result"] == "killed" and results.key_of(one) in reasons]
    status = results.report(records, {fault.key: fault.was for fault in faults}, wrong, gone)
    return 130 if interrupted else status


def run_named(options, project):
    seed, rows = named.shuffled(options.seed or os.environ.get("BYPASS_NAMED_SEED"))
    rows = [one for one in rows if options.file in one.file]
    lost = [one for one in rows if one.place(project.files) is None]
    if lost:
        raise build.Failed("\n".join(f"{one}: its text is in no source, or in several places"
                                     for one in lost))
    if options.list:
        for one in rows:
            print(f"{one}  <- {one.test}")
        return 0
    print(f"seed {seed}", flush=True)
    run = Run(ROOT, project, options, [
        Fault((one.rule,), str(one), {"named": one.rule}, one.changes(project.files), one.test)
        for one in rows])
    run.go()
    caught = sum(one["result"] == "caught" for one in run.records)
    for one in run.records:
        if one["result"] != "caught":
            print(f"FAILED: {one['result']}: {one['named']}: {one['by']}")
    print(f"{len(run.records)} of {len(rows)} named faults, seed {seed}: {caught} caught, "
          f"{len(run.records) - caught} not")
    return 0 if run.records and caught == len(run.records) else 1


def main():
    options = arguments()
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    project = build.Build(ROOT, pathlib.Path(options.build).resolve() / "win")
    return run_named(options, project) if options.named else run_mutants(options, project)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except build.Failed as error:
        print(f"mutants: {error}", file=sys.stderr)
        sys.exit(2)

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
from runner import ROOT, Run, mutant_fault, patch_fault

EQUIVALENTS = pathlib.Path(__file__).resolve().parent / "equivalents.json"


def arguments():
    parser = argparse.ArgumentParser(prog="./dev mutants", description=__doc__.splitlines()[0],
                                     epilog="See docs/mutants.md.")
    parser.add_argument("--count", type=int, metavar="N", help="only N mutants, of all files")
    parser.add_argument("--seed", metavar="S",
                        help="which N, and in which order (1; with --named today's date)")
    parser.add_argument("--file", metavar="NAME", help="only files whose path holds NAME")
    parser.add_argument("--patch", action="append", default=[], metavar="FILE",
                        help="the fault of a unified diff instead; may be repeated")
    parser.add_argument("--named", action="store_true",
                        help="the faults of named.json: each must fail the test that it names")
    parser.add_argument("--seconds", type=int, metavar="N",
                        help="with --named: starts no further fault after N seconds")
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
    if options.seconds is not None and not options.named:
        parser.error("--seconds needs --named")
    if options.results and os.path.exists(options.results) and not options.resume:
        parser.error(f"{options.results} exists already; --continue adds to it")
    return options


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
    return [mutant_fault(one) for one in generate.sample(chosen, options.seed or "1")], 0


def main():
    options = arguments()
    project = build.Build(ROOT, pathlib.Path(options.build).resolve() / "win")
    if options.named:
        return named.run(options, project)
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

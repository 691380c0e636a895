#!/usr/bin/python3
"""Measures the corpus command: cases a second, the engine's share, a host's memory, the database and the page
of many cases."""
import argparse
import contextlib
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "corpus"), str(ROOT / "tests/devhost")]
import page # noqa: E402
import results # noqa: E402
from page_test import Browser # noqa: E402

PRODUCTS = {"guard": {"modules": ["guard_flt", "guard_net"], "count": 3}}
SINGLE_CASES = 20 # processes, of which each takes long


def small_case(folder):
    shutil.copytree(ROOT / "scenarios/evidence", folder)
    (folder / "products.json").write_text(json.dumps(PRODUCTS))
    return folder


def host(options, *arguments):
    return [str(ROOT / "cmake/wine-run"), f"{options.build}/win/bin/oxni_devhost.exe", *map(str, arguments)]


def rate_of_processes(options, case):
    begin = time.monotonic()
    for _ in range(SINGLE_CASES):
        subprocess.run(host(options, "replay", "--json", case), check=True, stdout=subprocess.DEVNULL)
    return SINGLE_CASES / (time.monotonic() - begin)


def kilobytes_of(pid):
    """The resident memory of the largest process below that one: the host, not its starters."""
    found = [0]
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        found += [kilobytes_of(int(child)) for child in (task / "children").read_text().split()]
    return max(found + [int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[1]) * 4])


def host_of_many(options, case):
    """Returns cases a second of one host on a pipe, and its memory after 100 cases and at the end."""
    process = subprocess.Popen(host(options, "serve"), stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    memory = []
    for number in range(options.cases):
        process.stdin.write(json.dumps({"id": number, "source": str(case)}).encode() + b"\n")
        process.stdin.flush()
        if json.loads(process.stdout.readline())["status"] != 0:
            sys.exit("bench: a case failed")
        if number in (0, 100, options.cases - 1):
            memory.append(kilobytes_of(process.pid))
            begin = time.monotonic() if number == 0 else begin
    rate = (options.cases - 1) / (time.monotonic() - begin)
    process.stdin.close()
    process.wait()
    return rate, memory[1], memory[-1]


def rate_of_corpus(options, case, workers, folder):
    manifest = folder / "manifest.jsonl"
    manifest.write_text("".join(json.dumps({"name": str(i), "source": str(case)}) + "\n" for i in range(options.cases)))
    done = subprocess.run([sys.executable, str(ROOT / "corpus/run.py"), "--build", options.build, str(manifest),
                           "--out", str(folder / f"out{workers}"), "--workers", str(workers)],
                          capture_output=True, text=True, check=True)
    rate, busy = re.search(r"([\d.]+) a second; .* busy (\d+)%", done.stdout).groups()
    return float(rate), 100 - int(busy)


def many_results(folder, count):
    """A database as a run of that many cases leaves it."""
    chance = random.Random(1)
    kept = results.Results(str(folder), False)
    kept.add_cases(((f"customer-{i:06}", {"source": f"/srv/cases/customer-{i:06}"}, None) for i in range(count)), False)
    answers = ("no bypass", "bypass", "cannot tell")
    begin = time.monotonic()
    for number in range(1, count + 1):
        answer = chance.choice(answers)
        boots = [{"boot": boot, "started": "2024-03-07T09:00:00Z", "ended": "clean", "answer": answer,
                  "sentence": answer + ": the previous run of Windows was shut down, record 4713.",
                  "doubts": [f"no dump of record {number} was handed in"] if answer == "cannot tell" else [],
                  "blamed": f"driver_{chance.randrange(200)}" if answer == "bypass" else None,
                  "orders": ["guard bypass"] if answer == "bypass" else []} for boot in (1, 2, 3)]
        kept.put({"id": number, "state": "answered", "answer": answer, "sentence": answer, "boots": boots,
                  "seconds": chance.random()}, "tcp://10.0.0.1:1")
    kept.commit()
    seconds = time.monotonic() - begin
    with contextlib.closing(kept):
        begin = time.monotonic()
        page.write(kept.base, folder)
        return seconds, time.monotonic() - begin


def seconds_to_open(file):
    with open(os.devnull, "w", encoding="utf-8") as log:
        browser = Browser(log)
        try:
            browser.open(file, "light")
            return browser.run("return performance.getEntriesByType('navigation')[0].loadEventEnd") / 1000
        finally:
            browser.close()


def row(what, measured, target="", holds=True):
    print(f"{what:52} {measured:>14} {target:>10} {'' if holds else 'over'}", flush=True)


def main():
    parser = argparse.ArgumentParser(prog="./dev bench corpus", description=__doc__)
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--cases", type=int, default=1000, help="small cases that are played; default: 1000")
    parser.add_argument("--results", type=int, default=100000, help="cases of the database; default: 100000")
    options = parser.parse_args()
    row("corpus", "measured", "target")
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        case = small_case(folder / "case")
        single = rate_of_processes(options, case)
        row("a replay process for each case, cases a second", f"{single:.2f}")
        rate, before, after = host_of_many(options, case)
        row("one host on a pipe, cases a second", f"{rate:.1f}")
        row("  times a process for each case", f"{rate / single:.1f}", "20", rate >= 20 * single)
        row(f"  memory after 100 and {options.cases:,} cases, KiB", f"{before}, {after}", "flat", after < 1.1 * before)
        for workers in (1, 2):
            rate, share = rate_of_corpus(options, case, workers, folder)
            row(f"corpus with {workers} workers, cases a second", f"{rate:.1f}")
            row("  the engine's share of the time, %", str(share), "5", share < 5)
        written, drawn = many_results(folder / "many", options.results)
        row(f"database of {options.results:,} cases, MiB",
            f"{(folder / 'many' / results.FILE).stat().st_size / 2**20:.0f}")
        row("  results written a second", f"{options.results / written:,.0f}")
        row("  making of the page, s", f"{drawn:.1f}")
        row("  size of the page, MiB", f"{(folder / 'many' / page.FILE).stat().st_size / 2**20:.1f}")
        seconds = seconds_to_open(folder / "many" / page.FILE)
        row("  opening of the page, s", f"{seconds:.2f}", "2", seconds < 2)


main()

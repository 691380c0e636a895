#!/usr/bin/env python3
"""Plays a corpus of cases through the plug-in, on this machine or on a cluster, and collects what it
decides in a database and a page."""
import argparse
import collections
import os
import shlex
import signal
import sqlite3
import subprocess
import sys
import time

import cases
import cluster
import compare
import host
import page
import results
from progress import Progress

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BATCH_SECONDS = 1 # of work in a task: the cluster takes some milliseconds for each
MOST_BATCH = 100
EPILOG = """CASES: a folder or .zip with one machine's evidence, a folder of those, or a manifest (.jsonl).
Exit status: 0 every case was played, and nothing differs from baseline and truth; 1 something differs, or
a case failed; 2 invalid call, or results cannot be written; 3 no case has readable evidence; 4 the plug-in
cannot be loaded; 5 the scheduler ended; 130 interrupted. --resume goes on after each of them."""


def parse():
    parser = argparse.ArgumentParser(prog="./dev corpus", description=__doc__, epilog=EPILOG)
    parser.add_argument("cases", nargs="*", metavar="CASES")
    parser.add_argument("--out", default="corpus-results", metavar="FOLDER", help="of the results")
    parser.add_argument("--workers", type=int, help="processes of the local cluster; default: one a core")
    parser.add_argument("--scheduler", metavar="ADDRESS", help="uses a cluster that exists: tcp://HOST:8786")
    parser.add_argument("--baseline", metavar="FOLDER", help="compares with the results of another run")
    parser.add_argument("--plugin", metavar="DLL", help="default: libbypass_mgr.dll of the build")
    parser.add_argument("--resume", action="store_true",
                        help="goes on with an interrupted run, and plays what failed once more")
    parser.add_argument("--timeout", type=float, default=600, metavar="SECONDS", help="of a case; default: 600")
    parser.add_argument("--page", metavar="CASE", help="writes the page of one case of the results")
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--host", help=argparse.SUPPRESS) # a program in place of the development host
    options = parser.parse_args()
    if not (options.cases or options.resume or options.page or options.baseline):
        parser.error("expected CASES, --resume, or --baseline to compare what is there")
    bin_folder = os.path.join(os.path.abspath(options.build), "win", "bin")
    options.plugin = os.path.abspath(options.plugin or os.path.join(bin_folder, "libbypass_mgr.dll"))
    program = [os.path.join(ROOT, "cmake", "wine-run"), os.path.join(bin_folder, "oxni_devhost.exe")]
    options.program = shlex.split(options.host) if options.host else program
    return options


class Run:
    """Which case is played next, and what becomes of its outcome."""

    def __init__(self, kept, name, checksum, progress):
        self.kept, self.name, self.checksum, self.progress = kept, name, checksum, progress
        self.last = 0                    # id of the last case that was taken from the database
        self.waiting = collections.deque() # cases that are played alone
        self.size, self.mean = 1, None   # of a batch; seconds of a case
        self.busy = 0                    # seconds of the hosts

    def next_job(self):
        if self.waiting:
            return self.name, [self.waiting.popleft()], True
        batch = self.kept.open_cases(self.last, self.size)
        if not batch:
            return None
        self.last = batch[-1][0]
        return self.name, batch, False

    def settle(self, job, result, error):
        _, batch, alone = job
        if error is not None: # the cluster gave up: workers ended again and again
            rows = [{"id": number, "state": "died", "seconds": 0, "error": f"its workers ended: {error}"}
                    for number, _, _ in batch]
            result = {"rows": rows, "worker": None, "checksum": self.checksum}
        if result["checksum"] != self.checksum:
            raise cluster.ClusterLost(f"{result['worker']} has another plug-in at the same path")
        for case, row in zip(batch, result["rows"]):
            self.busy += row["seconds"]
            if row["state"] == "died" and not alone:
                self.waiting.append(case)
                continue
            if row["state"] == "died":
                row["state"] = "failed"
            self.kept.put(row, result["worker"])
            self.progress.done += 1
            self.progress.failed += row["state"] == "failed"
            self.mean = row["seconds"] if self.mean is None else 0.9 * self.mean + 0.1 * row["seconds"]
        if self.mean:
            self.size = max(1, min(MOST_BATCH, round(BATCH_SECONDS / self.mean)))


def check_host(options):
    """The host starts and loads the plug-in: else every case would fail."""
    done = subprocess.run([*options.program, "serve", "--plugin", options.plugin], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True)
    if done.returncode != 0:
        cluster.fail(f"the host ended with {done.returncode}\n{done.stderr.strip()}", done.returncode)


def play(options, kept):
    plugin = host.HostPlugin([*options.program, "serve", "--plugin", options.plugin], options.plugin,
                             options.timeout)
    checksum = kept.note("plugin_sha256", host.checksum_of(options.plugin))
    if checksum != host.checksum_of(options.plugin):
        raise results.BadFolder(f"{options.out}: contains results of another plug-in")
    open_cases = kept.counts().get("open", 0)
    if open_cases == 0:
        return
    check_host(options)
    cluster.by_value(host)
    name = f"bypass_mgr-{os.getpid()}-{os.urandom(4).hex()}"
    with cluster.connect(options.scheduler, options.workers) as client:
        client.register_worker_plugin(plugin, name)
        workers = len(client.nthreads())
        run = Run(kept, name, checksum, Progress(open_cases, "cases"))
        try:
            with run.progress:
                cluster.run(client, host.play_batch, run.next_job, run.settle)
        finally:
            kept.commit()
        client.unregister_worker_plugin(name)
    seconds = time.monotonic() - run.progress.begin
    print(f"played {run.progress.done:,} cases in {seconds:.1f} s, {run.progress.done / seconds:.1f} a second; "
          f"the hosts of {workers} workers were busy {run.busy / (workers * seconds):.0%} of it")


def report(options, base):
    """Prints the summary. Returns the exit status."""
    counts = dict(base.execute("SELECT state, count(*) FROM cases GROUP BY state"))
    answers = base.execute("SELECT answer, count(*) FROM cases WHERE answer NOT NULL GROUP BY answer "
                           "ORDER BY 2 DESC").fetchall()
    print(f"{sum(counts.values()):,} cases: " + ", ".join(f"{count:,} {state}" for state, count in counts.items()))
    if answers:
        print("answers: " + ", ".join(f"{count:,} {answer}" for answer, count in answers))
    status = 1 if counts.get("failed") else 3 if not counts.get("answered") else 0
    known, different = base.execute("SELECT count(truth), count(differences) FROM cases").fetchone()
    if known:
        print(f"truth: {known - different:,} of {known:,} cases are as it is known")
        status = 1 if different else status
    for state, error in (("failed", "error"), ("truth", "differences")):
        where = "differences NOT NULL" if state == "truth" else "state = 'failed'"
        for case, text in base.execute(f"SELECT name, {error} FROM cases WHERE {where} LIMIT 10"):
            print(f"  {state}: {case}: {text.splitlines()[0]}")
    if options.baseline:
        groups, elsewhere = compare.compare(options.baseline, options.out)
        changed = len({name for names in groups.values() for name in names})
        print(f"baseline: {changed:,} cases changed" if groups else "baseline: nothing changed")
        print(compare.text_of(groups, elsewhere), end="\n" if groups or elsewhere else "")
        status = 1 if groups else status
    return status


def finish(options):
    with results.connect(options.out) as base:
        status = report(options, base)
        results.export(base, options.out)
        page.write(base, options.out)
    print(f"page: {os.path.join(options.out, page.FILE)}")
    return status


def main():
    # A script's background command ignores Ctrl-C unless it asks for it.
    for taken in (signal.SIGINT, signal.SIGTERM):
        signal.signal(taken, signal.default_int_handler)
    options = parse()
    kept = None
    try:
        if options.page:
            return page.write_case(options)
        if not (options.cases or options.resume):
            return finish(options)
        kept = results.Results(options.out, options.resume)
        kept.add_cases(cases.find(options.cases), options.resume)
        play(options, kept)
        return finish(options)
    except (cases.BadCase, results.BadFolder) as error:
        return cluster.fail(error)
    except cluster.ClusterLost as error:
        return cluster.fail(f"{error}; --resume goes on", 5)
    except (sqlite3.Error, OSError) as error:
        return cluster.fail(f"cannot write the results: {error}; what was written is kept, --resume goes on")
    except KeyboardInterrupt:
        return cluster.fail(f"interrupted; go on with --resume --out {options.out}", 130)
    finally:
        if kept:
            kept.close()


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Plays a corpus of cases through the plug-in, on this machine or on a cluster, and collects what it
decides in a database and a page."""
import argparse
import os
import shlex
import signal
import sqlite3
import sys

import cases
import compare
import page
import results
from failure import ClusterLost, fail

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
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
        import play # it loads Dask, which takes half a second: not for what only shows results
        play.play(options, kept)
        return finish(options)
    except (cases.BadCase, results.BadFolder) as error:
        return fail(error)
    except ClusterLost as error:
        return fail(f"{error}; --resume goes on", 5)
    except (sqlite3.Error, OSError) as error:
        return fail(f"cannot write the results: {error}; what was written is kept, --resume goes on")
    except KeyboardInterrupt:
        return fail(f"interrupted; go on with --resume --out {options.out}", 130)
    finally:
        if kept:
            kept.close()


if __name__ == "__main__":
    sys.exit(main())

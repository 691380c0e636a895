#!/usr/bin/env python3
"""Hands out the seeds of a long run (simulate, fuzz, faults) to the workers of a cluster, and prints what
they find as one list."""
import argparse
import collections
import glob
import os
import re
import signal
import subprocess
import sys

import cluster
from failure import ClusterLost, fail
from progress import Progress

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# Of a piece: a minute or so, so that a program's start does not count and none waits for the last.
PIECE_BOOTS, PIECE_INPUTS, PARTS = 10000, 20000, 16
MOST_FINDINGS = 100 # then nothing more is handed out
CRASHED, HUNG = 70, 71 # exit statuses of the harness
# Lines of a program that are no finding, with what is summed of them.
SUMS = re.compile(r"^(?:no invariant is broken: )?(\d+) (boots) of (\d+) (machines) .*|"
                  r"^fuzz \S+ +(\d+) (inputs), 0 violations.*|^counts (\d+)( )(\d+).*")

PASSED_ON = ("--every", "--plugin", "--save", "--place")

Piece = collections.namedtuple("Piece", "words first end") # end: exclusive; None: to the last one


def simulation(options):
    for first in range(options.seed, options.seed + options.boots, PIECE_BOOTS):
        yield Piece(("simulate",), first, min(first + PIECE_BOOTS, options.seed + options.boots))


def fuzzing(options):
    names = options.names or sorted(
        name for file in glob.glob(os.path.join(ROOT, "tests/fuzz/*.cpp"))
        for name in re.findall(r"^FUZZ_TARGET\(([a-z_]*),", open(file, encoding="utf-8").read(), re.M))
    for name in names:
        for first in range(0, options.inputs, PIECE_INPUTS):
            yield Piece((name, "--seed", str(options.seed)), first, min(first + PIECE_INPUTS, options.inputs))


def faults(options):
    kind, *files = options.names
    for file in files or sorted(glob.glob(os.path.join(ROOT, "scenarios/*.json"))):
        for part in range(PARTS):
            yield Piece(("faults", kind, os.path.abspath(file), "--part", str(part), "--parts", str(PARTS)), 0, None)


# A machine has at least one boot, so that a piece of n boots uses no seed of the next one.
KINDS = {
    # pieces, program, options for the first trial and the number of trials
    "simulate": (simulation, "harness.exe", ("--seed", "--boots")),
    "fuzz": (fuzzing, "fuzz.exe", ("--from", "--inputs")),
    "faults": (faults, "harness.exe", ("--from", None)),
}


def run_piece(command, _piece):
    """A task. Returns exit status and output."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                          env=dict(os.environ, WINE_RUN_SECONDS="0"))
    return done.returncode, done.stdout.decode(errors="replace").replace("\r", "")


class Seeds:
    def __init__(self, options, rest):
        pieces, program, self.names = KINDS[options.kind]
        self.program = [os.path.join(ROOT, "cmake", "wine-run"), os.path.join(options.build, "win", "bin", program)]
        self.rest = rest
        self.waiting = collections.deque(pieces(options))
        self.progress = Progress(len(self.waiting), "pieces", "findings")
        self.sums = collections.Counter()

    def command(self, piece):
        first, number = self.names
        words = [*piece.words, first, str(piece.first)]
        if number:
            words += [number, str(piece.end - piece.first)]
        return [*self.program, *words, *self.rest]

    def next_job(self):
        if not self.waiting or self.progress.failed >= MOST_FINDINGS:
            return None
        piece = self.waiting.popleft()
        return self.command(piece), piece

    def settle(self, job, result, error):
        piece = job[1]
        status, output = result or (CRASHED, f"violation: its workers ended: {error}")
        if status not in (0, 1, CRASHED, HUNG):
            fail(f"{' '.join(job[0])} ended with {status}\n{output}", status)
        self.progress.done += 1
        found = self.take_sums(output)
        if status != 0:
            self.progress.failed += 1
            print(found, flush=True)
        # A program ends at its first finding; the trials after it are a piece of their own.
        ended = re.findall(r"^ended in trial (\d+)", output, re.M) or (
            re.findall(r"--boots 1 --seed (\d+)", output) if status == 1 else [])
        if ended and (piece.end is None or int(ended[-1]) + 1 < piece.end):
            self.waiting.append(piece._replace(first=int(ended[-1]) + 1))
            self.progress.total += 1

    def take_sums(self, output):
        """Returns the output without the lines that state how much was done, whose last one counts."""
        lines, last = [], ()
        for line in output.splitlines():
            match = SUMS.match(line)
            if match:
                last = [group for group in match.groups() if group is not None]
            elif line and not line.startswith("ended in trial"):
                lines.append(line)
        for number, name in zip(last[::2], last[1::2]):
            self.sums[name if name != " " else "runs"] += int(number)
        return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(prog="./dev", description=__doc__)
    parser.add_argument("kind", choices=KINDS)
    parser.add_argument("names", nargs="*", help="targets of fuzz; kind of faults, and scenario files")
    parser.add_argument("--scheduler", required=True, metavar="ADDRESS", help="tcp://HOST:8786, or local")
    parser.add_argument("--workers", type=int)
    parser.add_argument("--boots", type=int, default=1000)
    parser.add_argument("--inputs", type=int, default=10000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--build", required=True, help=argparse.SUPPRESS)
    for taken in (signal.SIGINT, signal.SIGTERM):
        signal.signal(taken, signal.default_int_handler)
    for name in PASSED_ON:
        parser.add_argument(name, help="as without --scheduler")
    options, rest = parser.parse_known_intermixed_args()
    for name in PASSED_ON:
        value = getattr(options, name[2:])
        rest += [name, value] if value else []
    options.build = os.path.abspath(options.build)
    if options.kind == "faults" and options.names[:1] not in (["allocations"], ["calls"]):
        parser.error("expected allocations or calls, and perhaps scenario files")
    seeds = Seeds(options, rest)
    try:
        with cluster.connect(options.scheduler, options.workers) as client, seeds.progress:
            cluster.run(client, run_piece, seeds.next_job, seeds.settle)
    except ClusterLost as error:
        return fail(error, 5)
    except KeyboardInterrupt:
        return fail("interrupted", 130)
    sums = ", ".join(f"{count:,} {name}" for name, count in seeds.sums.items())
    print(f"{options.kind}: {sums or 'nothing'}, {seeds.progress.failed:,} findings")
    return 1 if seeds.progress.failed else 0


if __name__ == "__main__":
    sys.exit(main())

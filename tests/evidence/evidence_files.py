"""Generated evidence, and the call of the program, for tests whose first arguments are WINE_RUN and
PROGRAM."""
import datetime
import json
import pathlib
import re
import struct
import subprocess
import sys
import tempfile

KERNEL = "Microsoft-Windows-Kernel-General"
POWER = "Microsoft-Windows-Kernel-Power"
LOGON = "Microsoft-Windows-Winlogon"
BUG_CHECK = 0x400003E9
EVIDENCE = pathlib.Path(__file__).parents[2] / "scenarios" / "evidence"
DEFAULT = EVIDENCE.parent / "default.json"


class Checks:
    """Counts failures, so that one run reports all."""

    def __init__(self):
        self.failures = 0

    def __call__(self, row, holds, what):
        if not holds:
            print(f"FAILED: {row}: {what}")
            self.failures += 1


check = Checks()


def host(*arguments, env=None, lines=()):
    """Result: exit status, output and errors. lines: of the standard input."""
    done = subprocess.run([*sys.argv[1:3], *map(str, arguments)], capture_output=True, timeout=120, env=env,
                          input="".join(line + "\n" for line in lines).encode())
    # Wine's own services share our stderr when they end badly.
    errors = [line for line in done.stderr.decode().splitlines(True) if not line.startswith("wine: ")]
    return done.returncode, done.stdout.decode(), "".join(errors)


def prints(row, *arguments, status=0, contains=()):
    """Returns what a call prints; checks its status, and texts that output or errors contain."""
    got, out, errors = host(*arguments)
    check(row, got == status, f"exit status {got}, expected {status}: {errors}")
    for text in contains:
        check(row, text in out + errors, f"{text} is not in {out}{errors}")
    return out


def result(row, *arguments):
    return json.loads(prints(row, *arguments, "--json") or "null")


def refused(rows, *command):
    """Each row: exit status, a pattern of the one line on stderr, arguments. Nothing else is printed, but
    the advice of the command line."""
    for status, said, *arguments in rows:
        got, out, errors = host(*command, *arguments)
        errors = re.sub(r"Run with --help for more information\.\s*", "", errors)
        row = f"{command} {said}"
        check(row, (got, out, errors.count("\n")) == (status, "", 1), f"exit status {got}: {out}{errors}")
        check(row, re.search(said, errors), errors)


def serve(cases, **how):
    """Returns the answers of one host to cases, by their id."""
    status, out, errors = host("serve", lines=map(json.dumps, cases), **how)
    check("serve", status == 0, errors)
    return {one["id"]: one for one in map(json.loads, out.splitlines())}


def run(*tests):
    """Runs tests in one folder and ends the program."""
    with tempfile.TemporaryDirectory() as folder:
        for test in tests:
            test(pathlib.Path(folder))
    print(f"{check.failures} failures")
    sys.exit(check.failures != 0)


def record(source, number, time, *strings):
    return {"source": source, "id": number, "time": time, "strings": list(strings)}


def start(time):
    return record(KERNEL, 12, time, "10", "0", "19041", "1", "0", "0", time)


def logon(time):
    return record(LOGON, 7001, time, "1", "S-1-5-21-11-22-33-1001")


def write(path, content):
    path.write_bytes(content if isinstance(content, bytes) else content.encode() if isinstance(content, str)
                     else json.dumps(content).encode())
    return path


def a_dump(path, crashed, parameter=2):
    """The example's small dump as one of another crash: 0x50 (0x1, PARAMETER, 0x3, 0x4). Its stack
    contains nt, guard_flt and FLTMGR."""
    time = datetime.datetime.strptime(crashed, "%Y-%m-%dT%H:%M:%SZ") - datetime.datetime(1601, 1, 1)
    content = bytearray((EVIDENCE / "030724-5437-01.dmp").read_bytes())
    struct.pack_into("<I4x4Q", content, 0x38, 0x50, 1, parameter, 3, 4)
    struct.pack_into("<Q", content, 0xFA8, int(time.total_seconds()) * 10**7)
    return write(path, bytes(content))

"""Generated evidence for the tests of replay, and the call of the program."""
import datetime
import json
import pathlib
import struct
import subprocess

KERNEL = "Microsoft-Windows-Kernel-General"
POWER = "Microsoft-Windows-Kernel-Power"
LOGON = "Microsoft-Windows-Winlogon"
BUG_CHECK = 0x400003E9
EVIDENCE = pathlib.Path(__file__).parents[2] / "scenarios" / "evidence"


class Checks:
    """Counts failures, so that one run reports all."""

    def __init__(self):
        self.failures = 0

    def __call__(self, row, holds, what):
        if not holds:
            print(f"FAILED: {row}: {what}")
            self.failures += 1


def windows(path):
    return "Z:" + str(path).replace("/", "\\")


def host(wine, program, *arguments, env=None, lines=()):
    """Result: exit status, output and errors. lines: of the standard input."""
    done = subprocess.run([wine, program, *map(str, arguments)], capture_output=True, timeout=120, env=env,
                          input="".join(line + "\n" for line in lines).encode())
    # Wine's own services share our stderr when they end badly.
    lines = [line for line in done.stderr.decode().splitlines(True) if not line.startswith("wine: ")]
    return done.returncode, done.stdout.decode(), "".join(lines)


def record(source, number, time, *strings):
    return {"source": source, "id": number, "time": time, "strings": list(strings)}


def start(time):
    return record(KERNEL, 12, time, "10", "0", "19041", "1", "0", "0", time)


def write(path, content):
    path.write_bytes(content if isinstance(content, bytes) else json.dumps(content).encode())
    return path


def a_dump(path, crashed, parameter=2):
    """The example's small dump as one of another crash: 0x50 (0x1, PARAMETER, 0x3, 0x4). Its stack
    contains nt, guard_flt and FLTMGR."""
    time = datetime.datetime.strptime(crashed, "%Y-%m-%dT%H:%M:%SZ") - datetime.datetime(1601, 1, 1)
    content = bytearray((EVIDENCE / "030724-5437-01.dmp").read_bytes())
    struct.pack_into("<I4x4Q", content, 0x38, 0x50, 1, parameter, 3, 4)
    struct.pack_into("<Q", content, 0xFA8, int(time.total_seconds()) * 10**7)
    return write(path, bytes(content))

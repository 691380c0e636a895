#!/usr/bin/env python3
"""Drives ./dev through a pseudo-terminal, as a person would: what the person sees, Ctrl-C, other ends,
a pipe that closes early, a plain locale, a full disk, help.

usage: terminal_test.py SOURCE BUILD [NAME]      BUILD: the folder that contains win/
"""
import contextlib
import errno
import json
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

SOURCE, BUILD = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
sys.path.insert(0, str(SOURCE / "tests/evidence"))
from evidence_files import LOGON, Checks, record, start, write # noqa: E402

DEFAULT = SOURCE / "scenarios" / "default.json"
COLOUR = re.compile(r"\x1b\[[0-9;]*m")
MEMORY = pathlib.Path("/dev/shm")
check = Checks()


def environment(**more):
    kept = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "LC_ALL", "LANG")}
    return {**kept, "BYPASS_BUILD": str(BUILD), "TERM": "xterm-256color", **more}


def folders(pid):
    """The folders of one ./dev, since other tests run beside this one."""
    return list(MEMORY.glob(f"bypass_mgr-{pid:08}-*"))


class Terminal:
    """./dev on a pseudo-terminal of its own, as the leader of a session."""

    def __init__(self, *arguments, **variables):
        self.text = ""
        self.pid, self.master = pty.fork()
        if self.pid == 0:
            os.chdir("/")
            os.execve(SOURCE / "dev", ["dev", *map(str, arguments)], environment(**variables))

    def read(self, until=None, seconds=60):
        """Reads until the pattern appears, or to the end."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and not self.shows(until):
            if not select.select([self.master], [], [], 0.2)[0]:
                continue
            try:
                data = os.read(self.master, 65536)
            except OSError as error: # the last program of the terminal has ended
                if error.errno != errno.EIO:
                    raise
                break
            if not data:
                break
            self.text += data.decode(errors="replace")
        return until is None or self.shows(until)

    def shows(self, pattern):
        return pattern is not None and re.search(pattern, self.text) is not None

    def write(self, text):
        os.write(self.master, text.encode())

    def status(self, seconds=20):
        """The exit status; None: it did not end."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                return os.waitstatus_to_exitcode(status)
            time.sleep(0.05)
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        return None


def dev(*arguments, stdout=subprocess.PIPE, **variables):
    return subprocess.run([SOURCE / "dev", *map(str, arguments)], stdout=stdout, stderr=subprocess.PIPE,
                          text=True, env=environment(**variables), timeout=120, stdin=subprocess.DEVNULL)


def running(word):
    """Processes whose command line contains the word, but for this one."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        with contextlib.suppress(OSError):
            if entry.name.isdigit() and int(entry.name) != os.getpid() and \
                    word in (entry / "cmdline").read_bytes().decode(errors="replace"):
                found.append(entry.name)
    return found


def gone(word, seconds=10):
    end = time.monotonic() + seconds
    while running(word) and time.monotonic() < end:
        time.sleep(0.1)
    return not running(word)


def test_sight(folder):
    """A person sees the lines that a pipe gets, with colours and nothing else."""
    piped = dev("run", DEFAULT)
    terminal = Terminal("run", DEFAULT)
    terminal.read()
    status = terminal.status()
    text = terminal.text.replace("\r\n", "\n")
    check("sight", (status, piped.returncode) == (0, 0), f"status {status}, {piped.returncode}")
    check("sight", COLOUR.sub("", text) == piped.stdout, text[:500])
    check("sight", "\x1b[1;31m" in text, "no colour")
    check("pipe", "\r" not in piped.stdout and "\x1b" not in piped.stdout, "not plain LF text")
    plain = Terminal("run", "--quiet", NO_COLOR="1") # without a file
    plain.read()
    check("no colour", plain.status() == 0 and "\x1b" not in plain.text and
          "default.json: everything holds" in plain.text, plain.text)
    bad = write(folder / "bad one.json", {"boots": [{"expect": {"log": ["never"]}}]})
    failing = Terminal("run", "--quiet", bad)
    failing.read()
    check("failure", failing.status() == 1 and "\x1b[1;31m" in failing.text, failing.text)
    check("to paste", f"dev run --log info '{bad}'" in failing.text, failing.text)
    check("singular", "1 expectation does not hold" in failing.text, failing.text)


def test_console(folder):
    terminal = Terminal("console", DEFAULT)
    check("console", terminal.read("00:00:00.000> "), terminal.text)
    for line, answer in (("+70s", "00:01:10.000> "), ("status", "guard "), ("+9999d", "at most 366 days"),
                         ("quit", None)):
        terminal.write(line + "\n")
        check("console", terminal.read(answer), terminal.text[-300:])
    check("console", terminal.status() == 0, terminal.text[-300:])


def test_ends(folder):
    """However the caller ends, the Windows process ends, and no folder is left."""
    slow = write(folder / "slow.json", {"boots": [{"until": 3000, "agent_start": 0.2}]})
    rows = [ # what, status, how
        ("Ctrl-C", 130, lambda terminal: terminal.write("\x03")),
        ("SIGTERM", 143, lambda terminal: os.kill(terminal.pid, signal.SIGTERM)),
        ("closed terminal", 129, lambda terminal: os.close(terminal.master)),
        ("SIGKILL", -9, lambda terminal: os.kill(terminal.pid, signal.SIGKILL)),
    ]
    for what, expected, end in rows:
        terminal = Terminal("run", "--real-time", slow)
        check(what, terminal.read("starts and loads the plug-in", 60), terminal.text)
        end(terminal)
        status = terminal.status()
        check(what, status == expected, f"status {status}, expected {expected}")
        check(what, gone("slow.json"), "the Windows process goes on")
        if what == "Ctrl-C":
            terminal.read(seconds=2)
            check(what, "interrupted: boot 1 at 00:00:0" in terminal.text, terminal.text)
        left = folders(terminal.pid)
        check(what, not left or what == "SIGKILL", left) # which leaves nothing to remove the folder
        for folder_left in left:
            shutil.rmtree(folder_left)


def test_early_pipe(folder):
    for arguments in (["run", DEFAULT], ["replay", SOURCE / "scenarios" / "evidence"], ["run", "--json", DEFAULT]):
        command = " ".join(["'%s'" % SOURCE.joinpath("dev"), *(f"'{a}'" for a in arguments), "| head -n 1"])
        done = subprocess.run(["bash", "-c", command], capture_output=True, text=True, env=environment(),
                              timeout=120, stdin=subprocess.DEVNULL)
        check("early pipe", done.stdout.count("\n") == 1 and done.stderr == "", done.stdout + done.stderr)


def test_locale(folder):
    odd = folder / "Überprüfung проверка"
    odd.mkdir()
    scenario = write(odd / "тест.json", DEFAULT.read_bytes())
    for variables in ({"LANG": "C"}, {"LC_ALL": "POSIX"}):
        done = dev("run", "--quiet", "--html", odd / "сторінка.html", scenario, **variables)
        check(variables, done.returncode == 0 and f"{scenario}: everything holds" in done.stdout,
              done.stdout + done.stderr)
    check("locale", (odd / "сторінка.html").exists(), "no page")


def test_full_disk(folder):
    with open("/dev/full", "w") as full:
        done = dev("replay", SOURCE / "scenarios" / "evidence", stdout=full)
    check("full", done.returncode == 2 and "cannot write to the standard output: disk full (112)" in done.stderr,
          f"{done.returncode} {done.stderr}")
    small = folder / "small"
    small.mkdir()
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", small], capture_output=True).returncode:
        print("not checked: results on a full disk, since no file system can be mounted here")
        return
    try:
        evidence = SOURCE / "scenarios" / "evidence"
        write(small / "filler", bytes(60000))
        done = dev("replay", evidence, "--html", small / "page.html")
        check("full disk", done.returncode == 2 and "page.html': disk full (112)" in done.stderr, done.stderr)
        done = dev("host", "redact", "--events", evidence / "System.evtx", small / "new")
        check("full disk", done.returncode == 2 and "disk full (112)" in done.stderr, done.stderr)
        # Nothing half-made blocks another attempt.
        check("full disk", sorted(path.name for path in small.iterdir()) == ["filler"], list(small.iterdir()))
    finally:
        subprocess.run(["umount", small], check=True)


def test_help(folder):
    """Help of every command is one screen, and nothing is built or deleted for it."""
    usage = dev("help").stdout
    commands = re.findall(r"^  ([a-z]+)", usage, re.M)
    check("help", len(usage.splitlines()) <= 40 and {"run", "replay", "clean", "package"} <= set(commands), usage)
    nowhere = folder / "no build"
    for command in sorted(set(commands)):
        done = dev(command, "--help", BYPASS_BUILD=str(nowhere))
        check(f"{command} --help", done.returncode == 0 and "usage" in done.stdout.lower(), done.stdout + done.stderr)
        check(f"{command} --help", not nowhere.exists(), "something was made")
    for command, option in (("run", "--real-time"), ("replay", "--time-zone"), ("simulate", "--seed")):
        done = dev(command, "--help")
        check(f"{command} --help", done.returncode == 0 and option in done.stdout, done.stdout + done.stderr)
    check("clean --help", (BUILD / "win" / "bin").exists(), "the build is gone")


def test_progress(folder):
    """A long command shows its progress, to a person only."""
    events = []
    for hour in range(5 * 24): # far more than the 0.2 s between two texts
        time_text = f"2024-03-{7 + hour // 24:02}T{hour % 24:02}:00:00Z"
        events += [start(time_text), record(LOGON, 7001, time_text.replace(":00Z", ":20Z"), "1")]
    write(folder / "System.json", events)
    terminal = Terminal("replay", folder, "--product", "p:m", BYPASS_PROGRESS="0")
    terminal.read(seconds=250)
    check("progress", terminal.status() == 0 and re.search(r"playing boot \d+ of 120 \.\.\.", terminal.text), "none")
    check("progress", terminal.text.rindex("playing boot") < terminal.text.index("Cannot tell: "), "it stays")
    (folder / "System.json").unlink()
    rows = [ # command, what it shows
        (["simulate", "--boots", 100000], r"simulate: [\d,]+ of 100,000 boots"),
        (["truth", "--machines", 5000], r"truth: [\d,]+ of 5,000 machines"),
        (["host", "synthesize", "--random", 1, "--count", 5000, folder / "made"], r"synthesize: \d+ of 5,000 machines"),
        (["faults", "calls", DEFAULT], r"faults: \d of 4 parts"),
        (["crashpoints", SOURCE / "scenarios" / "six_boots.json"], r"crashpoints: \d of 4 parts"),
        (["fuzz", "evtx", "--inputs", 10000000], r"fuzz evtx: \d+ of 10,000,000 inputs"),
    ]
    for command, shown in rows:
        terminal = Terminal(*command, BYPASS_PROGRESS="2" if command[0] in ("simulate", "fuzz") else "0")
        check(command, terminal.read(shown + r" \.\.\.", 100), terminal.text)
        terminal.write("\x03")
        terminal.read(seconds=20)
        check(command, terminal.status() == 130, terminal.text[-300:])


def main():
    tests = [test_sight, test_console, test_ends, test_early_pipe, test_locale, test_full_disk, test_help,
             test_progress]
    for test in tests:
        if sys.argv[3:] and sys.argv[3] not in test.__name__:
            continue
        with tempfile.TemporaryDirectory() as folder:
            test(pathlib.Path(folder))
    sys.exit(1 if check.failures else 0)


if __name__ == "__main__":
    main()

"""The tests that a plug-in with a fault has to pass, cheapest first, one process each."""
import dataclasses
import math
import os
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time

import build

# The scenarios that kill most come first; the others follow by name.
FIRST = ("registration", "default", "alarm", "platform_driver_checks", "platform_drivers",
         "event_log", "status_check", "recovery_tag", "dump_discovery", "reconcile", "boot_time")
# A mutant that takes so much longer than the plug-in without a fault hangs.
CPU_FACTOR, CPU_SECONDS = 3, 1
WALL_FACTOR, WALL_SECONDS = 10, 30  # the computer may be busy
# One scenario or unit test takes a second of them at most.
ASSUMED_CPU_SECONDS, ASSUMED_WALL_SECONDS = 20, 120
# The limit of wine-run, and the signal of the limit of processor time.
TIMEOUTS = (124, 137, -signal.SIGKILL, -signal.SIGXCPU, 128 + signal.SIGXCPU)
MEMORY_BYTES = 4 << 30
SIMULATED_BOOTS = 2000
CRASH_KEY = r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug"
# In a program's output: the first test that failed, and a test that has begun or is done.
SCENARIO = r"([^/\\\n]+\.json: (?!everything holds).*)", r"([^/\\\n]+\.json): everything holds"
UNIT_TEST = r"^\[  FAILED  \] ([^\s,]+)", r"^\[ RUN      \] (\S+)"
RULE = r"^broken: (.*)", r"$^"
RECORDED = r"^FAILED: (.*)", r"$^"


@dataclasses.dataclass
class Stage:
    """name       in the results
    program    the build's target to link with the fault
    patterns   in its output
    memory     the host's allocator for scenarios
    zone       time zone; empty for the developer's own
    """
    name: str
    program: str
    patterns: tuple
    memory: str = "plain"
    zone: str = ""
    cpu_seconds: float = 0
    wall_seconds: float = 600


class Stages:
    """Runs stages in a Wine prefix of this tool's own, whose processes end with it."""

    def __init__(self, root, folder, processes):
        self.root, self.wine_run, self.processes = root, root / "cmake/wine-run", processes
        self.files = sorted((root / "scenarios").glob("*.json"), key=lambda path: (
            FIRST.index(path.stem) if path.stem in FIRST else len(FIRST), path.stem))
        # In memory if possible: flushing files to a disk takes longer than the rest of a scenario.
        self.place = tempfile.mkdtemp(
            prefix="mutants-", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else folder)
        self.environment = {**os.environ, "WINEPREFIX": str(folder / "wineprefix")}
        self.all = [
            Stage("scenarios", build.DLL, SCENARIO),
            Stage("unit tests", build.UNIT_TESTS, UNIT_TEST),
            Stage("simulation", build.DLL, RULE),
            Stage("guarded scenarios", build.DLL, SCENARIO, "guard", "Asia/Tokyo"),
            Stage("behaviour", build.DLL, RECORDED),
        ]

    def command(self, stage, folder, test):
        if stage.patterns is RECORDED:
            return [self.root / "tests/plugin/behaviour.py", self.root, folder / "bin",
                    "--plugin", folder / build.DLL]
        return [self.wine_run, *self.program(stage, folder, test)]

    def program(self, stage, folder, test):
        place = ["--plugin", folder / build.DLL, "Z:" + self.place.replace("/", "\\")]
        if stage.patterns is UNIT_TEST:
            return [folder / build.UNIT_TESTS, "--gtest_fail_fast", f"--gtest_filter={test or '*'}"]
        if stage.patterns is RULE:
            return [folder / "bin/harness.exe", "simulate", "--boots", str(SIMULATED_BOOTS),
                    "--seed", "1", "--no-shrink", *place[:2], "--folder", place[2]]
        return [folder / "bin/oxni_devhost.exe", "run", "--quiet", "--stop", "--log", "none",
                "--memory", stage.memory, *place[:2], "--place", place[2],
                *(path for path in self.files if test in ("", path.name))]

    def wine(self, stage, folder, test=""):
        limits = [f"--data={MEMORY_BYTES}"]
        if stage.cpu_seconds:
            limits.append(f"--cpu={math.ceil(stage.cpu_seconds)}")
        environment = {**self.environment, "WINE_RUN_SECONDS": str(math.ceil(stage.wall_seconds))}
        if stage.zone:
            environment["TZ"] = stage.zone
        return self.processes.run(
            ["prlimit", *limits, *self.command(stage, folder, test)], env=environment)

    def start_wine(self):
        """Starts one server for all runs, and Windows' own services, outside of every limit."""
        prefix = self.environment["WINEPREFIX"]
        if not os.path.exists(os.path.join(prefix, "system.reg")):
            self.quietly(self.wine_run, "wineboot", "--init")
            # Wine's debugger takes 15 s for each crash.
            self.quietly(self.wine_run, "reg", "add", CRASH_KEY, "/v", "Debugger",
                         "/d", "none", "/f")
            self.quietly("wineserver", "--wait")
        self.quietly("wineserver", "--persistent")
        if self.quietly(self.wine_run, "cmd", "/c", "ver") != 0:
            raise build.Failed(f"Wine does not start in {prefix}")

    def stop_wine(self):
        self.quietly("wineserver", "--kill")
        shutil.rmtree(self.place, ignore_errors=True)  # killed processes leave files

    def quietly(self, *command):
        """Runs a command without pipes: Windows' services stay and would hold them open."""
        return subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, check=False,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode

    def assume(self):
        """Sets limits without a measurement, for a short run."""
        for stage in self.all:
            stage.cpu_seconds, stage.wall_seconds = ASSUMED_CPU_SECONDS, ASSUMED_WALL_SECONDS

    def measure(self, folder):
        """Runs every stage without a fault: it must pass, and its time sets the limits."""
        for stage in self.all:
            before, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
            status, output = self.wine(stage, folder)
            after, seconds = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic() - start
            if status != 0:
                raise build.Failed(
                    f"{stage.name}: failed without a fault, status {status}:\n{output}")
            used = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
            stage.cpu_seconds = CPU_FACTOR * used + CPU_SECONDS
            stage.wall_seconds = WALL_FACTOR * seconds + WALL_SECONDS

    def run(self, stage, folder, test=""):
        """Result: what killed the mutant, empty when it passed. test: the only one to run."""
        for _ in range(2):
            status, output = self.wine(stage, folder, test)
            # A program that Wine failed to start prints nothing of its own.
            if status == 0 or re.sub(r"^wine: .*", "", output, flags=re.M).strip():
                break
        if status == 0:
            return ""
        failed, known = (re.findall(pattern, output, re.M) for pattern in stage.patterns)
        if failed and status not in TIMEOUTS:
            return failed[0]
        what = "timeout" if status in TIMEOUTS else "crash"
        return f"{what}: last {known[-1] if known else 'its start'}, status {status}"

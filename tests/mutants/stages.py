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
# The limit of wine-run, and the signal of the limit of processor time.
TIMEOUTS = (124, 137, -signal.SIGKILL, -signal.SIGXCPU, 128 + signal.SIGXCPU)
MEMORY_BYTES = 4 << 30
SIMULATED_BOOTS = 2000
CRASH_KEY = r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug"


def scenario_order(path):
    place = FIRST.index(path.stem) if path.stem in FIRST else len(FIRST)
    return place, path.stem


def failing_scenario(output):
    for line in output.splitlines():
        match = re.match(r".*?([^/\\]+\.json): (?!everything holds)(.*)", line)
        if match:
            return f"{match.group(1)}: {match.group(2)}"
    return ""


def failing_test(output):
    match = re.search(r"^\[  FAILED  \] (\S+)", output, re.M)
    return match.group(1).rstrip(",") if match else ""


def failing_rule(output):
    match = re.search(r"^broken: (.*)", output, re.M)
    return match.group(1) if match else ""


@dataclasses.dataclass
class Stage:
    """name     in the results
    program  the build's target to link with the fault
    failing  returns the first test that failed, from the output; "" when there is none
    running  returns the test that was running, for a crash or a timeout
    memory   the host's allocator for scenarios
    zone     time zone; empty for the developer's own
    """
    name: str
    program: str
    failing: object
    running: object
    memory: str = "plain"
    zone: str = ""
    cpu_seconds: float = 0
    wall_seconds: float = 0


def running_test(output):
    started = re.findall(r"^\[ RUN      \] (\S+)", output, re.M)
    return started[-1] if started else "its start"


class Stages:
    """Runs stages in a Wine prefix of this tool's own, whose processes end with it."""

    def __init__(self, root, folder, processes):
        self.root, self.processes = root, processes
        self.files = sorted((root / "scenarios").glob("*.json"), key=scenario_order)
        # In memory if possible: flushing files to a disk takes longer than the rest of a scenario.
        self.place = tempfile.mkdtemp(
            prefix="mutants-", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else folder)
        self.environment = {**os.environ, "WINEPREFIX": str(folder / "wineprefix")}
        self.all = [
            Stage("scenarios", build.DLL, failing_scenario, self.running_scenario),
            Stage("unit tests", build.UNIT_TESTS, failing_test, running_test),
            Stage("simulation", build.DLL, failing_rule, lambda output: "a random machine"),
            Stage("guarded scenarios", build.DLL, failing_scenario, self.running_scenario, "guard",
                  "Asia/Tokyo"),
        ]

    def running_scenario(self, output):
        held = {os.path.basename(line.rsplit(": ", 1)[0]) for line in output.splitlines()
                if line.endswith(": everything holds")}
        return next((path.name for path in self.files if path.name not in held), "its end")

    def windows_place(self):
        return "Z:" + self.place.replace("/", "\\")

    def command(self, stage, folder, test=""):
        host, plugin = folder / "bin/oxni_devhost.exe", folder / build.DLL
        if stage.program == build.UNIT_TESTS:
            return [folder / build.UNIT_TESTS, "--gtest_fail_fast",
                    *([f"--gtest_filter={test}"] if test else [])]
        if stage.name == "simulation":
            return [folder / "bin/harness.exe", "simulate", "--boots", str(SIMULATED_BOOTS), "--seed", "1", "--no-shrink",
                    "--folder", self.windows_place(), "--plugin", plugin]
        return [host, "run", "--quiet", "--stop", "--log", "none", "--memory", stage.memory,
                "--place", self.windows_place(), "--plugin", plugin,
                *(path for path in self.files if test in ("", path.name))]

    def wine(self, stage, folder, cpu_seconds=0, wall_seconds=600, test=""):
        limits = [f"--data={MEMORY_BYTES}"]
        if cpu_seconds:
            limits.append(f"--cpu={math.ceil(cpu_seconds)}")
        environment = {**self.environment, "WINE_RUN_SECONDS": str(math.ceil(wall_seconds))}
        if stage.zone:
            environment["TZ"] = stage.zone
        return self.processes.run(
            ["prlimit", *limits, self.root / "cmake/wine-run", *self.command(stage, folder, test)],
            env=environment)

    def start_wine(self):
        """Starts one server for all runs, and Windows' own services, outside of every limit."""
        prefix = self.environment["WINEPREFIX"]
        if not os.path.exists(os.path.join(prefix, "system.reg")):
            self.quietly(self.root / "cmake/wine-run", "wineboot", "--init")
            # Wine's debugger takes 15 s for each crash.
            self.quietly(self.root / "cmake/wine-run", "reg", "add", CRASH_KEY, "/v", "Debugger",
                         "/d", "none", "/f")
            self.quietly("wineserver", "--wait")
        self.quietly("wineserver", "--persistent")
        if self.quietly(self.root / "cmake/wine-run", "cmd", "/c", "ver") != 0:
            raise build.Failed(f"Wine does not start in {prefix}")

    def stop_wine(self):
        self.quietly("wineserver", "--kill")
        shutil.rmtree(self.place, ignore_errors=True)  # killed processes leave files

    def quietly(self, *command):
        """Runs a command without pipes: Windows' services stay and would hold them open."""
        return subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, check=False,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode

    def measure(self, folder):
        """Runs every stage without a fault: it must pass, and its time sets the limits."""
        for stage in self.all:
            before, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
            status, output = self.wine(stage, folder)
            seconds = time.monotonic() - start
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            if status != 0:
                raise build.Failed(
                    f"{stage.name}: failed without a fault, status {status}:\n{output}")
            used = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
            stage.cpu_seconds = CPU_FACTOR * used + CPU_SECONDS
            stage.wall_seconds = WALL_FACTOR * seconds + WALL_SECONDS

    def run(self, stage, folder, test=""):
        """Result: what killed the mutant, empty when it passed. test: the only one to run."""
        for _ in range(2):
            status, output = self.wine(stage, folder, stage.cpu_seconds, stage.wall_seconds, test)
            # A program that Wine failed to start prints nothing of its own.
            if status == 0 or re.sub(r"^wine: .*", "", output, flags=re.M).strip():
                break
        if status == 0:
            return ""
        if status in TIMEOUTS:
            return f"timeout: {stage.running(output)}"
        return stage.failing(output) or f"crash: {stage.running(output)}, status {status}"

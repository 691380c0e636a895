"""The tests that a plug-in with a fault has to pass, cheapest first, each one process of Windows."""
import dataclasses
import math
import os
import re
import resource
import subprocess

import build

# The scenarios that find most come first; what is not named here follows.
FIRST = ("registration", "default", "reconcile", "status_check", "alarm", "platform_driver_checks",
         "commands", "dump_discovery", "dump_analysis", "boot_time", "decision_blue_screen")
# A fault that makes things slower is none: what takes so much longer does not end.
CPU_FACTOR, CPU_SECONDS = 3, 1
WALL_FACTOR, WALL_SECONDS = 10, 30  # the computer may be busy
MEMORY_BYTES = 4 << 30
SOAK_BOOTS = 100
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
    """name     as results tell it
    program  target of the build that has to be linked with the fault
    failing  the first test that failed, from the output; "" when there is none
    running  the test that ran last, for a crash
    """
    name: str
    program: str
    failing: object
    running: object
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
        self.place = "Z:" + ("/dev/shm" if os.access("/dev/shm", os.W_OK) else str(folder)).replace(
            "/", "\\")
        self.environment = {**os.environ, "WINEPREFIX": str(folder / "wineprefix")}
        self.all = [
            Stage("scenarios", build.DLL, failing_scenario, self.running_scenario),
            Stage("unit tests", build.UNIT_TESTS, failing_test, running_test),
            Stage("soak", build.DLL, failing_rule, lambda output: "a random machine"),
        ]

    def running_scenario(self, output):
        held = {os.path.basename(line.rsplit(": ", 1)[0]) for line in output.splitlines()
                if line.endswith(": everything holds")}
        return next((path.name for path in self.files if path.name not in held), "its end")

    def command(self, stage, folder):
        host, plugin = folder / "bin/oxni_devhost.exe", folder / build.DLL
        if stage.name == "scenarios":
            return [host, "run", "--quiet", "--stop", "--log", "none", "--place", self.place,
                    "--plugin", plugin, *self.files]
        if stage.name == "unit tests":
            return [folder / build.UNIT_TESTS, "--gtest_fail_fast"]
        return [host, "soak", "--boots", str(SOAK_BOOTS), "--seed", "1", "--no-shrink",
                "--folder", self.place, "--plugin", plugin]

    def wine(self, arguments, cpu_seconds=0, wall_seconds=0):
        limits = ["prlimit", f"--data={MEMORY_BYTES}"]
        if cpu_seconds:
            limits.append(f"--cpu={math.ceil(cpu_seconds)}")
        return self.processes.run(
            [*limits, self.root / "cmake/wine-run", *arguments],
            env={**self.environment, "WINE_RUN_SECONDS": str(math.ceil(wall_seconds or 600))})

    def start_wine(self):
        """One server for all runs, and Windows' own services, outside of every limit."""
        prefix = self.environment["WINEPREFIX"]
        if not os.path.exists(os.path.join(prefix, "system.reg")):
            self.quietly(self.root / "cmake/wine-run", "wineboot", "--init")
            # Wine's debugger would take many seconds for each crash.
            self.quietly(self.root / "cmake/wine-run", "reg", "add", CRASH_KEY, "/v", "Debugger",
                         "/d", "none", "/f")
            self.quietly("wineserver", "--wait")
        self.quietly("wineserver", "--persistent")
        if self.quietly(self.root / "cmake/wine-run", "cmd", "/c", "ver") != 0:
            raise build.Failed(f"Wine does not start in {prefix}")

    def stop_wine(self):
        self.quietly("wineserver", "--kill")

    def quietly(self, *command):
        """Windows' services stay, and would hold a pipe open."""
        return subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, check=False,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode

    def measure(self, folder):
        """Runs every stage without a fault: it must pass, and its time sets the limits."""
        for stage in self.all:
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            status, output, seconds = self.wine(self.command(stage, folder))
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            if status != 0:
                raise build.Failed(f"{stage.name} fail without a fault (status {status}):\n{output}")
            used = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
            stage.cpu_seconds = CPU_FACTOR * used + CPU_SECONDS
            stage.wall_seconds = WALL_FACTOR * seconds + WALL_SECONDS

    def run(self, stage, folder):
        """Result: what found the fault, "" when nothing did; and seconds."""
        for _ in range(2):
            status, output, seconds = self.wine(self.command(stage, folder), stage.cpu_seconds,
                                                stage.wall_seconds)
            # A program that Wine did not start prints nothing.
            if status == 0 or re.sub(r"^wine: .*", "", output, flags=re.M).strip():
                break
        if status == 0:
            return "", seconds
        # 124: the limit of wine-run; 24: the signal of the limit of processor time.
        if status in (124, 137, -9, -24, 152):
            return f"timeout: {stage.running(output)}", seconds
        return stage.failing(output) or f"crash: {stage.running(output)}, status {status}", seconds

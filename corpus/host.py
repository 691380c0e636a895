"""What runs on a worker: one development host that takes case after case from a pipe, and is replaced when
a case crashes it or hangs. Sent to the workers by value, so it uses nothing else of this directory."""
import contextlib
import hashlib
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time

from distributed import get_worker
from distributed.diagnostics.plugin import WorkerPlugin

MOST_OUTPUT_BYTES = 4000 # of a host that failed: its last lines name the reason
GONE_SECONDS = 10        # from the end of its output to the end of the process


class HostFailed(Exception):
    """The host crashed or hangs; what it printed."""


class Host:
    """One process of "oxni_devhost serve"."""

    def __init__(self, command, place):
        self.errors = tempfile.TemporaryFile(dir=place)
        environment = dict(os.environ, BYPASS_PLACE="Z:" + place.replace("/", "\\"), WINE_RUN_SECONDS="0")
        environment.pop("BYPASS_PROGRESS", None)
        # In a session of its own, so that Ctrl-C reaches the command only.
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=self.errors, env=environment, start_new_session=True)
        self.unread = b""

    def ask(self, request, seconds):
        """Returns the result of a case. Throws HostFailed."""
        deadline = time.monotonic() + seconds
        with contextlib.suppress(BrokenPipeError): # then its output has ended, too
            self.process.stdin.write(json.dumps(request).encode() + b"\n")
            self.process.stdin.flush()
        while b"\n" not in self.unread:
            if not select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))[0]:
                raise HostFailed(f"hangs: no result after {seconds:g} s" + self.output())
            part = os.read(self.process.stdout.fileno(), 1 << 16)
            if not part:
                raise HostFailed(f"crashed: exit status {self.process.wait(GONE_SECONDS)}" + self.output())
            self.unread += part
        line, _, self.unread = self.unread.partition(b"\n")
        try:
            result = json.loads(line)
        except ValueError:
            result = {}
        if "id" not in result or result["id"] not in (request["id"], None):
            raise HostFailed("printed something else than the result: " + line.decode(errors="replace")[:1000])
        return result

    def output(self):
        self.errors.seek(max(0, self.errors.seek(0, os.SEEK_END) - MOST_OUTPUT_BYTES))
        lines = self.errors.read().decode(errors="replace").strip()
        return "\n" + lines if lines else ""

    def end(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        for file in (self.process.stdin, self.process.stdout, self.errors):
            with contextlib.suppress(BrokenPipeError):
                file.close()


def checksum_of(file):
    with open(file, "rb") as content:
        return hashlib.sha256(content.read()).hexdigest()


class HostPlugin(WorkerPlugin):
    """Belongs to a run; the worker keeps it from the first task of the run to the last."""

    def __init__(self, command, plugin, seconds):
        self.command, self.plugin, self.seconds = command, plugin, seconds
        self.host = self.place = self.checksum = None

    def setup(self, worker):
        self.place = tempfile.mkdtemp(prefix="bypass_mgr-", dir=worker.local_directory)
        self.checksum = checksum_of(self.plugin)

    def teardown(self, worker):
        self.end_host()
        shutil.rmtree(self.place, ignore_errors=True)

    def end_host(self):
        if self.host:
            self.host.end()
            self.host = None

    def play(self, number, request, truth):
        """Plays a case. Returns its row (results.py), or one with the state "died" and its output."""
        begin = time.monotonic()
        try:
            self.host = self.host or Host(self.command, self.place)
            answer = self.host.ask(dict(request, id=number), self.seconds)
            row = row_of(answer, truth)
        except HostFailed as error:
            self.end_host()
            row = {"state": "died", "error": str(error)}
        return dict(row, id=number, seconds=time.monotonic() - begin)


def play_batch(name, cases, alone):
    """A task: plays cases, each (number, request, truth). alone: with a host that has played none before.
    Returns the rows, the checksum of the plug-in, and how long the hosts worked."""
    plugin = get_worker().plugins[name]
    if alone:
        plugin.end_host()
    rows = [plugin.play(*case) for case in cases]
    return {"rows": rows, "checksum": plugin.checksum, "worker": get_worker().address}


BOOT_MEMBERS = ("boot", "started", "ended", "answer", "sentence", "doubts", "blamed", "orders")


def row_of(answer, truth):
    """What is kept of a result."""
    if answer["status"] != 0:
        state = "unreadable" if answer["status"] == 3 else "failed"
        row = {"state": state, "error": answer["error"]}
    else:
        result = answer["result"]
        boots = [{name: boot[name] for name in BOOT_MEMBERS} for boot in result["boots"] if "answer" in boot]
        row = {"state": "answered", "boots": boots, "answer": result["answer"], "sentence": result["sentence"]}
    if truth is not None:
        row["differences"] = differences(truth, row)
    return row


def order_text(order):
    """As the host prints it."""
    count = f" {order['count']}" if order["type"] == "set_count" else ""
    return f"{order['to']} {order['type']}{count}"


def differences(truth, row):
    """The differences of a result from what is known to be true, a sentence each. truth: the object, or
    the file that contains it. What it does not state is not compared."""
    try:
        if isinstance(truth, str):
            with open(truth, encoding="utf-8") as file:
                truth = json.load(file)
        known = {boot["boot"]: boot for boot in truth["boots"] if not boot.get("not_known")}
    except (OSError, ValueError, KeyError, TypeError) as error:
        return [f"the truth cannot be read: {error!r}"]
    if row["state"] != "answered": # which is right for a log that lost every start of Windows
        right = row["state"] == "unreadable" and not truth["boots"]
        return [] if right else [f"the case is {row['state']}"]
    found = {boot["boot"]: boot for boot in row["boots"]}
    lines = [f"boot {number}: was not played" for number in known if number not in found]
    for number in known.keys() & found.keys():
        lines += [f"boot {number}: {line}" for line in boot_differences(known[number], found[number])]
    return lines


def boot_differences(known, found):
    for name in ("ended", "answer", "blamed"):
        if known.get(name) is not None and known[name] != found[name]:
            yield f"{name} is {found[name]}, the truth is {known[name]}"
    if known.get("answer") not in (None, "bypass") and found["blamed"] is not None:
        yield f"blames {found['blamed']}, the truth is none"
    expected, orders = {order_text(order) for order in known.get("orders", [])}, set(found["orders"])
    if not expected <= orders or (known.get("all_orders") and expected != orders):
        yield f"orders are {sorted(orders)}, the truth is {sorted(expected)}"

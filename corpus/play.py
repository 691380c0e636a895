"""Plays the open cases of a results folder on a cluster."""
import collections
import os
import subprocess
import time

import cluster
import host
import results
from failure import ClusterLost, fail
from progress import Progress

BATCH_SECONDS = 1 # of work in a task: the cluster takes some milliseconds for each
MOST_BATCH = 100


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
            raise ClusterLost(f"{result['worker']} has another plug-in at the same path")
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
        fail(f"the host ended with {done.returncode}\n{done.stderr.strip()}", done.returncode)


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

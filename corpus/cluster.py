"""A Dask cluster of this machine, or one that exists. It owns the queue, the heartbeats and the
repetition of what a lost worker did; here is only how much of it is in use at a time."""
import contextlib
import logging
import os
import shutil
import signal
import tempfile
import time

import cloudpickle
import dask
from distributed import Client, LocalCluster, as_completed

from failure import ClusterLost

CONNECT_SECONDS = 15
WORKER_SECONDS = 60  # until the first worker is there
RECOUNT_SECONDS = 5  # workers may come and go; asking for them costs the scheduler time
# Tasks of a worker that are submitted: one that runs, and what it takes up next. The rest waits in our
# own list, so that the memory of the scheduler does not grow with the number of cases.
TASKS_A_WORKER = 3


def local_cluster(workers, folder):
    # Workers inherit the ignored signal: Ctrl-C ends the command, which ends them.
    before = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        return LocalCluster(n_workers=workers or len(os.sched_getaffinity(0)), threads_per_worker=1,
                            memory_limit=0, dashboard_address="127.0.0.1:0", silence_logs=logging.CRITICAL,
                            local_directory=folder)
    finally:
        signal.signal(signal.SIGINT, before)


@contextlib.contextmanager
def connect(scheduler, workers):
    """A client of the scheduler of that address, or of a cluster of its own."""
    dask.config.set({"distributed.comm.timeouts.connect": f"{CONNECT_SECONDS}s",
                     "distributed.worker.daemon": True})
    place = os.environ.get("BYPASS_PLACE", "")[2:].replace("\\", "/") or None
    folder = tempfile.mkdtemp(prefix="workers-", dir=place)
    cluster = client = None
    try:
        if not scheduler or scheduler == "local":
            cluster = local_cluster(workers, folder)
        try:
            client = Client(cluster or scheduler, timeout=CONNECT_SECONDS)
            client.wait_for_workers(1, timeout=WORKER_SECONDS)
        except OSError as error: # a timeout, too
            raise ClusterLost(f"no worker of {scheduler or 'this machine'} can be reached: {error}") from error
        yield client
    finally:
        for each in (client, cluster):
            if each is not None:
                with contextlib.suppress(Exception): # it may be gone already
                    each.close(timeout=2)
        shutil.rmtree(folder, ignore_errors=True)


def by_value(module):
    """Sends functions of a module to workers with their code: a cluster's machines need not have it."""
    cloudpickle.register_pickle_by_value(module)


def run(client, function, next_job, settle):
    """Calls function(*job) on the workers for each job of next_job(), until that returns None and nothing
    is running. settle(job, result, error) takes each outcome, in any order, and may lead to more jobs."""
    running, done = {}, as_completed()
    counted, window = None, 0
    while True:
        if counted is None or time.monotonic() - counted > RECOUNT_SECONDS:
            counted, window = time.monotonic(), TASKS_A_WORKER * max(1, len(client.nthreads()))
        while len(running) < window and (job := next_job()) is not None:
            future = client.submit(function, *job, pure=False)
            running[future] = job
            done.add(future)
        if not running:
            return
        future = next(done)
        job = running.pop(future)
        if future.status == "finished":
            settle(job, future.result(), None)
        elif future.status == "error":
            settle(job, None, future.exception())
        else:
            raise ClusterLost("the scheduler ended")

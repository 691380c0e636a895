"""Progress of a run: a line that replaces itself on a terminal, else a line every 30 s."""
import os
import sys
import threading
import time

TERMINAL_SECONDS, ELSEWHERE_SECONDS = 0.5, 30


def duration(seconds):
    hours, minutes = divmod(int(seconds + 59) // 60, 60)
    return f"{int(seconds)} s" if seconds < 120 else f"{hours} h {minutes} min" if hours else f"{minutes} min"


class Progress:
    """Counts; a thread prints, so that a case that hangs does not stop it."""

    def __init__(self, total, what, failures="failed"):
        self.total, self.what, self.failures = total, what, failures
        self.done = self.failed = 0
        self.begin = time.monotonic()
        # The script keeps the terminal to itself and describes it.
        self.terminal = sys.stderr.isatty() or bool(os.environ.get("BYPASS_PROGRESS"))
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.watch, daemon=True)

    def text(self):
        rate = self.done / max(time.monotonic() - self.begin, 1e-9)
        left = f", {duration((self.total - self.done) / rate)} left" if rate and self.done < self.total else ""
        failed = f", {self.failed:,} {self.failures}" if self.failed else ""
        return f"{self.done:,} of {self.total:,} {self.what}, {rate:.1f} a second{left}{failed}"

    def watch(self):
        while not self.ended.wait(TERMINAL_SECONDS if self.terminal else ELSEWHERE_SECONDS):
            sys.stderr.write(f"\r\x1b[K{self.text()}" if self.terminal else self.text() + "\n")
            sys.stderr.flush()

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()
        if self.terminal:
            sys.stderr.write("\r\x1b[K")
        sys.stderr.flush()

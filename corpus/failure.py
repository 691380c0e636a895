"""How a command ends that cannot go on."""
import sys


class ClusterLost(Exception):
    """The scheduler ended, or cannot be reached."""


def fail(text, status=2):
    sys.stderr.write(f"corpus: {text}\n")
    sys.exit(status)

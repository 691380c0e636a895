#!/usr/bin/env python3
"""Every command in the documents is run, on evidence of the project where a name is a placeholder.

usage: docs_test.py PROJECT_FOLDER
"""
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile

# What would take minutes is asked for its help, or made small; a person's console gets no input.
SHORT = {
    "test": ["help"],
    "check": ["help"],
    "clean": ["help"],
    "format": ["help"],
    "package": ["help"],
    "bench": ["help"],
    "sweep": ["sweep", "--help"],
    "cut": ["cut", "--help"],
    "fuzz": ["fuzz", "--help"],
    "soak": ["soak", "--help"],
}
STATUS = {"diff": (0, 1)} # something may differ


def commands(document):
    """The lines of the code blocks that begin with ./dev."""
    for block in re.findall(r"^```\w*\n(.*?)^```", document.read_text(), re.S | re.M):
        for line in block.splitlines():
            if line.startswith("./dev"):
                yield shlex.split(line.split("  #")[0].split(" > ")[0])


def main(root):
    root = pathlib.Path(root)
    evidence = root / "scenarios" / "evidence"
    failures, seen = 0, set()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        shutil.copytree(root / "scenarios", folder / "scenarios")
        dump = evidence / "030724-5437-01.dmp"
        for copy in ("022121-5437-01.dmp", "A.dmp"):
            shutil.copy(dump, folder / copy)
        shutil.copy(evidence / "System.json", folder / "System.evtx")
        for copy in ("FILE", "scenario.json"):
            shutil.copy(root / "scenarios" / "default.json", folder / copy)
        result = subprocess.run([root / "dev", "replay", "--events", evidence / "System.json", "--json"],
                                capture_output=True, check=True).stdout
        for copy in ("OLD.json", "NEW.json"):
            (folder / copy).write_bytes(result)
        for document in [root / "README.md", root / "CONTRIBUTING.md", *sorted((root / "docs").glob("*.md"))]:
            for words in commands(document):
                if tuple(words) in seen:
                    continue
                seen.add(tuple(words))
                arguments = SHORT.get(words[1] if len(words) > 1 else "help", words[1:])
                done = subprocess.run([root / "dev", *arguments], cwd=folder, stdin=subprocess.DEVNULL,
                                      capture_output=True, text=True, timeout=300)
                allowed = STATUS.get(words[2] if len(words) > 2 else "", (0,))
                if done.returncode not in allowed:
                    failures += 1
                    print(f"FAILED: {document.name}: {' '.join(words)}: status {done.returncode}\n"
                          f"{done.stdout[-500:]}{done.stderr[-500:]}")
    if failures:
        sys.exit(1)
    print(f"{len(seen)} commands of the documents run")


if __name__ == "__main__":
    main(sys.argv[1])

#!/usr/bin/env python3
"""Every ./dev command in the documents is run, on evidence of the project where a name is a
placeholder. A command that would take long is only asked whether it knows its options. Links and
paths exist. Every member of a scenario is documented.

usage: docs_test.py PROJECT_FOLDER
"""
import functools
import json
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile

# What would take minutes is asked for its help, which must list the options that a document names.
IN_HELP = "test check clean format package release coverage".split()
HELP_OF_ITS_OWN = "bench corpus faults crashpoints fuzz mutants simulate truth".split()
# Something may differ; the folder that a person would name is not here.
STATUS = {"diff": (0, 1), "--define": (3,)}


def commands(document):
    """What begins with ./dev: the lines of code blocks, and in a sentence what has arguments."""
    code = re.compile(r"^```\w*\n(.*?)^```", re.S | re.M)
    text = document.read_text()
    for block in code.findall(text):
        for line in block.splitlines():
            if line.startswith("./dev"):
                yield shlex.split(line.split("  #")[0].split(" > ")[0])
    for line in re.findall(r"`(\./dev [^`\s]+ [^`\n]+)`", code.sub("", text)):
        yield shlex.split(line)


def dead_ends(root, document):
    """Links and paths of the project that lead nowhere."""
    text = document.read_text()
    folders = "|".join(path.name for path in root.iterdir() if path.is_dir())
    for link in re.findall(r"\]\(([^)#:]+)\)", text):
        if not (document.parent / link).exists():
            yield link
    for path in re.findall(rf"`((?:{folders})/[^` ]*)`", text):
        if not path.startswith("build/") and not list(root.glob(path)):
            yield path


def undocumented_members(root):
    """Members that a scenario may have and its document does not name."""
    def members(node):
        for name, value in node.items():
            if name == "properties":
                yield from value
            if isinstance(value, dict):
                yield from members(value)

    schema = json.loads((root / "devhost/scenario/scenario.schema.json").read_text())
    documented = set(re.findall(r"`(\$?\w+)`", (root / "docs/scenarios.md").read_text()))
    return sorted(set(members(schema)) - documented)


def run(words, root, folder):
    """Result: what was run, which may be a question for help, status and output."""
    command = words[1] if len(words) > 1 else "help"
    arguments = ("help",) if command in IN_HELP else (command, "--help") if command in HELP_OF_ITS_OWN \
        else tuple(words[1:])
    return arguments, run_once(arguments, root, folder)


@functools.cache # many documents ask for the same help
def run_once(arguments, root, folder):
    return subprocess.run([root / "dev", *arguments], cwd=folder, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=300)


def main(root):
    root = pathlib.Path(root)
    evidence = root / "scenarios" / "evidence"
    documents = [root / "README.md", root / "CONTRIBUTING.md", *sorted((root / "docs").glob("*.md"))]
    seen = set()
    problems = [f"{document.name}: there is no {end}" for document in documents
                for end in dead_ends(root, document)]
    problems += [f"scenarios.md: does not document \"{name}\"" for name in undocumented_members(root)]
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        shutil.copytree(root / "scenarios", folder / "scenarios")
        dump = evidence / "030724-5437-01.dmp"
        for copy in ("022121-5437-01.dmp", "A.dmp"):
            shutil.copy(dump, folder / copy)
        shutil.copy(evidence / "System.evtx", folder / "System.evtx")
        for copy in ("FILE", "scenario.json"):
            shutil.copy(root / "scenarios" / "default.json", folder / copy)
        result = subprocess.run([root / "dev", "replay", "--events", evidence / "System.evtx", "--json"],
                                capture_output=True, check=True).stdout
        for copy in ("OLD.json", "NEW.json"):
            (folder / copy).write_bytes(result)
        for document in documents:
            for words in commands(document):
                if tuple(words) in seen:
                    continue
                seen.add(tuple(words))
                arguments, done = run(words, root, folder)
                for option in words[2:] if list(arguments) != words[1:] else []:
                    if option.startswith("--") and option not in done.stdout:
                        problems.append(f"{document.name}: {' '.join(words)}: no such option {option}")
                allowed = STATUS.get(words[2] if len(words) > 2 else "", (0,))
                if done.returncode not in allowed:
                    problems.append(f"{document.name}: {' '.join(words)}: status {done.returncode}\n"
                                    f"{done.stdout[-500:]}{done.stderr[-500:]}")
    print("\n".join(problems) or f"{len(seen)} commands of the documents run")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main(sys.argv[1])

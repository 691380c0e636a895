#!/usr/bin/env python3
"""Checks that the platform check covers docs/platform.md.

usage: promises_test.py SOURCE PLATFORM_CHECK

Each row quotes a sentence of the operation's row in the table (or below a heading), or of a host.h.
Each sentence of the document has a row or stands with a reason in docs/platform_check.md.
"""
import glob
import re
import subprocess
import sys

source, program = sys.argv[1:3]
ENDS = re.compile(r"(?:[.;:]\s+|[.]$)")


def read(path):
    with open(f"{source}/{path}", encoding="utf-8") as file:
        return file.read()



def texts_of_document():
    """Of each operation or heading: its texts."""
    texts, heading = {}, ""
    for line in read("docs/platform.md").partition("Conventions:")[2].splitlines():
        bullet = re.match(r"- \*\*(\w+)\.?\*\* (.*)", line)
        if line.startswith("## "):
            heading = re.sub(r" \(.*", "", line[3:])
        elif line.startswith("| `"):
            names, expects, ownership, _, reference = [cell.strip() for cell in
                                                       line.strip()[1:-1].split("|")]
            names = re.findall(r"`(\w+)`", names)
            for name in names:
                texts[name] = [expects, ownership, reference]
            aliases.update({name: names[0] for name in names})
        elif bullet:
            texts[bullet.group(1)] = [bullet.group(2)]
        elif line and not line.startswith("|"):
            texts.setdefault(heading, []).append(line)
    return texts


def listed():
    done = subprocess.run([f"{source}/cmake/wine-run", program, "--list"], capture_output=True,
                          text=True, encoding="utf-8")
    return [line.split("\t")[1:] for line in done.stdout.splitlines() if line]


def not_checked():
    lines = read("docs/platform_check.md").partition("\n## Not checked\n")[2].splitlines()
    rows = [[cell.strip() for cell in line.strip()[1:-1].split("|")] for line in lines
            if line.startswith("| ")][2:]
    return [(row[0].strip("`"), row[1], row[2]) for row in rows]


aliases = {}  # the first operation of a row, by each
texts, rows, unchecked = texts_of_document(), listed(), not_checked()
comments = " ".join(re.sub(r"\s+\*\s+|\s+", " ", read(path[len(source) + 1:]))
                    for path in glob.glob(f"{source}/platform/*/host.h"))
problems = [f"{name}: not in the document: {sentence}" for name, sentence in rows
            if not any(sentence in text for text in texts.get(name, [comments]))]
problems += [f"Not checked, {name}: not in the document: {sentence}" for name, sentence, _ in unchecked
             if name != "*" and not any(sentence in text for text in texts.get(name, []))]
problems += [f"Not checked, {name}: no reason: {sentence}" for name, sentence, why in unchecked
             if not why]
quoted = {}
for name, sentence, *_ in [*rows, *unchecked]:
    quoted.setdefault(aliases.get(name, name), []).append(sentence)
for name, parts in texts.items():
    if aliases.get(name, name) != name:
        continue
    for clause in [one.rstrip(":.") for part in parts for one in ENDS.split(part) if one]:
        if not any(clause in one or one in clause for one in quoted.get(name, [])) and \
                clause not in quoted["*"]:
            problems.append(f"{name}: neither checked nor listed as not checked: {clause}")
print("\n".join(problems) or f"{len(rows)} rows quote {len(texts)} operations and headings")
sys.exit(1 if problems or len(rows) < 100 else 0)

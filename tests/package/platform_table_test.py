#!/usr/bin/env python3
"""Checks that docs/platform.md has exactly one row for each operation of the platform.

usage: platform_table_test.py SOURCE
"""
import glob
import os
import re
import sys

source = sys.argv[1]


def read(*parts):
    with open(os.path.join(source, *parts), encoding="utf-8") as file:
        return file.read()


declared = set()
for header in glob.glob(os.path.join(source, "oxni_base/include/oxni/base/*.h")):
    text = re.sub(r"/\*.*?\*/", "", read(header), flags=re.S)
    declared |= set(re.findall(r"^OXNI_API\b[^;(]*?(\w+)\(", text, flags=re.M))
imported = set()
for module, names in re.findall(r"^(\S+)\n((?:  .*\n)+)", read("tests/plugin/imports.txt"), re.M):
    if module.startswith(("liboxni", "libwdu")):
        imported |= set(names.split())
rows = [line.split("|") for line in read("docs/platform.md").splitlines()
        if line.startswith("| `")]
named = [name for row in rows for name in re.findall(r"`(\w+)`", row[1])]

problems = [f"{name}: no row" for name in sorted((declared | imported) - set(named))]
problems += [f"{name}: a row without an operation" for name in sorted(set(named) - declared - imported)]
problems += [f"{name}: two rows" for name in sorted({n for n in named if named.count(n) > 1})]
problems += [f"{row[1].strip()}: {len(row) - 2} columns" for row in rows if len(row) != 7]
print("\n".join(problems) or f"{len(named)} operations, each with a row")
sys.exit(1 if problems or not named else 0)

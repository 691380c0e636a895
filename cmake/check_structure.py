#!/usr/bin/env python3
"""Checks the structure of our sources: who includes whom, circles, and the dialect of the plug-in.

usage: check_structure.py SOURCE
"""
import collections
import os
import re
import subprocess
import sys

source = os.path.abspath(sys.argv[1])

# Which directories a directory may include from, itself apart. The longest name that fits counts.
# Headers of the contract and of Windows are open to all.
MAY_INCLUDE = {
    "oxni_sys": [],
    "platform": [],
    "devhost/base": ["platform"],
    "devhost/unwind": [],
    "devhost/kernel_dump": ["devhost/unwind"],
    "devhost/dump_writer": ["devhost/kernel_dump"],
    "devhost/dbgeng": ["devhost/kernel_dump", "devhost/unwind"],
    "devhost/evtx": ["devhost/base"],
    "devhost/evidence": ["devhost/base", "devhost/evtx", "devhost/kernel_dump", "devhost/unwind"],
    "devhost/calls": ["devhost/base", "platform"],
    "devhost/disk": ["devhost/base", "devhost/calls", "platform"],
    "devhost/machine": ["devhost/base", "devhost/calls", "devhost/dbgeng", "devhost/disk",
                        "platform"],
    "devhost/agent": ["devhost/base", "devhost/calls", "devhost/disk", "devhost/machine",
                      "platform"],
    "devhost/scenario": ["devhost/base", "devhost/disk", "devhost/machine", "platform"],
    "devhost/participants": ["devhost/agent", "devhost/base", "devhost/disk", "devhost/evidence",
                             "devhost/machine", "devhost/scenario", "platform"],
    "devhost/expect": ["devhost/agent", "devhost/base", "devhost/calls", "devhost/disk",
                       "devhost/machine", "devhost/participants", "devhost/scenario", "platform"],
    "devhost/play": ["devhost/agent", "devhost/base", "devhost/calls", "devhost/disk",
                     "devhost/expect", "devhost/machine", "devhost/participants",
                     "devhost/scenario", "platform"],
    "devhost/view": ["devhost/base", "devhost/scenario"],
    "devhost/case": ["devhost/base", "devhost/evidence", "devhost/machine", "devhost/scenario"],
    "devhost/replay": ["devhost/base", "devhost/calls", "devhost/case", "devhost/disk",
                       "devhost/evidence", "devhost/kernel_dump", "devhost/machine",
                       "devhost/participants", "devhost/play", "devhost/scenario", "devhost/view",
                       "platform"],
    "devhost/synthesis": ["devhost/base", "devhost/disk", "devhost/dump_writer", "devhost/evidence",
                          "devhost/evtx", "devhost/kernel_dump", "devhost/machine",
                          "devhost/participants", "devhost/play", "devhost/scenario", "platform"],
    "devhost/commands": ["devhost/agent", "devhost/base", "devhost/calls", "devhost/case",
                         "devhost/disk", "devhost/evidence", "devhost/evtx",
                         "devhost/kernel_dump", "devhost/machine", "devhost/participants",
                         "devhost/play", "devhost/replay", "devhost/scenario", "devhost/view",
                         "platform"],
    "devhost": ["devhost/base", "devhost/commands", "devhost/scenario", "devhost/synthesis",
                "devhost/view", "platform"],
    "tests": ["devhost", "platform", "oxni_sys", "windows_check"],
    "bench": ["devhost", "platform", "oxni_sys", "tests"],
    "examples": ["platform"],
    "platform_check": ["platform"],
    "windows_check": [],
}

# Directories whose files do not include each other in circles.
WITHOUT_CIRCLE = ["oxni_sys", "platform", "platform_check", "windows_check", "devhost", "tests",
                  "bench"]

# A longer file holds more than one subject.
MAX_LINES = 500

# So does a directory with more sources in it.
MAX_FILES = 14
FEW_FILES = ("devhost", "platform", "platform_check", "tests", "windows_check")

# What sources do not contain outside of texts and comments: pattern, what to write. The compiler
# reports C casts outside the plug-in, clang-tidy checks names.
DIALECT = {
    "oxni_sys": [
        (r"\b(static|reinterpret|const)_cast\b", "a cast as (type)value"),
        (r"\bnullptr\b", "NULL"),
        (r"\bconstexpr\b", "a macro in upper case, or an enum"),
        (r"\bmemset\(", "= {}"),
        (r"#include <c(string|stdint|stddef|stdio|stdlib|wchar)>", "the C header, <string.h>"),
        (r"\bBOOL\b(?! WINAPI)", "bool"),
    ],
    "": [
        (r"\bNULL\b", "nullptr"),
        (r"#include <(string|stdint|stddef|stdio|stdlib|wchar|math|time|limits|errno)\.h>",
         "the C++ header, <cstring>"),
        (r"^#define (?!HASH_)[A-Z][A-Z0-9_]*[ \t]+\(?(-?[0-9]|sizeof|[A-Z][A-Z0-9_]*[ \t]*[-+*/|<])[^,]*$",
         "static constexpr, unless it is joined with another text"),
    ],
}
CPP_DIALECT = ("bench", "devhost", "platform", "platform_check", "runtime", "tests",
               "windows_check")
TEXT_OR_COMMENT = re.compile(r'''"(?:\\.|[^"\\\n])*"|/\*.*?\*/|//[^\n]*''', re.S)


def sources():
    """Our C and C++ files, relative to the source directory."""
    names = subprocess.run(["git", "-C", source, "ls-files", "-co", "--exclude-standard", "--",
                            "*.cpp", "*.h"], capture_output=True, text=True, check=True).stdout
    return [name for name in names.splitlines() if os.path.exists(os.path.join(source, name))]


def read(name):
    with open(os.path.join(source, name), encoding="utf-8") as file:
        return file.read()


def included(name, text, files):
    """The files of ours that a file includes, relative to the source directory."""
    by_base = {}
    for other in files:
        by_base.setdefault(os.path.basename(other), []).append(other)
    for path in re.findall(r'^#include "([^"]+)"', text, re.M):
        beside = os.path.normpath(os.path.join(os.path.dirname(name), path))
        if beside in files:
            yield beside
            continue
        fitting = [other for other in by_base.get(os.path.basename(path), [])
                   if other.endswith(path.replace("../", ""))]
        near = [other for other in fitting if other.split("/")[0] == name.split("/")[0]]
        yield from (near or fitting)[:1]


def circles(graph):
    """The strongly connected parts of more than one node (Tarjan)."""
    index, low, stack, found = {}, {}, [], []

    def visit(node):
        index[node] = low[node] = len(index)
        stack.append(node)
        for other in graph[node]:
            if other not in index:
                visit(other)
                low[node] = min(low[node], low[other])
            elif other in stack:
                low[node] = min(low[node], index[other])
        if low[node] == index[node]:
            part = stack[stack.index(node):]
            del stack[stack.index(node):]
            if len(part) > 1:
                found.append(sorted(part))

    for node in graph:
        if node not in index:
            visit(node)
    return found


def unit_of(name):
    """What a source, its header and its internal header make together."""
    return os.path.splitext(name)[0].removesuffix("_internal")


def area(name):
    """The directory of the table that a file belongs to."""
    fitting = [place for place in MAY_INCLUDE if name.startswith(place + "/")]
    return max(fitting, key=len, default="")


def may_include(name, other):
    mine, its = area(name), area(other)
    return (other.startswith("oxni_base/") or its == mine or
            any(its == place or its.startswith(place + "/") for place in MAY_INCLUDE.get(mine, [])))


def dialect(name, text, top):
    """Returns what a source contains of another dialect than its own."""
    rules = DIALECT.get(top, DIALECT[""] if top in CPP_DIALECT else [])
    code = TEXT_OR_COMMENT.sub(lambda match: '""' + "\n" * match.group().count("\n"), text)
    return [f"{name}:{number}: write {instead}: {line.strip()}"
            for number, line in enumerate(code.splitlines(), 1)
            for pattern, instead in rules if re.search(pattern, line)]


def crowded():
    """Returns the directories that hold too many sources, scripts included."""
    names = subprocess.run(["git", "-C", source, "ls-files", "-co", "--exclude-standard", "--",
                            "*.cpp", "*.h", "*.py", "*.sh", "*.def", "*.html", "*.schema.json"],
                           capture_output=True, text=True, check=True).stdout.splitlines()
    counts = collections.Counter(os.path.dirname(name) for name in names
                                 if name.split("/")[0] in FEW_FILES
                                 and os.path.exists(os.path.join(source, name)))
    return [f"{place}/: {count} sources, expected at most {MAX_FILES}"
            for place, count in counts.items()
            if count > MAX_FILES]


def main():
    files = sources()
    complaints = []
    graph = {}
    for name in files:
        text = read(name)
        top = name.split("/")[0]
        unit = unit_of(name)
        graph.setdefault(unit, set())
        if text.count("\n") > MAX_LINES:
            complaints.append(f"{name}: {text.count(chr(10))} lines, expected at most {MAX_LINES}")
        for other in included(name, text, set(files)):
            if not may_include(name, other):
                complaints.append(f"{name}: includes {other}, which {area(name)}/ may not")
            if unit_of(other) != unit:
                graph[unit].add(unit_of(other))
        complaints += dialect(name, text, top)
    for others in graph.values():
        others &= graph.keys()
    for circle in circles(graph):
        if circle[0].split("/")[0] in WITHOUT_CIRCLE:
            complaints.append("circle of includes: " + " ".join(circle))
    complaints += ["circle of directories: " + " ".join(circle) for circle in circles(MAY_INCLUDE)]
    complaints += crowded()
    print("\n".join(complaints + [f"{len(files)} files, {len(complaints)} findings of structure"]))
    sys.exit(1 if complaints else 0)


main()

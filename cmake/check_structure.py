#!/usr/bin/env python3
"""Checks our sources: allowed includes, include cycles, and the plug-in's C++ dialect.

usage: check_structure.py SOURCE
"""
import os
import re
import subprocess
import sys

source = os.path.abspath(sys.argv[1])

# Directories that a directory may include from, besides itself. All may include the contract's and
# Windows' headers.
MAY_INCLUDE = {
    "oxni_sys": [],
    "platform": [],
    "devhost": ["platform"],
    "tests": ["devhost", "platform", "oxni_sys"],
    "bench": ["devhost", "platform", "oxni_sys", "tests"],
    "examples": ["platform"],
}

# Directories in which include cycles are errors.
WITHOUT_CIRCLE = ["oxni_sys"]

# Constructs that the plug-in's sources must not contain: pattern, replacement.
DIALECT = [
    (r"\b(static|reinterpret|const)_cast\b", "a cast as (type)value"),
    (r"\bnullptr\b", "NULL"),
    (r"\bconstexpr\b", "a macro in upper case, or an enum"),
    (r"\bmemset\(", "= {}"),
    (r"#include <c(string|stdint|stddef|stdio|stdlib|wchar)>", "the C header, <string.h>"),
    (r"\bBOOL\b(?! WINAPI)", "bool"),
]


def sources():
    """Returns our C and C++ files, relative to the source directory."""
    names = subprocess.run(["git", "-C", source, "ls-files", "-co", "--exclude-standard", "--",
                            "*.cpp", "*.h"], capture_output=True, text=True, check=True).stdout
    return [name for name in names.splitlines() if os.path.exists(os.path.join(source, name))]


def read(name):
    with open(os.path.join(source, name), encoding="utf-8") as file:
        return file.read()


def included(name, text, files):
    """Yields the project's files that a file includes, relative to the source directory."""
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
    """Returns the strongly connected components of more than one node (Tarjan)."""
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


def main():
    files = sources()
    complaints = []
    graph = {}
    for name in files:
        text = read(name)
        top = name.split("/")[0]
        unit = os.path.splitext(name)[0]
        graph.setdefault(unit, set())
        for other in included(name, text, set(files)):
            other_top = other.split("/")[0]
            if other_top not in (top, "oxni_base") and other_top not in MAY_INCLUDE.get(top, []):
                complaints.append(f"{name}: includes {other}, which {top}/ must not include")
            if os.path.splitext(other)[0] != unit:
                graph[unit].add(os.path.splitext(other)[0])
        if top == "oxni_sys":
            for number, line in enumerate(text.splitlines(), 1):
                for pattern, instead in DIALECT:
                    if re.search(pattern, line):
                        complaints.append(f"{name}:{number}: write {instead}: {line.strip()}")
    for others in graph.values():
        others &= graph.keys()
    for circle in circles(graph):
        if circle[0].split("/")[0] in WITHOUT_CIRCLE:
            complaints.append("include cycle: " + " ".join(circle))
    print("\n".join(complaints + [f"{len(files)} files, {len(complaints)} structural findings"]))
    sys.exit(1 if complaints else 0)


main()

#!/usr/bin/env python3
"""Checks our own sources with clang's warnings and clang-tidy for the same target, and cppcheck.

usage: check.py SOURCE BUILD [--changed] [NAME]

BUILD contains compile_commands.json. With --changed, checks only what the work tree and the last
commits changed: since the branch "origin/main", or the last commit alone when that is the same or
missing. A changed header is checked through one source that includes it. With NAME, checks only
files whose name contains it.
"""
import argparse
import concurrent.futures
import json
import os
import re
import shlex
import subprocess
import sys

parser = argparse.ArgumentParser()
parser.add_argument("source", type=os.path.abspath)
parser.add_argument("build", type=os.path.abspath)
parser.add_argument("--changed", action="store_true")
parser.add_argument("name", nargs="?", default="")
options = parser.parse_args()
source, build = options.source, options.build
COMPILERS = {"x86_64-w64-mingw32-gcc-posix": "clang", "x86_64-w64-mingw32-g++-posix": "clang++"}

LEFT_OUT = [
    "-Wno-unknown-warning-option",  # the build uses options that only GCC knows
    "-Wno-microsoft-exception-spec",  # from Windows' headers; GCC ignores such specifications
]


def standard_library():
    """Returns the arguments for the cross compiler's C++ headers, which clang does not find."""
    text = subprocess.run(["x86_64-w64-mingw32-g++-posix", "-xc++", "-E", "-v", os.devnull],
                          capture_output=True, text=True, check=True).stderr
    lines = text.split("search starts here:")[-1].splitlines()
    folders = [line.strip() for line in lines if "/c++" in line]
    return ["-nostdinc++"] + [word for folder in folders for word in ("-isystem", folder)]


def ours():
    """Returns the compile commands of our own files, converted for clang."""
    cxx_headers = standard_library()
    with open(os.path.join(build, "compile_commands.json")) as file:
        commands = json.load(file)
    found = {}
    for one in commands:
        name = os.path.relpath(one["file"], source)
        words = shlex.split(one["command"])
        if len(words) > 1 and os.path.basename(words[1]) in COMPILERS:
            del words[0]  # a compiler cache
        compiler = COMPILERS.get(os.path.basename(words[0]))
        in_build = os.path.abspath(one["file"]).startswith(build + os.sep)
        if name.startswith("..") or in_build or compiler is None or options.name not in name:
            continue
        if "-Winvalid-pch" in words:  # followed by -include and the precompiled header
            place = words.index("-Winvalid-pch")
            del words[place:place + 3]
        words = [compiler, "--target=x86_64-w64-mingw32",
                 *(cxx_headers if compiler == "clang++" else []), *words[1:], *LEFT_OUT]
        found.setdefault(name, {"directory": one["directory"], "file": one["file"],
                                "arguments": words})
    return found


def git(*words):
    """Returns the lines that git prints, none if it fails."""
    done = subprocess.run(["git", "-C", source, *words], capture_output=True, text=True)
    return done.stdout.splitlines() if done.returncode == 0 else []


def changed(names):
    """Returns those of the sources that are changed, or include a changed header."""
    base = git("merge-base", "HEAD", "origin/main")
    if not base or base == git("rev-parse", "HEAD"):
        base = git("rev-parse", "HEAD~1") or ["HEAD"]
    touched = set(git("diff", "--name-only", base[0]) + git("ls-files", "-o", "--exclude-standard"))
    chosen = {name for name in names if name in touched}
    for header in (name for name in touched if name.endswith(".h")):
        include = re.compile(rf'#include "([^"]*/)?{re.escape(os.path.basename(header))}"')
        stem = os.path.splitext(header)[0]
        for name in sorted(names, key=lambda name: (os.path.splitext(name)[0] != stem, name)):
            with open(os.path.join(source, name), encoding="utf-8") as file:
                if include.search(file.read()):
                    chosen.add(name)
                    break
    return chosen


def run(name, command):
    """Runs a tool and prints its output if it fails. Returns whether it succeeded."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          cwd=source)
    if done.returncode == 0:
        return True
    print(f"== {name}\n{done.stdout}", flush=True)
    return False


def main():
    commands = ours()
    if not commands:
        sys.exit(f"check.py: {build}/compile_commands.json lists no file of the project"
                 + (f" whose name contains '{options.name}'" if options.name else ""))
    if options.changed:
        chosen = changed(list(commands))
        commands = {name: one for name, one in commands.items() if name in chosen}
    folder = os.path.join(build, "check")
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "compile_commands.json"), "w") as file:
        json.dump(list(commands.values()), file)
    cppcheck = ["cppcheck", "--quiet", "--error-exitcode=1", "--inline-suppr", "--std=c++17",
                "--platform=win64", "--enable=warning,performance,portability",
                "--library=windows", "--library=googletest",
                f"--suppressions-list={source}/cmake/cppcheck.txt",
                f"-I{source}/oxni_base/include", f"-I{source}/platform",
                "--template={file}:{line}: {id}: {message}"]
    jobs = [(name, ["clang-tidy", "--quiet", "-p", folder, one["file"]])
            for name, one in commands.items()]
    if commands:
        jobs.insert(0, ("cppcheck", cppcheck + list(commands)))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        clean = [*pool.map(lambda job: run(*job), jobs)]
    print(f"{len(commands)} files, {clean.count(False)} of {len(clean)} checks failed")
    sys.exit(0 if all(clean) else 1)


main()

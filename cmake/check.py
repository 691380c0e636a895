#!/usr/bin/env python3
"""Checks our own sources with clang's warnings and clang-tidy for the same target, and cppcheck.

usage: check.py SOURCE BUILD [NAME]

BUILD contains compile_commands.json. With NAME, checks only files whose name contains it.
"""
import concurrent.futures
import json
import os
import shlex
import subprocess
import sys

source, build = (os.path.abspath(path) for path in sys.argv[1:3])
wanted = sys.argv[3] if len(sys.argv) > 3 else ""
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
        compiler = COMPILERS.get(os.path.basename(words[0]))
        in_build = os.path.abspath(one["file"]).startswith(build + os.sep)
        if name.startswith("..") or in_build or compiler is None or wanted not in name:
            continue
        words = [compiler, "--target=x86_64-w64-mingw32",
                 *(cxx_headers if compiler == "clang++" else []), *words[1:], *LEFT_OUT]
        found.setdefault(name, {"directory": one["directory"], "file": one["file"],
                                "arguments": words})
    return found


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
                 + (f" whose name contains '{wanted}'" if wanted else ""))
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
    jobs.insert(0, ("cppcheck", cppcheck + list(commands)))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        clean = [*pool.map(lambda job: run(*job), jobs)]
    print(f"{len(commands)} files, {clean.count(False)} of {len(clean)} checks failed")
    sys.exit(0 if all(clean) else 1)


main()

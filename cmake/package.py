#!/usr/bin/env python3
"""Builds the package: one zip file that is usable without the sources.

usage: package.py SOURCE BUILD DEPS OUTPUT_DIRECTORY

The result is reproducible: the same sources give the same bytes, in any directory and at any time.
"""
import glob
import hashlib
import os
import re
import subprocess
import sys
import zipfile

source, build, deps, output = (os.path.abspath(path) for path in sys.argv[1:5])
LIBRARIES = ["liboxnibase", "liboxni_core", "liboxnialgo", "liboxni_agentid", "libwdu_ejs",
             "libwdu_jansson"]
MODULES = [f"{name}.dll" for name in ["libbypass_mgr", *LIBRARIES, "dbgeng"]] + [
    "oxni_devhost.exe", "windows_check.exe"]
TIME = (1980, 1, 1, 0, 0, 0)

DOC = "/usr/share/doc"
# Third-party code that is linked or included: name, where it is used, licence, licence text.
LICENCES = [
    ("jansson", "libwdu_jansson.dll; its headers are in include/", "MIT",
     f"{deps}/source/**/jansson-*/LICENSE"),
    ("uthash", "liboxnibase.dll (headers)", "BSD, one clause", f"{DOC}/uthash-dev/copyright"),
    ("rapidjson", "liboxni_core.dll, oxni_devhost.exe (headers)", "MIT",
     f"{DOC}/rapidjson-dev/copyright"),
    ("cli11", "oxni_devhost.exe (headers)", "BSD, three clauses", f"{DOC}/libcli11-dev/copyright"),
    ("zlib", "liboxnialgo.dll (static)", "zlib",
     f"{DOC}/libz-mingw-w64-dev/copyright"),
    ("mingw-w64", "every module: start-up code, C runtime's additions, winpthreads (static)",
     "several, permissive, among them MIT and the Zope licence",
     f"{DOC}/mingw-w64-x86-64-dev/copyright"),
    ("gcc", "every module: libgcc, libstdc++ (static)",
     "GPL 3 or later with the GCC Runtime Library Exception",
     f"{DOC}/gcc-mingw-w64-base/copyright"),
]
ABOUT = """
The GCC Runtime Library Exception lets modules that were compiled with GCC include libgcc and
libstdc++ under terms of the author's choice.
"""


def fail(text):
    sys.exit(f"package: {text}")


def read(path):
    if not os.path.isfile(path):
        fail(f"{path} is missing")
    with open(path, "rb") as file:
        return file.read()


def only(pattern):
    found = sorted(glob.glob(pattern, recursive=True))
    if not found:
        fail(f"{pattern} is missing")
    return found[0]


def tracked(*folders):
    """Returns the tracked files: untracked ones would make the package irreproducible."""
    names = subprocess.run(["git", "-C", source, "ls-files", "-z", "--", *folders], check=True,
                           capture_output=True, text=True).stdout
    return [name for name in names.split("\0") if name]


def modules():
    for name in MODULES:
        yield f"bin/{name}", read(f"{build}/bin/{name}")
        yield f"symbols/{name}.debug", read(f"{build}/bin/{name}.debug")
    yield "bin/libbypass_mgr.pdb", read(f"{build}/bin/libbypass_mgr.pdb")
    for name in LIBRARIES:
        yield f"lib/{name}.dll.a", read(f"{build}/lib/{name}.dll.a")
    yield ("lib/libbypass_mgr.def",
           read(f"{source}/oxni_sys/plugins/bypassmgr/libbypass_mgr.def"))


def headers():
    for name in tracked("oxni_base/include"):
        yield name.removeprefix("oxni_base/"), read(f"{source}/{name}")
    for name in ("jansson.h", "jansson_config.h"):
        yield f"include/{name}", read(f"{deps}/jansson/include/{name}")
    for name in tracked("platform/*/host.h"):
        yield name.replace("platform/", "host/", 1), read(f"{source}/{name}")


def licences():
    rows = ["Third-party code in the modules of this package.\n"]
    for name, where, terms, pattern in LICENCES:
        yield f"licences/{name}.txt", read(only(pattern))
        rows.append(f"{name}.txt: {where}" + (f"; {terms}" if terms else ""))
    yield "licences/README.txt", ("\n".join(rows) + "\n" + ABOUT).encode()


def documents():
    """Uses docs/package.md as README.md: the project's own README describes the sources."""
    page = read(f"{source}/docs/package.md").decode()
    yield "README.md", re.sub(r"\]\((?=\w+\.md)", "](docs/", page).encode()
    for name in tracked("CONTRIBUTING.md", "docs", "scenarios", "examples"):
        yield name, read(f"{source}/{name}")


def version():
    for line in read(f"{build}/CMakeCache.txt").decode().splitlines():
        if line.startswith("CMAKE_PROJECT_VERSION:"):
            return line.split("=")[1]
    fail(f"{build}/CMakeCache.txt contains no version")


def main():
    name = f"bypass_mgr-{version()}"
    files = dict([*modules(), *headers(), *licences(), *documents()])
    os.makedirs(output, exist_ok=True)
    path = f"{output}/{name}.zip"
    with zipfile.ZipFile(path, "w") as archive:
        for member in sorted(files):
            info = zipfile.ZipInfo(f"{name}/{member}", TIME)
            info.create_system = 3
            info.external_attr = (0o755 if member.startswith("bin/") else 0o644) << 16
            archive.writestr(info, files[member], zipfile.ZIP_DEFLATED, 9)
    data = read(path)
    print(f"{path}\n{len(data)} bytes, {len(files)} files\n"
          f"sha256 {hashlib.sha256(data).hexdigest()}")


main()

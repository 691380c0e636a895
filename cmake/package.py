#!/usr/bin/env python3
"""Builds the package: one zip file that is usable without the sources.

usage: package.py SOURCE BUILD DEPS OUTPUT_DIRECTORY

The result is reproducible: the same sources give the same bytes, in any directory and at any time.
"""
import glob
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import zipfile

source, build, deps, output = (os.path.abspath(path) for path in sys.argv[1:5])
LIBRARIES = sorted(os.listdir(f"{source}/platform"))
MODULES = [f"{name}.dll" for name in ["libbypass_mgr", *LIBRARIES, "dbgeng"]] + [
    "oxni_devhost.exe", "platform_check.exe", "windows_check.exe"]
TIME = (1980, 1, 1, 0, 0, 0)

# Third-party code that is linked or included: where it is used, its SPDX licence expression, and
# the licence's text, which a Debian package has as its copyright file.
with open(f"{source}/cmake/components.json", encoding="utf-8") as components:
    COMPONENTS = json.load(components)
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
    for name in [*LIBRARIES, "libbypass_mgr"]:
        yield f"lib/{name}.lib", msvc_library(name)
    yield ("lib/libbypass_mgr.def",
           read(f"{source}/oxni_sys/plugins/bypassmgr/libbypass_mgr.def"))


def msvc_library(name):
    """Returns the import library of a DLL for Microsoft's linker."""
    listed = subprocess.run(["llvm-readobj", "--coff-exports", f"{build}/bin/{name}.dll"],
                            check=True, capture_output=True, text=True).stdout
    with tempfile.TemporaryDirectory() as folder:
        with open(f"{folder}/exports.def", "w", encoding="utf-8") as file:
            print(f"LIBRARY {name}.dll", "EXPORTS", *re.findall(r"^ +Name: (\S+)", listed, re.M),
                  sep="\n", file=file)
        subprocess.run(["llvm-dlltool", "-m", "i386:x86-64", "-d", f"{folder}/exports.def", "-l",
                        f"{folder}/import.lib"], check=True)
        return read(f"{folder}/import.lib")


def headers():
    for name in tracked("oxni_base/include"):
        yield name.removeprefix("oxni_base/"), read(f"{source}/{name}")
    for name in ("jansson.h", "jansson_config.h"):
        yield f"include/{name}", read(f"{deps}/jansson/include/{name}")
    for name in tracked("platform/*/host.h"):
        yield name.replace("platform/", "host/", 1), read(f"{source}/{name}")
    for name in tracked("platform_check/*.cpp", "platform_check/*.h"):
        yield name, read(f"{source}/{name}")


def licences():
    rows = ["Third-party code in the modules of this package.\n"]
    for one in COMPONENTS:
        text = one.get("text", f"/usr/share/doc/{one.get('debian')}/copyright")
        yield f"licences/{one['name']}.txt", read(only(text.format(deps=deps)))
        rows.append(f"{one['name']}.txt: {one['where']}; {one['licence']}")
    yield "licences/README.txt", ("\n".join(rows) + "\n" + ABOUT).encode()


def documents():
    """Uses docs/package.md as README.md: the project's own README describes the sources."""
    page = read(f"{source}/docs/package.md").decode()
    yield "README.md", re.sub(r"\]\((?=\w+\.md)", "](docs/", page).encode()
    yield "schema/scenario.schema.json", read(f"{source}/devhost/scenario/scenario.schema.json")
    for name in tracked("CHANGELOG.md", "CONTRIBUTING.md", "docs", "scenarios", "examples"):
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

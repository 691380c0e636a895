#!/usr/bin/env python3
"""Makes what is delivered of a version, in one directory: the package, its software bill of
materials (CycloneDX), the changes since the previous version, and the checksums of all.

usage: release.py SOURCE BUILD DEPS VERSION OUTPUT_DIRECTORY HOST...

HOST is the command that runs the development host. OUTPUT_DIRECTORY "-" checks and writes nothing.
Nothing is released from sources that are not
committed, of another version, without an entry in CHANGELOG.md, or without the files of this version
in scenarios/updates/; what is missing is written, to be looked at and committed.
"""
import glob
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

source, build, deps, version, output = sys.argv[1:6]
host = sys.argv[6:]
FILES = ["bypass_mgr_persistence.ejs", "bypass_mgr_upload.ejs", "bypass_mgr_dumprecord.ejs"]


def fail(text):
    sys.exit(f"release: {text}")


def run(*words, **more):
    done = subprocess.run(words, capture_output=True, text=True, check=False, **more)
    if done.returncode != 0:
        fail(f"{' '.join(words)[:120]}: exit status {done.returncode}\n"
             f"{(done.stdout + done.stderr)[-1000:].strip()}")
    return done.stdout


def check_version():
    path = f"{source}/CMakeLists.txt"
    with open(path, encoding="utf-8") as file:
        found = re.search(r"^project\(bypass_mgr VERSION (\S+)", file.read(), re.M).group(1)
    if found != version:
        fail(f"CMakeLists.txt: project version {found}, expected {version}. Change it there; "
             "all other places take it from it")


def change_entry():
    """Returns the version's part of CHANGELOG.md; without one, writes a draft and fails."""
    path = f"{source}/CHANGELOG.md"
    with open(path, encoding="utf-8") as file:
        text = file.read()
    entry = re.search(rf"^## {re.escape(version)}\n(.*?)(?=^## |\Z)", text, re.M | re.S)
    if entry:
        return entry.group(0).strip() + "\n"
    if output == "-":
        fail(f"CHANGELOG.md has no entry for {version}")
    previous = re.search(r"^## (\S+)", text, re.M)
    tag = f"v{previous.group(1)}" if previous else ""
    known = tag and run("git", "-C", source, "tag", "--list", tag)
    span = [f"{tag}..HEAD"] if known else ["-30"]
    subjects = run("git", "-C", source, "log", "--no-merges", "--format=- %s", *span)
    at = previous.start() if previous else len(text)
    with open(path, "w", encoding="utf-8") as file:
        file.write(f"{text[:at]}## {version}\n\n{subjects}\n{text[at:]}")
    fail(f"CHANGELOG.md had no entry for {version}; it has a draft now, from the commits "
         f"since {tag or 'the last 30'}. Edit and commit it")


def check_update_files():
    """The files that this version leaves on a machine, for the tests of later versions."""
    folder = f"{source}/scenarios/updates/{version}"
    with tempfile.TemporaryDirectory() as work:
        run(*host, "run", "--keep", f"{work}/run", f"{source}/scenarios/updates/write.json")
        for name in FILES:
            written = f"{work}/run/agent/var/bypass_mgr/{name}"
            kept = f"{folder}/{name}"
            if not os.path.exists(kept) and output == "-":
                fail(f"{kept} is missing")
            elif not os.path.exists(kept):
                os.makedirs(folder, exist_ok=True)
                shutil.copy(written, kept)
                print(f"release: {kept} was missing and is written")
            elif open(written, "rb").read() != open(kept, "rb").read():
                fail(f"{kept} differs from what this version writes; each version keeps its own "
                     "files, so give this one another number")


def check_committed():
    changes = run("git", "-C", source, "status", "--porcelain")
    if changes:
        fail(f"changes that are not committed:\n{changes}")


def version_of(component):
    if "debian" in component:
        return run("dpkg-query", "-W", "-f=${Version}", component["debian"])
    path = glob.glob(component["text"].format(deps=deps), recursive=True)
    if not path:
        fail(f"{component['text']} is missing")
    return re.search(r"-([\d.]+)/", path[0]).group(1)


def write_bill(path, package):
    with open(f"{source}/cmake/components.json", encoding="utf-8") as file:
        rows = [{key: one[key] for key in ("name", "where", "licence")} |
                {"version": version_of(one)} for one in json.load(file)]
    with open(package, "rb") as file:
        digest = hashlib.sha256(file.read()).hexdigest()
    run("node", f"{source}/cmake/sbom.mjs", f"{deps}/cyclonedx/node_modules", "bypass_mgr", version,
        digest, path, input=json.dumps(rows))


def main():
    check_version()
    entry = change_entry()
    check_update_files()
    if output == "-":
        return
    check_committed()
    shutil.rmtree(output, ignore_errors=True)
    os.makedirs(output)
    run(sys.executable, f"{source}/cmake/package.py", source, build, deps, output)
    package = f"{output}/bypass_mgr-{version}.zip"
    write_bill(f"{output}/bypass_mgr-{version}.cdx.json", package)
    with open(f"{output}/CHANGES-{version}.md", "w", encoding="utf-8") as file:
        file.write(entry)
    names = sorted(os.listdir(output))
    with open(f"{output}/SHA256SUMS", "w", encoding="utf-8") as file:
        for name in names:
            with open(f"{output}/{name}", "rb") as one:
                file.write(f"{hashlib.sha256(one.read()).hexdigest()}  {name}\n")
    print(f"{output}:", *names, "SHA256SUMS", sep="\n  ")
    print(f"Tag the commit: git tag v{version}")


main()

#!/usr/bin/env python3
"""Writes the archives that the fuzz target "zip" damages: fuzz_plain.zip, and fuzz_large.zip with sizes and places
in the fields for archives of more than 4 GiB.

usage: archives.py FOLDER
"""
import pathlib
import sys
import zipfile

TEXT = "PAGEDU64 " + 3000 * "a" + "the end"


def write(name, *members):
    with zipfile.ZipFile(pathlib.Path(sys.argv[1]) / name, "w") as archive:
        for member, text, method in members:
            archive.writestr(zipfile.ZipInfo(member), text, method)


write("fuzz_plain.zip", ("a/System.evtx", TEXT, zipfile.ZIP_DEFLATED), ("machine.reg", TEXT, zipfile.ZIP_STORED),
      ("b/", "", zipfile.ZIP_STORED))
zipfile.ZIP64_LIMIT = -1
write("fuzz_large.zip", ("a/System.evtx", TEXT, zipfile.ZIP_STORED), ("日.dmp", TEXT, zipfile.ZIP_DEFLATED))

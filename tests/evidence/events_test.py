#!/usr/bin/env python3
"""Logs as records: invalid calls, bad files, and a synthetic log, whole and damaged.

usage: events_test.py WINE_RUN PROGRAM
"""
import json
import re
import struct

from evidence_files import DEFAULT, check, host, prints, refused, run, write

HEADER, CHUNK = 4096, 65536
LINE = re.compile(r'\{"record":[0-9]+,"source":"[^"]+","id":[0-9]+,'
                  r'"time":"20\d\d-\d\d-\d\dT[0-9:]{8}Z","type":[124],"strings":\[.*\]\},?')


def test_refused(folder):
    text, empty = write(folder / "text.evtx", "not a log at all"), write(folder / "empty.evtx", b"")
    begun = write(folder / "start.evtx", "ElfFile\0")
    refused([
        (2, "FILE is required"),
        (2, "--unknown", "--unknown", "x"),
        (2, ".", "x", "y"),
        (2, "--from", "--from", "x", text),
        (2, "--from is higher", "--from", 2, "--to", 1, text),
        (2, ".", "--strict", "--lenient", text),
        (3, r"none.evtx: cannot be opened: file not found .2.", folder / "none.evtx"),
        (3, ": a folder, expected a file", folder),
        (3, "text.evtx: not an event log: ", text),
        (3, "empty.evtx: empty, expected an event log", empty),
        (3, "start.evtx: truncated inside the header at byte 8", begun),
        (3, "truncated inside the header at byte 8", "--lenient", begun),
    ], "events")
    prints("help", "events", "--help", contains=["--lenient"])


def test_whole(folder):
    """Its content is compared with other readers elsewhere."""
    prints("synthesize", "synthesize", "--noise", 300, DEFAULT, folder / "evidence")
    log, file = folder / "evidence/System.evtx", folder / "a.json"
    status, _, errors = host("events", "--strict", "-o", file, log)
    out = file.read_text()
    check("whole log", (status, errors) == (0, ""), errors)
    count = json.loads((folder / "evidence/truth.json").read_text())["log"]["records"]
    records = [one["record"] for one in json.loads(out)]
    check("lines", all(map(LINE.fullmatch, out.splitlines()[1:-1])) and len(records) == count, out[:500])
    for first, last, found in ((records[5], records[7], records[5:8]), (90000, 90001, [])):
        some = json.loads(prints("range", "events", "--from", first, "--to", last, log))
        check("range", [one["record"] for one in some] == found, some)


def test_damaged(folder):
    log, count = folder / "evidence/System.evtx", len(json.loads((folder / "a.json").read_text()))
    content = log.read_bytes()

    def put(name, at, value, size=None):
        return write(folder / name, (content[:at] + value + content[at + len(value):])[:size])

    at = HEADER + 2 * CHUNK
    first, last = struct.unpack_from("<QQ", content, at + 8)
    lost, end = last - first + 1, struct.unpack_from("<Q", content, HEADER + 16)[0]
    between = put("chunks.evtx", 0, b"", HEADER + CHUNK)
    cut = put("cut.evtx", 0, b"", 165000)
    refused([
        (3, ": chunk without a header, ", "--strict", "-o", folder / "b.json", put("marked.evtx", at, b"XXXX")),
        (3, r": truncated inside chunk 2 at byte 135168 .--lenient", "-o", folder / "b.json", cut),
        (2, r"no/a.json.: path not found .3.", "-o", folder / "no/a.json", log),
        (3, ": truncated after 1 of [0-9]+ chunks at byte 69632 ", between),
    ], "events")
    check("left over", not (folder / "b.json").exists(), "a file was left")
    prints("noise", "events", put("noise.evtx", at, b"X" * CHUNK), contains=[
        f": records missing: {first} to {last}", f": damaged: {count - lost} records read, {lost} records missing"])
    prints("header", "events", put("header.evtx", 24, b"XXXX"),
           contains=[": wrong checksum of the file's header at byte 0"])
    prints("truncated", "events", "--lenient", cut, contains=[": truncated inside chunk 2 "])
    prints("lost", "events", "--lenient", between, contains=[f": records missing: {end + 1} to {4710 + count}"])


run(test_refused, test_whole, test_damaged)

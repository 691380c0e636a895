#!/usr/bin/env python3
"""Logs as records: bad calls, bad files, and a synthetic log, whole and damaged.

usage: events_test.py WINE_RUN PROGRAM SCENARIO
"""
import json
import pathlib
import re
import struct
import sys
import tempfile

from evidence_files import Checks, host, write

WINE, PROGRAM, SCENARIO = sys.argv[1:]
HEADER, CHUNK = 4096, 65536
LINE = re.compile(r'\{"record":[0-9]+,"source":"[^"]+","id":[0-9]+,'
                  r'"time":"20\d\d-\d\d-\d\dT[0-9:]{8}Z","type":[124],"strings":\[.*\]\},?')
check = Checks()


def play(rows):
    """Each row: name, exit status, a pattern for stderr, which is silent without one, arguments.
    Returns what the last one printed."""
    for row, status, said, *arguments in rows:
        got, out, errors = host(WINE, PROGRAM, "events", *arguments)
        check(row, got == status, f"exit status {got}, expected {status}: {errors}")
        check(row, re.search(said, errors) if said else not errors, f"{errors}, expected {said}")
        check(row, status == 0 or not out, "something was printed")
    return out


def test_refused(folder):
    text, empty = write(folder / "text.evtx", b"not a log at all"), write(folder / "empty.evtx", b"")
    begun = write(folder / "start.evtx", b"ElfFile\0")
    play([
        ("no file named", 2, "FILE is required"),
        ("unknown option", 2, "--unknown", "--unknown", "x"),
        ("two files", 2, ".", "x", "y"),
        ("number that is none", 2, "--from", "--from", "x", text),
        ("range upside down", 2, "--from is higher", "--from", 2, "--to", 1, text),
        ("strict and lenient", 2, ".", "--strict", "--lenient", text),
        ("missing file", 3, r"none.evtx: cannot be opened: file not found .2.", folder / "none.evtx"),
        ("folder", 3, ": a folder, expected a file", folder),
        ("another file", 3, "text.evtx: not an event log: ", text),
        ("empty file", 3, "empty.evtx: empty, expected an event log", empty),
        ("header cut off", 3, "start.evtx: truncated inside the header at byte 8", begun),
        ("header, lenient", 3, "truncated inside the header at byte 8", "--lenient", begun),
    ])
    check("help", "--lenient" in play([("help", 0, "", "--help")]), "does not name --lenient")


def test_whole(folder, log, count):
    """Its content is compared with other readers elsewhere."""
    out = play([("whole log", 0, "", "--strict", log)])
    records = json.loads(out)
    check("lines", all(map(LINE.fullmatch, out.splitlines()[1:-1])) and len(records) == count, out[:500])
    numbers = [one["record"] for one in records]
    file, (first, *_, last) = folder / "a.json", numbers[5:8]
    for row, bounds, found in (("range", (first, last), numbers[5:8]), ("nothing in range", (90000, 90001), [])):
        some = json.loads(play([(row, 0, "", "--from", bounds[0], "--to", bounds[1], log)]))
        check(row, [one["record"] for one in some] == found, some)
    play([("output file", 0, "", "-o", file, log),
          ("no such folder", 2, r"no/a.json.: path not found .3.", "-o", folder / "no/a.json", log)])
    check("output file", file.read_bytes().decode() == out, "differs from the printed result")


def test_damaged(folder, log, count):
    content = log.read_bytes()

    def put(name, at, value, size=None):
        return write(folder / name, (content[:at] + value + content[at + len(value):])[:size])

    at = HEADER + 2 * CHUNK
    first, last = struct.unpack_from("<QQ", content, at + 8)
    lost, end = last - first + 1, struct.unpack_from("<Q", content, HEADER + 16)[0]
    marked, noise = put("marked.evtx", at, b"XXXX"), put("noise.evtx", at, b"X" * CHUNK)
    cut, between = put("cut.evtx", 0, b"", 165000), put("chunks.evtx", 0, b"", HEADER + CHUNK)
    play([
        ("damaged, strict", 3, ": chunk without a header, ", "--strict", "-o", folder / "b.json", marked),
        ("damaged chunk", 0, f": records missing: {first} to {last}", noise),
        ("its sum", 0, f": damaged: {count - lost} records read, {lost} records missing", noise),
        ("damaged header", 0, ": wrong check sum of the file.s header at byte 0", put("header.evtx", 24, b"XXXX")),
        ("cut off", 3, r": truncated inside chunk 2 at byte 135168 .--lenient", "-o", folder / "b.json", cut),
        ("cut off, lenient", 0, ": truncated inside chunk 2 ", "--lenient", cut),
        ("cut between chunks", 3, ": truncated after 1 of [0-9]+ chunks at byte 69632 ", between),
        ("what is lost", 0, f": records missing: {end + 1} to {4710 + count}", "--lenient", between),
    ])
    check("left over", [path.name for path in folder.glob("*.json*")] == ["a.json"], "a file was left")


with tempfile.TemporaryDirectory() as work:
    place = pathlib.Path(work)
    test_refused(place)
    status, _, errors = host(WINE, PROGRAM, "synthesize", "--noise", 300, SCENARIO, place / "evidence")
    check("synthesize", status == 0, errors)
    log, truth = (place / "evidence" / name for name in ("System.evtx", "truth.json"))
    count = json.loads(truth.read_text())["log"]["records"]
    test_whole(place, log, count)
    test_damaged(place, log, count)
print(f"{check.failures} failures")
sys.exit(check.failures != 0)

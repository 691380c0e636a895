#!/usr/bin/env python3
"""Writes .evtx logs, reads them back, and compares with two other readers; damages them and checks
what is found again and what is reported.

usage: evtx_test.py WINE_RUN PROGRAM

Two other readers read each log, too: python3-evtx and evtxexport. Number, id, source, time and strings of
each record are compared. Real logs are used, too, where BYPASS_SHARED_DATA names their folder.
"""
import json
import os
import pathlib
import struct
import subprocess
import sys

import evidence_files
from evidence_files import DEFAULT, KERNEL, LOGON, POWER, check, host, prints, result, run
from other_readers import PYTHON_EVTX, as_others, from_xml, python_repeats, xml_of_evtxexport

CHUNK, HEADER = 65536, 4096
REPEATS = 4 # each takes more than a chunk


def record(number, source, code, strings, kind=4):
    return {"record": number, "source": source, "id": code, "type": kind,
            "time": f"2024-03-07T09:{number // 60 % 60:02}:{number % 60:02}Z", "strings": strings}


def sample():
    """Each known record in each known form, and what is hard to write or to read."""
    stamp = "2024-03-07T09:00:10.123456700Z"
    crash = ["126", "0xffffffffc0000005", "0xfffff8048b58334c", "0x0", "0x1"]
    rows = [
        (KERNEL, 12, ["10", "0", "19045", "5007", "0", "0", stamp]),
        (KERNEL, 13, [stamp]),
        (KERNEL, 1, [stamp, stamp, "3"]),
        (KERNEL, 1, [stamp, stamp, "3", "C:\\Windows\\System32\\svchost.exe", "1204"]),
        (KERNEL, 24, ["-180", "2"]),
        (POWER, 41, [*crash, "false", "0"]),
        (POWER, 41, [*crash, "0", "0", "0"]),
        (POWER, 41, [*crash, "0", "0", "0", "0", "false", "0", "0"]),
        (POWER, 41, [*crash, "0", "0", "0", "0", "true", "0", "0", "false", "0"]),
        (POWER, 41, [*crash, "0", "0", "0", "0", "true", "0", "0", "false", "0", "0"]),
        (POWER, 41, ["no number", *crash[1:], "false", "0"]),
        (LOGON, 7001, ["1", "S-1-5-21-1-2-3-1000"]),
        (LOGON, 7002, ["1", "S-1-5-18"]),
        ("BugCheck", 0x400003E9, ["0x0000007e (0x1, 0x2, 0x3, 0x4)", "C:\\dump.dmp", "id"]),
        ("EventLog", 0x80001775, []),
        ("EventLog", 0x80001778, ["09:59:58", "07/03/2024", "", "", "4,012", "", ""]),
        ("Disk Überwachung", 0x40010007, ["Устройство", "日本語の記録", "\U0001f642 & <tag> \"q\""]),
        ("One empty string", 6, [""]),
        ("Long", 7, ["x" * 30000, "end"]),
    ]
    return [record(number, *row) for number, row in enumerate(rows * REPEATS, 1)]


def write(folder, name, content):
    return evidence_files.write(folder / name, bytes(content))


def read(log, *arguments, status=0):
    """Returns the records and what is reported."""
    got, out, errors = host("events", *arguments, log)
    check(log.name, got == status, f"status {got}: {errors}")
    return json.loads(out) if out.strip() else [], errors


def expect(what, got, wanted):
    if got != wanted and isinstance(got, list) and len(got) == len(wanted): # the first that differs
        got, wanted = next((a, b) for a, b in zip(got, wanted) if a != b)
    check(what, got == wanted, f"got {str(got)[:300]}, expected {str(wanted)[:300]}")


def test_round_trip(folder):
    records, log = sample(), folder / "whole.evtx"
    prints("written", "events", "--evtx", "-o", log, evidence_files.write(folder / "records.json", records))
    back, errors = read(log, "--strict")
    expect("errors", errors, "")
    expect("records", back, [dict(wrote, type=got["type"]) for wrote, got in zip(records, back)])
    expect("records read", len(back), len(records))
    others.add(log, records)


def compare(reader, name, texts, records):
    ours = [[one["record"], one["id"], one["source"], one["time"], as_others(one["strings"])] for one in records]
    expect(f"{reader} of {name}", sorted(map(from_xml, texts)), ours)


class OtherReaders:
    """Reads logs by the side of other work, each log once."""

    def __init__(self):
        self.logs = []

    def add(self, log, records, most_by_python=sys.maxsize):
        compare("evtxexport", log, xml_of_evtxexport(log), records)
        output = open(log.with_suffix(".python"), "w+", encoding="utf-8") # which may be larger than a pipe
        self.logs.append((log, records[:most_by_python], output, subprocess.Popen(
            ["/usr/bin/python3", "-c", PYTHON_EVTX, log, str(most_by_python)], stdout=output)))

    def end(self, _):
        for log, records, output, process in self.logs:
            process.wait(300)
            with output:
                output.seek(0)
                texts = json.loads(output.read() or "[]")
            repeated = {one["record"] for one in records if python_repeats(one["strings"])}
            compare("python3-evtx", log, [text for number, text in texts if number not in repeated],
                    [one for one in records if one["record"] not in repeated])


others = OtherReaders()


def test_synthetic(folder):
    """The log of a synthetic machine: each reader finds the same records."""
    for damage in ("dirty", "wrapped", ""):
        made = folder / f"synthetic{damage}"
        prints("synthesize", "synthesize", "--noise", 300, *(["--damage", damage] if damage else []), DEFAULT, made)
        records, errors = read(made / "System.evtx", "--strict")
        truth = json.loads((made / "truth.json").read_text())
        expect(f"synthetic, {damage}", (len(records), errors), (truth["log"]["records"], ""))
        if damage == "wrapped": # both trust lagging headers
            others.add(made / "System.evtx", records)


def test_real(folder):
    for log in pathlib.Path(os.environ.get("BYPASS_SHARED_DATA") or "/none").glob("*.evtx"):
        copy = write(folder, log.name, log.read_bytes())
        others.add(copy, read(copy)[0], 200) # python3-evtx takes its time


def place_of(data, number):
    """The offset of a record in the file."""
    for at in range(HEADER, len(data), CHUNK):
        offset = 512
        while data[at + offset:at + offset + 4] == b"**\0\0":
            size, found = struct.unpack_from("<IQ", data, at + offset + 4)
            if found == number:
                return at + offset
            offset += size
    raise SystemExit(f"FAILED: record {number} is nowhere")


def test_damage(folder):
    """What is done to a sound log: change, numbers that are lost, line of the report."""
    data, last = (folder / "whole.evtx").read_bytes(), len(sample())

    def put(at, value):
        return lambda log: log.__setitem__(slice(at, at + len(value)), value)
    first_of_chunk_2 = next(n for n in range(1, last) if place_of(data, n) > HEADER + CHUNK)
    rows = [
        ("a record's magic", put(place_of(data, 5), b"XX"), {5}, "1 unreadable record: chunk 0"),
        ("a record's size", put(place_of(data, 5) + 4, b"\x07"), {5}, "1 unreadable record: chunk 0"),
        ("the copy of a size", put(place_of(data, 6) - 4, b"\xff\xff"), {5},
         "1 unreadable record: chunk 0"),
        ("a template's offset", put(place_of(data, 25) + 24 + 10, b"\xff\xff"), {25},
         "1 unreadable record"),
        ("a chunk's magic", put(HEADER + CHUNK, b"XXXX"), set(), "chunk without a header, whose"),
        ("a chunk's checksum", put(HEADER + 0x7C, b"XXXX"), set(), "wrong checksum of the header"),
        ("a string", put(place_of(data, 37) - 24, b"Y"), set(), "wrong checksum of the records"),
        ("a chunk of zeros", put(HEADER, bytes(CHUNK)), set(range(1, first_of_chunk_2)),
         "empty chunk before a used one"),
        ("a chunk of noise", put(HEADER, b"N" * CHUNK), set(range(1, first_of_chunk_2)),
         "chunk missing: chunk 0"),
        ("the free space, too low", put(HEADER + 0x30, struct.pack("<I", 600)), set(),
         "wrong checksum of the header"),
    ]
    for what, change, lost, line in rows:
        damaged = bytearray(data)
        change(damaged)
        back, errors = read(write(folder, "damaged.evtx", damaged))
        expect(f"{what}: lost", set(range(1, last + 1)) - {one["record"] for one in back}, lost)
        check(what, line in errors, f"no '{line}' in: {errors}")


def test_cut(folder):
    data = (folder / "whole.evtx").read_bytes()
    cut = write(folder, "cut.evtx", data[:HEADER + CHUNK + 3000])
    read(cut, status=3)
    back, errors = read(cut, "--lenient")
    whole = sum(place_of(data, n) < HEADER + CHUNK for n in range(1, 40))
    check("truncated, lenient", len(back) >= whole and "truncated inside chunk 1" in errors, f"{len(back)}: {errors}")


def test_wrapped(folder):
    """The second chunk before the first one, as in a log that went round."""
    data = (folder / "whole.evtx").read_bytes()
    first, second, rest = HEADER, HEADER + CHUNK, HEADER + 2 * CHUNK
    swapped = write(folder, "wrapped.evtx", data[:first] + data[second:rest] + data[first:second] + data[rest:])
    expect("wrapped", read(swapped, "--strict"), read(folder / "whole.evtx"))


def test_boots(folder):
    boots = result("boots", "replay", "--boots", "--events", folder / "whole.evtx")["boots"]
    expect("starts", len([one for one in boots if one["boot"] > 0]), REPEATS)
    expect("records of the second start", [boots[1]["first_record"], boots[1]["last_record"]], [20, 38])


run(test_round_trip, test_synthetic, test_real, test_damage, test_cut, test_wrapped, test_boots, others.end)

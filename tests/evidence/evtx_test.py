#!/usr/bin/env python3
"""Writes .evtx logs, reads them back, and compares with two other readers; damages them and checks
what is found again and what is reported.

usage: evtx_test.py WINE PROGRAM SCENARIO

Two other readers read each log, too: python3-evtx and evtxexport. Number, id, source, time and strings of
each record are compared. Real logs are used, too, where
BYPASS_SHARED_DATA names their folder.
"""
import json
import os
import pathlib
import struct
import subprocess
import sys
import tempfile

from other_readers import PYTHON_EVTX, as_others, from_xml, python_repeats, xml_of_evtxexport

wine, program, scenario = sys.argv[1:4]
work = tempfile.TemporaryDirectory()
problems = []
CHUNK, HEADER = 65536, 4096
REPEATS = 12 # each takes more than a chunk
GENERAL, POWER = "Microsoft-Windows-Kernel-General", "Microsoft-Windows-Kernel-Power"
def path(name):
    return os.path.join(work.name, name)


def windows(name):
    return "Z:" + path(name).replace("/", "\\")


def host(*arguments):
    done = subprocess.run([wine, program, *arguments], capture_output=True, text=True,
                          encoding="utf-8", timeout=300)
    # Wine's own services share our stderr when they end badly.
    done.stderr = "".join(line for line in done.stderr.splitlines(True) if not line.startswith("wine: "))
    return done


def record(number, source, code, strings, kind=4):
    return {"record": number, "source": source, "id": code, "type": kind,
            "time": f"2024-03-07T09:{number // 60 % 60:02}:{number % 60:02}Z", "strings": strings}


def sample():
    """Each known record in each known form, and what is hard to write or to read."""
    stamp = "2024-03-07T09:00:10.123456700Z"
    crash = ["126", "0xffffffffc0000005", "0xfffff8048b58334c", "0x0", "0x1"]
    rows = [
        (GENERAL, 12, ["10", "0", "19045", "5007", "0", "0", stamp]),
        (GENERAL, 13, [stamp]),
        (GENERAL, 1, [stamp, stamp, "3"]),
        (GENERAL, 1, [stamp, stamp, "3", "C:\\Windows\\System32\\svchost.exe", "1204"]),
        (GENERAL, 24, ["-180", "2"]),
        (POWER, 41, [*crash, "false", "0"]),
        (POWER, 41, [*crash, "0", "0", "0"]),
        (POWER, 41, [*crash, "0", "0", "0", "0", "false", "0", "0"]),
        (POWER, 41, [*crash, "0", "0", "0", "0", "true", "0", "0", "false", "0"]),
        (POWER, 41, [*crash, "0", "0", "0", "0", "true", "0", "0", "false", "0", "0"]),
        (POWER, 41, ["no number", *crash[1:], "false", "0"]),
        ("Microsoft-Windows-Winlogon", 7001, ["1", "S-1-5-21-1-2-3-1000"]),
        ("Microsoft-Windows-Winlogon", 7002, ["1", "S-1-5-18"]),
        ("BugCheck", 0x400003E9, ["0x0000007e (0x1, 0x2, 0x3, 0x4)", "C:\\dump.dmp", "id"]),
        ("EventLog", 0x80001775, []),
        ("EventLog", 0x80001778, ["09:59:58", "07/03/2024", "", "", "4,012", "", ""]),
        ("Disk Überwachung", 0x40010007, ["Устройство", "日本語の記録", "\U0001f642 & <tag> \"q\""]),
        ("One empty string", 6, [""]),
        ("Long", 7, ["x" * 30000, "end"]),
    ]
    return [record(number, *row) for number, row in enumerate(rows * REPEATS, 1)]


def write(records, name):
    with open(path("records.json"), "w", encoding="utf-8") as file:
        json.dump(records, file)
    done = host("events", "--evtx", "-o", windows(name), windows("records.json"))
    if done.returncode != 0:
        sys.exit(f"FAILED: {name} is not written: {done.stderr}")
    with open(path(name), "rb") as file:
        return bytearray(file.read())


def read(name, *arguments):
    done = host("events", *arguments, windows(name))
    return (json.loads(done.stdout) if done.stdout.strip() else None), done.stderr, done.returncode


def expect(what, got, wanted):
    if got != wanted and isinstance(got, list) and len(got) == len(wanted): # the first that differs
        got, wanted = next((a, b) for a, b in zip(got, wanted) if a != b)
    if got != wanted:
        problems.append(f"{what}: got {str(got)[:300]}, expected {str(wanted)[:300]}")


def check_round_trip(records):
    write(records, "whole.evtx")
    back, errors, status = read("whole.evtx", "--strict")
    expect("the log's status", (status, errors), (0, ""))
    for wrote, got in zip(records, back or []):
        expect(f"record {wrote['record']}", got, dict(wrote, type=got["type"]))
    expect("records read", len(back or []), len(records))


def compare(reader, name, texts, records):
    ours = [[one["record"], one["id"], one["source"], one["time"], as_others(one["strings"])] for one in records]
    expect(f"{reader} of {name}", sorted(map(from_xml, texts)), ours)


class OtherReaders:
    """Reads logs by the side of other work, each log once."""

    def __init__(self):
        self.logs = []

    def add(self, name, records, most_by_python=sys.maxsize):
        compare("evtxexport", name, xml_of_evtxexport(path(name)), records)
        with open(path("python"), "w+", encoding="utf-8") as output: # which may be larger than a pipe
            self.logs.append((name, records[:most_by_python], open(output.name, encoding="utf-8"), subprocess.Popen(
                ["/usr/bin/python3", "-c", PYTHON_EVTX, path(name), str(most_by_python)], stdout=output)))
        os.unlink(path("python"))

    def end(self):
        for name, records, output, process in self.logs:
            process.wait(300)
            with output:
                texts = json.loads(output.read() or "[]")
            repeated = {one["record"] for one in records if python_repeats(one["strings"])}
            compare("python3-evtx", name, [text for number, text in texts if number not in repeated],
                    [one for one in records if one["record"] not in repeated])


def check_synthetic(others):
    """The log of a synthetic machine: each reader finds the same records."""
    for damage in ("dirty", "wrapped", ""):
        folder = f"synthetic{damage}"
        done = host("synthesize", "--noise", "300", *(["--damage", damage] if damage else []), scenario,
                    windows(folder))
        expect("synthesize", (done.returncode, done.stderr), (0, ""))
        log = f"{folder}/System.evtx"
        records, errors, _ = read(log, "--strict")
        with open(path(f"{folder}/truth.json"), encoding="utf-8") as file:
            expect(log, (len(records), errors), (json.load(file)["log"]["records"], ""))
        if damage != "dirty": # both trust lagging headers
            others.add(log, records)


def check_real(others):
    for log in pathlib.Path(os.environ.get("BYPASS_SHARED_DATA") or "/none").glob("*.evtx"):
        with open(path(log.name), "wb") as copy:
            copy.write(log.read_bytes())
        others.add(log.name, read(log.name)[0], 400) # python3-evtx takes its time


def place_of(data, number):
    """The offset of a record in the file."""
    for at in range(HEADER, len(data), CHUNK):
        offset = 512
        while data[at + offset:at + offset + 4] == b"**\0\0":
            size, found = struct.unpack_from("<IQ", data, at + offset + 4)
            if found == number:
                return at + offset
            offset += size
    sys.exit(f"FAILED: record {number} is nowhere")


def check_damage(data, last):
    """What is done to a sound log: change, numbers that are lost, line of the report."""
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
        ("a chunk's check sum", put(HEADER + 0x7C, b"XXXX"), set(), "wrong check sum of the header"),
        ("a string", put(place_of(data, 37) - 24, b"Y"), set(), "wrong check sum of the records"),
        ("a chunk of zeros", put(HEADER, bytes(CHUNK)), set(range(1, first_of_chunk_2)),
         "empty chunk before a used one"),
        ("a chunk of noise", put(HEADER, b"N" * CHUNK), set(range(1, first_of_chunk_2)),
         "chunk missing: chunk 0"),
        ("the free space, too low", put(HEADER + 0x30, struct.pack("<I", 600)), set(),
         "wrong check sum of the header"),
    ]
    for what, change, lost, line in rows:
        damaged = bytearray(data)
        change(damaged)
        with open(path("damaged.evtx"), "wb") as file:
            file.write(damaged)
        back, errors, status = read("damaged.evtx")
        got = {one["record"] for one in back or []}
        expect(f"{what}: lost", set(range(1, last + 1)) - got, lost)
        if line not in errors or status != 0:
            problems.append(f"{what}: status {status}, no '{line}' in: {errors}")


def check_cut(data):
    with open(path("cut.evtx"), "wb") as file:
        file.write(data[:HEADER + CHUNK + 3000])
    expect("truncated", read("cut.evtx")[2], 3)
    back, errors, _ = read("cut.evtx", "--lenient")
    whole = sum(place_of(data, n) < HEADER + CHUNK for n in range(1, 40))
    if not back or len(back) < whole or "truncated inside chunk 1" not in errors:
        problems.append(f"truncated, lenient: {len(back or [])} records: {errors}")


def check_wrapped(data):
    """The second chunk before the first one, as in a log that went round."""
    swapped = (data[:HEADER] + data[HEADER + CHUNK:HEADER + 2 * CHUNK] +
               data[HEADER:HEADER + CHUNK] + data[HEADER + 2 * CHUNK:])
    with open(path("wrapped.evtx"), "wb") as file:
        file.write(swapped)
    back, errors, status = read("wrapped.evtx", "--strict")
    expect("wrapped", (status, errors, back == read("whole.evtx")[0]), (0, "", True))


def check_boots():
    back = json.loads(host("replay", "--boots", "--json", "--events", windows("whole.evtx")).stdout)
    expect("starts", len([one for one in back["boots"] if one["boot"] > 0]), REPEATS)
    expect("records of the second start", [back["boots"][1]["first_record"],
                                           back["boots"][1]["last_record"]], [20, 38])


records = sample()
others = OtherReaders()
check_round_trip(records)
others.add("whole.evtx", records)
check_synthetic(others)
check_real(others)
log = open(path("whole.evtx"), "rb").read()
check_damage(log, len(records))
check_cut(log)
check_wrapped(log)
check_boots()
others.end()
print("\n".join(f"FAILED: {problem}" for problem in problems) or
      f"{len(records)} records, {len(log) // CHUNK} chunks")
sys.exit(1 if problems else 0)

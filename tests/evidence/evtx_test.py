#!/usr/bin/env python3
"""Writes .evtx logs, reads them back, and compares with two other readers; damages them and checks
what is found again and what is reported.

usage: evtx_test.py WINE PROGRAM SCENARIO

Two other readers read each log, too: python3-evtx and evtxexport. Number, id, source, time and strings of
each record are compared; FAULTS lists what they read otherwise. Real logs are used, too, where
BYPASS_SHARED_DATA names their folder.
"""
import json
import os
import pathlib
import re
import struct
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as tree

wine, program, scenario = sys.argv[1:4]
work = tempfile.TemporaryDirectory()
problems = []
CHUNK, HEADER = 65536, 4096
REPEATS = 12 # each takes more than a chunk
GENERAL, POWER = "Microsoft-Windows-Kernel-General", "Microsoft-Windows-Kernel-Power"
PYTHON_EVTX = """
import json, sys
import Evtx.Evtx
with Evtx.Evtx.Evtx(sys.argv[1]) as log:
    print(json.dumps([record.xml() for record in log.records()]))
"""
SPACE = "{http://schemas.microsoft.com/win/2004/08/events/event}"
# What the other readers do to a string, undone on both sides: pattern, replacement, reason.
FAULTS = [
    (r"\b0x0*([0-9a-fA-F]+)\b", lambda found: "0x" + found[1].lower(), "hexadecimal numbers have other widths"),
    (r"\{[0-9a-fA-F-]{36}\}", lambda found: found[0].lower(), "GUIDs are in capitals"),
    (r"(\d{4}-\d\d-\d\d)[T ](\d\d:\d\d:\d\d)(\.\d+)?Z?", r"\1 \2", "times are rounded, and without a zone"),
    (r"^(True|False)$", lambda found: found[0].lower(), "python3-evtx prints truth values as Python does"),
    (r"\r\n", "\n", "XML has one kind of line end"),
    (r"(?s)^<string>(.*)</string>\n$", lambda found: found[1].replace("</string>\n<string>", SEPARATOR),
     "python3-evtx prints arrays as markup"),
    ("[\U00010000-\U0010ffff]|\ufffd+", "?", "evtxexport reads characters above U+FFFF as others"),
]
SEPARATOR = "\x1f"


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


def as_others(strings):
    for pattern, replacement, _ in FAULTS:
        strings = [re.sub(pattern, replacement, text) for text in strings]
    return SEPARATOR.join(strings).split(SEPARATOR) if any(strings) else [] # an empty array is an empty text


def from_xml(text):
    """The fields of a record, its strings from attributes and texts of its data."""
    system, *parts = tree.fromstring(text)
    provider, code = system.find(SPACE + "Provider"), system.find(SPACE + "EventID")
    strings = []
    for one in (element for part in parts for element in part.iter() if element is not part):
        if one.tag != SPACE + "Binary":
            strings += [value for name, value in one.items() if name != "Name"]
            strings += [one.text or ""] if len(one) == 0 and (one.text or not one.keys() or one.get("Name")) else []
    return [int(system.find(SPACE + "EventRecordID").text), int(code.text) | int(code.get("Qualifiers") or 0) << 16,
            provider.get("EventSourceName") or provider.get("Name"),
            system.find(SPACE + "TimeCreated").get("SystemTime")[:19].replace(" ", "T") + "Z", as_others(strings)]


def compare(reader, name, texts, records):
    ours = [[one["record"], one["id"], one["source"], one["time"], as_others(one["strings"])] for one in records]
    theirs = sorted(map(from_xml, texts))
    if reader == "python3-evtx": # moves the empty texts of an array
        ours, theirs = ([[*one[:4], list(filter(None, one[4]))] for one in side] for side in (ours, theirs))
    expect(f"{reader} of {name}", theirs, ours)


class OtherReaders:
    """Reads logs by the side of other work, each log once."""

    def __init__(self):
        self.logs = []

    def add(self, name, records):
        done = subprocess.run(["evtxexport", "-f", "xml", path(name)], capture_output=True, timeout=300)
        events = done.stdout.decode(errors="replace").split("<Event ")[1:]
        compare("evtxexport", name, ["<Event " + text[:text.rindex("</Event>")] + "</Event>" for text in events], records)
        with open(path("python"), "w+", encoding="utf-8") as output: # which may be larger than a pipe
            self.logs.append((name, records, open(output.name, encoding="utf-8"), subprocess.Popen(
                ["/usr/bin/python3", "-c", PYTHON_EVTX, path(name)], stdout=output)))
        os.unlink(path("python"))

    def end(self):
        for name, records, output, process in self.logs:
            process.wait(300)
            with output:
                compare("python3-evtx", name, json.loads(output.read() or "[]"), records)


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
        others.add(log.name, read(log.name)[0])


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

#!/usr/bin/env python3
"""Plays the table of situations: a customer's folder each, with the answer that is right.

usage: situations_test.py WINE_RUN PROGRAM [NAME]      NAME: only rows whose name contains it
"""
import itertools
import json
import os
import pathlib
import re
import sys

from evidence_files import BUG_CHECK, KERNEL, POWER, a_dump, check, host, logon, record, run, serve, start, write

MONTH = "2024-03-"
KEY = r"[HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Control" + "\\"


def records(rows):
    """The log of a situation. A gap is a number of records that are missing."""
    number, events = 1, []
    for kind, *values in rows:
        if kind == "gap":
            number += values[0]
            continue
        time, *values = MONTH + values[0] + "Z", *values[1:]
        if kind == "blue screen":
            values[0] = f"0x00000050 (0x1, 0x{values[0]:x}, 0x3, 0x4)"
        events.append({"record": number, **{
            "start": lambda: start(time),
            "shutdown": lambda: record(KERNEL, 13, time),
            "zone": lambda: record(KERNEL, 24, time, "1", *values),
            "logon": lambda: logon(time),
            "unexpected": lambda: record(POWER, 41, time, *values),
            "blue screen": lambda: record("BugCheck", BUG_CHECK, time, *values),
            "other": lambda: record("Other", 7, time),
        }[kind]()})
        number += 1
    return events


def registry(values):
    text = "REGEDIT4\n\n" + KEY + "CrashControl]\n"
    if "MinidumpDir" in values:
        text += f'"MinidumpDir"="{values["MinidumpDir"]}"\n'
    if "zone" in values:
        text += (KEY + f'TimeZoneInformation]\n"Bias"=dword:{values["zone"] & 0xFFFFFFFF:08x}\n'
                 '"TimeZoneKeyName"="Tokyo Standard Time"\n')
    return text


def lay(folder, table, row):
    log = row.get("log", "crash")
    write(folder / "System.json", records(table[log] if isinstance(log, str) else log))
    for name, (crashed, parameter) in row.get("dumps", table["dump"]).items():
        a_dump(folder / name, MONTH + crashed + "Z", parameter)
    for name, size in row.get("files", {}).items():
        write(folder / name, (folder / name).read_bytes()[:size])
    if row.get("registry", table["registry"]):
        write(folder / "machine.reg", registry(row.get("registry", table["registry"])).encode())
    products = row.get("products", {"guard": ["guard_flt", "guard_net"]})
    write(folder / "products.json", {name: {"modules": modules} for name, modules in products.items()})


def replay(row, folder):
    """Returns the result of a host of its own, which the zone of the computer must not change."""
    results = [host("replay", folder, "--json", *row.get("options", []), env={**os.environ, "TZ": zone})
               for zone in ("UTC", "America/New_York")]
    for status, _, errors in results:
        check(row["name"], status == 0, f"status {status}: {errors}")
    status, out, _ = results[0]
    # The plug-in logs an address, which depends on the environment's size.
    lines = [re.sub(r"\([0-9A-F]{16}\)", "", text).splitlines() for _, text, _ in results]
    other = [pair for pair in itertools.zip_longest(*lines) if pair[0] != pair[1]]
    check(row["name"], not other, f"the zone of this computer shows: {other[:1]}")
    return json.loads(out) if status == 0 else None


def compare(row, result):
    name = row["name"]
    check(name, result, "there is no result")
    if not result:
        return
    check(name, result["answer"] == row["answer"], f"{result['answer']}: {result['sentence']}")
    check(name, row.get("sentence", "") in result["sentence"], result["sentence"])
    # Without its products the machine has nothing that a registry would change.
    doubts, expected = result["doubts"], row.get("doubts", [])
    check(name, len(doubts) == len(expected) and all(a in b for a, b in zip(expected, doubts)), doubts)
    check(name, row.get("zone", "UTC") == result["time_zone"]["name"], result["time_zone"])
    check(name, row.get("text", "") in json.dumps(result), f"{row.get('text')} is not in {result}")
    rows = [[boot["answer"], boot["blamed"], boot["ordered"]] for boot in result["boots"] if "answer" in boot]
    check(name, row.get("rows", rows) == rows, rows)


def test_rows(folder):
    table = json.loads((pathlib.Path(__file__).parent / "situations.json").read_text())
    cases = [(row, folder / str(number)) for number, row in enumerate(table["situations"])
             if "".join(sys.argv[3:]) in row["name"]]
    for row, place in cases:
        place.mkdir()
        lay(place, table, row)
    served = serve([{"id": row["name"], "source": str(place)} for row, place in cases if "zone" not in row],
                   env={**os.environ, "TZ": "UTC"})
    for row, place in cases:
        compare(row, replay(row, place) if "zone" in row else served.get(row["name"], {}).get("result"))


run(test_rows)

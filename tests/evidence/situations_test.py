#!/usr/bin/env python3
"""Plays the table of situations: a customer's folder each, with the answer that is right.

usage: situations_test.py WINE_RUN PROGRAM [NAME]      NAME: only rows whose name contains it
"""
import json
import os
import pathlib
import sys
import tempfile

from evidence_files import BUG_CHECK, KERNEL, LOGON, POWER, Checks, a_dump, host, record, start, write

WINE, PROGRAM, *WANTED = sys.argv[1:]
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
            "logon": lambda: record(LOGON, 7001, time, "1", "S-1-5-21-11-22-33-1001"),
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


def play(check, folder, table, row):
    name = row["name"]
    lay(folder, table, row)
    arguments = ["replay", folder, "--json", *row.get("options", [])]
    results = [host(WINE, PROGRAM, *arguments, env={**os.environ, "TZ": zone})
               for zone in ("UTC", "America/New_York") if zone == "UTC" or "zone" in row]
    status, out, err = results[0]
    check(name, status == 0, f"status {status}: {err}")
    if status != 0:
        return
    check(name, len({result[1] for result in results}) == 1, "the zone of this computer shows")
    result = json.loads(out)
    check(name, result["answer"] == row["answer"], f"{result['answer']}: {result['sentence']}")
    check(name, row.get("sentence", "") in result["sentence"], result["sentence"])
    # Without its products the machine has nothing that a registry would change.
    doubts, expected = result["doubts"], row.get("doubts", [])
    check(name, len(doubts) == len(expected) and all(a in b for a, b in zip(expected, doubts)), doubts)
    check(name, row.get("zone", "UTC") == result["time_zone"]["name"], result["time_zone"])
    check(name, row.get("text", "") in out, f"{row.get('text')} is not in {out}")
    rows = [[boot["answer"], boot["blamed"], boot["ordered"]] for boot in result["boots"] if "answer" in boot]
    check(name, row.get("rows", rows) == rows, rows)


def main():
    check = Checks()
    table = json.loads((pathlib.Path(__file__).parent / "situations.json").read_text())
    for row in table["situations"]:
        if WANTED and WANTED[0] not in row["name"]:
            continue
        with tempfile.TemporaryDirectory() as folder:
            play(check, pathlib.Path(folder), table, row)
    print(f"{len(table['situations'])} situations, {check.failures} failures")
    sys.exit(1 if check.failures else 0)


if __name__ == "__main__":
    main()

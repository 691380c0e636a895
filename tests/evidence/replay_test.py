#!/usr/bin/env python3
"""Replay of evidence: boots of a log, verdicts with their reasons, bad files of each kind, diff and
redact. A real log and dump are used, too, where BYPASS_SHARED_DATA names their folder.

usage: replay_test.py WINE_RUN PROGRAM
"""
import itertools
import json
import os
import pathlib
import re
import sys
import tempfile
import zipfile

import evidence_files
from evidence_files import BUG_CHECK, EVIDENCE, KERNEL, LOGON, POWER, Checks, a_dump, record, start, write

WINE, PROGRAM = sys.argv[1:]
check = Checks()


def host(*arguments):
    return evidence_files.host(WINE, PROGRAM, *arguments)


def a_log():
    """Begins inside a run; then a clean end, a loss of power, a blue screen, and a run that goes on.
    The clock of the last boot is years behind until the time service sets it."""
    return [
        record("EventLog", 6005, "2024-03-01T08:00:00Z"),
        start("2024-03-02T09:00:00Z"),
        record("Other", 12, "2024-03-02T09:00:01Z"),
        record(KERNEL, 13, "2024-03-02T10:00:00Z"),
        start("2024-03-03T09:00:00Z"),
        record(LOGON, 7001, "2024-03-03T09:00:20Z", "1", "S-1-5-21-11-22-33-1001"),
        start("2024-03-04T09:00:00Z"),
        record(POWER, 41, "2024-03-04T09:00:05Z", "0"),
        record(LOGON, 7001, "2024-03-04T09:00:20Z", "1", "S-1-5-21-11-22-33-1001"),
        start("2009-01-01T00:00:00Z"),
        record(POWER, 41, "2009-01-01T00:00:05Z", "0"),
        record(KERNEL, 1, "2024-03-05T09:00:12Z", "2024-03-05T09:00:12Z", "2009-01-01T00:00:12Z"),
        record("BugCheck", BUG_CHECK, "2024-03-05T09:00:15Z", "0x00000050 (0x1, 0x2, 0x3, 0x4)",
               r"C:\Users\Alice Example\MEMORY.DMP", "11111111-2222-3333-4444-555555555555"),
        record("Other", 7, "2024-03-05T09:00:16Z", r"ALICE-PC\alice", "ALICE-PC"),
        record(LOGON, 7001, "2024-03-05T09:00:30Z", "1", "S-1-5-21-11-22-33-1001"),
    ]


def test_boots(folder):
    log = write(folder / "log.json", a_log())
    status, out, _ = host("replay", "--events", log, "--boots", "--json")
    boots = json.loads(out)["boots"]
    check("boots", status == 0, f"status {status}")
    found = [(b["boot"], b["first_record"], b["last_record"], b["ended"]) for b in boots]
    check("boots", found == [(0, 1, 1, "unknown"), (1, 2, 4, "clean"), (2, 5, 6, "power loss"),
                            (3, 7, 9, "blue screen"), (4, 10, 15, "unknown")], found)
    check("ended by", [b["told_by"] for b in boots] == [None, 4, 8, 13, None], boots)
    return log


def test_verdicts(folder, log):
    rows = [
        # boot, verdict, commands to the product, a reason
        ("1", "normal", [], "concludes that the previous run ended normally"),
        ("2", "normal", [], "stops reading at record 6, Microsoft-Windows-Winlogon 7001 "),
        ("3", "power loss", [{"type": "set_count", "count": 2, "reason": "none"}],
         "finds the record of an unexpected shutdown"),
        ("last", "blue screen", [], "finds no dump that was written since the start of Windows"),
    ]
    for boot, verdict, commands, reason in rows:
        status, out, err = host("replay", "--events", log, "--boot", boot, "--json",
                                "--product", "guard:guard_flt,guard_net:3")
        check(boot, status == 0, f"status {status}, {err}")
        result = json.loads(out)
        (folder / f"boot_{boot}.json").write_text(out)
        check(boot, result["verdict"] == verdict, result["verdict"])
        sent = [c["message"] for c in result["commands"] if c["to"] == "guard"]
        check(boot, sent == commands, sent)
        texts = [r["text"] for r in result["reasons"]]
        check(boot, any(reason in text for text in texts), texts)
        for one in result["reasons"]: # each is backed by something that the plug-in did
            backing = [result["timeline"][index]["kind"] for index in one["because"]]
            check(boot, backing and set(backing) <= {"log", "call", "step"}, one)


def test_dumps(folder):
    """Which of several dumps is of the boot that is played, and where the plug-in looks for them."""
    crash = ["0x00000050 (0x1, 0x2, 0x3, 0x4)", r"C:\Windows\MEMORY.DMP"]
    logon = ["1", "S-1-5-21-11-22-33-1001"]
    events = [
        start("2024-03-01T09:00:00Z"),
        start("2024-03-02T09:00:00Z"),
        record("BugCheck", BUG_CHECK, "2024-03-02T09:00:20Z", *crash),
        record(LOGON, 7001, "2024-03-02T09:00:30Z", *logon),
        start("2024-03-03T09:00:00Z"),
        record(POWER, 41, "2024-03-03T09:00:05Z", "80"), # the code; the record of the crash is late
        record(LOGON, 7001, "2024-03-03T09:00:30Z", *logon),
        record("BugCheck", BUG_CHECK, "2024-03-03T09:01:20Z", *crash),
    ]
    log, last = write(folder / "dumps.json", events), write(folder / "last.json", events[4:])
    early, late = write(folder / "code.json", events[:-1]), folder / "late.dmp"
    first = a_dump(folder / "first.dmp", "2024-03-02T08:59:00Z")
    second = a_dump(folder / "second.dmp", "2024-03-03T08:59:30Z")
    other = a_dump(folder / "other.dmp", "2024-03-03T08:59:40Z", 9)
    a_dump(late, "2024-03-04T08:59:40Z", 9)
    elsewhere = folder / "elsewhere.reg"
    elsewhere.write_text('REGEDIT4\n\n[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Control\\CrashControl]\n'
                         '"Text"="two\nlines\\\\\n"\n"MinidumpDir"="D:\\\\Dumps"\n"DumpFile"="E:\\\\A.DMP"\n'
                         '[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet002\\Control\\CrashControl]\n'
                         '"MinidumpDir"="C:\\\\Old"\n')
    taken, passed = "was given to the debugger engine", "was passed over for C:\\Windows\\Minidump\\"
    tied, behind = "code and parameters are those of record", "after this start, so it does not exist yet"
    rows = [
        # what, log, boot, dumps, then of each: its fate, and why it lies there
        ("of the boot", log, "2", [first, second], [(taken, tied), ("is not on the machine", behind)]),
        ("same crash again", log, "3", [first, second],
         [(passed + "second.dmp", "and another dump matches better"), (taken, tied)]),
        ("wrong clock", log, "3", [first], [(taken, tied)]),
        ("another crash", log, "3", [second, other],
         [(taken, tied), (passed + "second.dmp", "code and parameters differ from those of record 8")]),
        ("first record is a start", last, "last", [other, late],
         [("was not given", "code and parameters differ from those of record 4"), ("is not on", behind)]),
    ]
    for what, events, boot, dumps, expected in rows:
        status, out, err = host("replay", "--events", events, "--boot", boot, "--json", "--product",
                                "management:guard_flt", *[f"--dump={dump}" for dump in dumps])
        check(what, status == 0, err)
        result = json.loads(out)
        check(what, result["verdict"] == "blue screen", result["verdict"])
        for dump, (fate, why) in zip(result["dumps"], expected):
            check(what, fate in dump["fate"] and why in dump["why_there"], dump)
            check(what, why.startswith(("code and parameters are", "and another")) or dump["place"] is None or
                  dump["written"] < result["timeline"][0]["time"], dump)
    status, out, _ = host("replay", "--events", log, "--dump", second, "--registry", elsewhere)
    for line in (r"searches D:\Dumps for its newest file", r"finds no file E:\A.DMP"):
        check("elsewhere", line in out, f"{line} is not in {out}")
    status, out, _ = host("replay", "--events", early, "--boots")
    check("code of record 41", "blue screen, record 6" in out, out)


def test_bad_files(folder, log):
    cut = folder / "cut.json"
    cut.write_bytes(log.read_bytes()[:-40])
    huge = folder / "huge.bin"
    with open(huge, "wb") as file:
        file.truncate(5 << 30)
    empty, text = write(folder / "empty", b""), write(folder / "text", b"not evidence")
    missing, deep = folder / "missing", write(folder / "deep", b"[" * 1000000)
    no_text = write(folder / "no_text.json", [dict(start("2024-03-03T09:00:00Z"), strings="10")])
    ancient = write(folder / "ancient.json", [start("1601-03-03T09:00:00Z")])
    utf16 = "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\A]\r\n\"b\"=hex:0"
    cut_reg = write(folder / "cut.reg", b"\xff\xfe" + (utf16 + "1,\\\r\n").encode("utf-16-le"))
    odd_reg = write(folder / "odd.reg", utf16.replace("hex", "qword").encode())
    result = folder / "boot_1.json"
    other = write(folder / "other.json", {"schema": "bypass_mgr.replay", "version": 1})
    out = folder / "page.html"
    replay = ["replay", "--html", out, "--product", "p:m", "--events"]
    rows = [
        # status, what is said, arguments
        (3, "empty: empty, expected an event log", [*replay, empty]),
        (3, "text: not an event log: it does not begin with", [*replay, text]),
        (3, "huge.bin: not an event log", [*replay, huge]),
        (3, "missing: cannot be opened: file not found (2)", [*replay, missing]),
        (3, "cut.json: byte ", [*replay, cut]),
        (3, "other.json: expected an array of event records", [*replay, other]),
        (3, 'no_text.json: /0: "strings": expected an array of texts', [*replay, no_text]),
        (3, 'ancient.json: /0: "time": expected a time from 1970', [*replay, ancient]),
        (3, "deep:1:101: expected 100 levels at most", ["diff", result, deep]),
        (3, "empty: ", [*replay, log, "--dump", empty]),
        (3, "text: ", [*replay, log, "--dump", text]),
        (3, "huge.bin: ", [*replay, log, "--dump", huge]),
        (3, "missing: cannot be opened", [*replay, log, "--dump", missing]),
        (3, "empty: empty, expected a registry export", [*replay, log, "--registry", empty]),
        (3, "text: not a registry export", [*replay, log, "--registry", text]),
        (3, "huge.bin: has 5368709120 bytes, expected ", [*replay, log, "--registry", huge]),
        (3, "cut.reg: line 4: truncated", [*replay, log, "--registry", cut_reg]),
        (3, "odd.reg: line 4: expected a text in quotation marks", [*replay, log, "--registry", odd_reg]),
        (2, "--product p: 1 part; expected NAME:MODULE", [*replay, log, "--product", "p"]),
        (2, '--product q:m:x: count "x" is not a number', [*replay, log, "--product", "q:m:x"]),
        (2, 'product "p" is given twice', [*replay, log, "--product", "p:n"]),
        (2, "--boot 5: expected", [*replay, log, "--boot", "5"]),
        (2, "page.html': path not found (3)", ["replay", "--html", folder / "no" / "page.html",
                                             "--events", log, "--boot", "1"]),
        (3, "empty:1:1: ", ["diff", result, empty]),
        (3, "text:1:2", ["diff", text, result]),
        (3, "huge.bin: has 5368709120 bytes", ["diff", result, huge]),
        (3, "other.json: /plugin: member is missing", ["diff", result, other]),
        (3, 'log.json: expected a result of replay --json', ["diff", result, log]),
    ]
    for status, said, arguments in rows:
        got, printed, err = host(*arguments)
        check(said, got == status, f"status {got}, expected {status}: {err}")
        check(said, err.count("\n") == 1 and said in err, err)
        check(said, printed == "", printed)
    check("nothing written", not out.exists(), "a page was left")


def test_diff(folder):
    status, out, _ = host("diff", folder / "boot_1.json", folder / "boot_1.json")
    check("diff of the same", (status, out.strip()) == (0, "Nothing differs."), out)
    status, out, _ = host("diff", folder / "boot_1.json", folder / "boot_3.json")
    check("diff", status == 1, f"status {status}")
    for line in ('  verdict: "normal" -> "power loss"', "+ commands: to guard, message",
                 '- reasons: topic verdict, text concludes that the previous run ended normally',
                 '- products: name guard, at_the_end'):
        check("diff", line in out, f"{line} is not in {out}")


def test_redact(folder, log):
    registry = folder / "machine.reg"
    registry.write_text("REGEDIT4\n\n[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Control\\CrashControl]\n"
                        '"DumpFile"="C:\\\\Users\\\\Alice Example\\\\MEMORY.DMP"\n'
                        '"MinidumpDir"="%SystemDrive%\\\\Users/Alice/Dumps"\n'
                        '"ImagePath"="C:\\\\s-1-5-21-11\\\\a"\n"ALICE-PC"="ALICE-PC"\n'
                        "[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Control\\CrashControl\\ALICE-PC]\n"
                        '"DumpFile"="a"\n'
                        "[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Control\\ComputerName]\n"
                        '"ComputerName"="ALICE-PC"\n')
    events = a_log()
    events[10:10] = [record(r"\\ALICE-PC\Source", 1, "2009-01-01T00:00:02Z", "ALICE-PC")]
    events[12]["strings"] += ["2", r"\Device\HarddiskVolume3\Users\Alice\time.exe"]
    events[13]["strings"][1] = r"\\?\UNC\ALICE-PC\dumps" + 5000 * r"\a" + r"\Alice.dmp"
    smuggled = write(folder / "smuggled.json", events)
    dump = a_dump(folder / "Alice.dmp", "2009-01-01T00:00:00Z")
    target = folder / "redacted"
    status, _, err = host("redact", "--events", smuggled, "--registry", registry, "--dump", dump,
                          "--product", "guard:guard_flt:3", target)
    check("redact", status == 0, f"status {status}: {err}")
    written = "".join(path.read_text() for path in target.iterdir())
    for name in ("lice", "ALICE", "-21-11", "11111111-2222"):
        check("redact", name not in written, f"{name} is still there")
    for kept in ("0x00000050 (0x1, 0x2, 0x3, 0x4)", "CrashControl", "guard_flt"):
        check("redact", kept in written, f"{kept} is gone")
    status, out, err = host("run", "--log", "info", target / "scenario.json")
    check("redacted plays", status == 0 and "find [guard_flt] crach!" in out and
          "the clock is set to 2024-03-05T09:00:12Z" in out, out + err)
    status, _, err = host("redact", "--events", log, target)
    check("redact twice", status == 2 and "already exists" in err, err)
    events[13]["strings"][1] = 300000 * "n" # the classic interface cannot deliver it, and it does not remain
    status, out, err = host("redact", "--events", write(smuggled, events), "--dump", dump, "--product",
                            "guard:guard_flt:3", folder / "otherwise")
    check("decided otherwise", status == 1 and "The plug-in decides otherwise on it: blue screen" in out, out + err)


def plugin_lines(timeline):
    """What the plug-in logs, local times included, without addresses and the engine's remarks."""
    return [re.sub(r"\([0-9A-F]{16}\)", "", entry["text"]) for entry in timeline
            if entry.get("kind") == "log" and "dump info" not in entry["text"]]


def test_redacted_decision(folder):
    """A redacted machine has the zone of the original, with its rules, and is decided as it."""
    rules = {"bias": -60, "standard_bias": 0, "daylight_bias": -75,
             "standard_start": "00000a00000005000300000000000000", "daylight_start": "00000200000001000200000000000000"}
    late = {"key": r"SYSTEM\CurrentControlSet\Services\load_driver", "name": "TimerMaxCount", "type": "REG_SZ", "data": "90"}
    rows = [
        # name, zone, its name, offset of local time in March, when the crash is recorded, further values
        ("daylight saving", "AUS Eastern Standard Time", "AUS Eastern Standard Time", "20:00", 25, []),
        ("other rules", rules, "UTC+01:00", "11:15", 25, []),
        ("offset", "-03:30", "UTC-03:30", "05:30", 25, []),
        ("longer search", "UTC", "UTC", "09:00", 2000, [late]),
    ]
    for name, zone, zone_name, local, recorded, values in rows:
        scenario = json.loads((EVIDENCE.parent / "default.json").read_text())
        scenario["machine"] = {**scenario.get("machine", {}), "time_zone": zone, "registry": values}
        scenario["boots"] = scenario["boots"][:1]
        scenario["boots"][0].update(until=4000, steps=[])
        del scenario["boots"][0]["expect"]
        scenario["before"]["crash"]["recorded"] = recorded
        made, target = folder / name, folder / (name + " redacted")
        status, _, err = host("synthesize", write(folder / "scenario.json", scenario), made)
        check(name, status == 0, err)
        evidence = ["--events", made / "System.evtx", "--registry", made / "machine.reg", "--products",
                    made / "products.json", *[f"--dump={dump}" for dump in made.glob("Minidump/*")]]
        original = json.loads(host("replay", *evidence, "--json")[1])
        status, out, err = host("redact", *evidence, target)
        check(name, status == 0 and 'blames guard_flt' in out and 'The answer is "bypass"' in out, out + err)
        played = [json.loads(line) for line in
                  host("run", "--json", "--log", "debug", target / "scenario.json")[1].splitlines()]
        check(name, (original["answer"], original["time_zone"]["name"]) == ("bypass", zone_name), original["time_zone"])
        lines = plugin_lines(original["timeline"])
        check(name, any(f" {local}:00]" in line for line in lines if "system boot up at" in line), lines[0])
        check(name, lines == plugin_lines(played), "the plug-in logs other lines")


def test_example(folder):
    """The evidence of the documentation; another list of products blames nobody."""
    evidence = ["replay", "--events", EVIDENCE / "System.evtx", "--dump", EVIDENCE / "030724-5437-01.dmp",
                "--registry", EVIDENCE / "machine.reg", "--product", "vault:vault_fs:2"]
    page = folder / "example.html"
    status, out, err = host(*evidence, "--product", "guard:guard_flt,guard_net", "--html", page)
    check("example", status == 0, err)
    for line in ("Bypass: every product is ordered into bypass 70 s after Windows starts. guard_flt (product \"guard\")", "Verdict of the plug-in: blue screen, blames guard_flt; ", "> guard_flt+0x4a21", "\n    nt+0x3fd0b0",
                 "was given to the debugger engine", "code and parameters are those of record 4731",
                 "orders vault into bypass (blamed driver: guard_flt), delivered",
                 "Driver Bypass of guard", "guard        bypass, count 3"):
        check("example", line in out, f"{line} is not in {out}")
    check("page", "guard_flt+0x4a21" in page.read_text(), "no stack")
    status, out, _ = host(*evidence, "--boot", "2")
    check("before the crash", "after this start, so it does not exist yet" in out, out)
    results = []
    for name, product in (("blamed", "guard:guard_flt"), ("nobody", "guard:guard_net")):
        results.append(folder / f"{name}.json")
        results[-1].write_text(host(*evidence, "--json", "--product", product)[1])
    status, out, _ = host("diff", *results)
    check("other products", status == 1 and '  blamed: "guard_flt" -> null' in out and
          "+ reasons: topic stack, text finds guard_flt on the stack, which no product registered" in out, out)


def test_archive(folder):
    """The example as an archive, packed and stored, gives the same as the folder; damage is reported."""
    products = write(folder / "products.json", {"guard": {"modules": ["guard_flt"]}})
    results = {}
    for method in (zipfile.ZIP_DEFLATED, zipfile.ZIP_STORED):
        archive = folder / f"évidence {method}.zip"
        with zipfile.ZipFile(archive, "w", method) as packed:
            for file in sorted(EVIDENCE.iterdir()):
                packed.write(file, f"PC 7/{file.name}")
            packed.writestr(zipfile.ZipInfo("PC 7/notes.txt", (2024, 3, 7, 12, 0, 0)), "called at noon", method)
        results[method] = host("replay", archive, "--products", products, "--json")
    packed, stored = (str(results[method]).split("\\n") for method in results)
    check("archive", packed == stored, [pair for pair in itertools.zip_longest(packed, stored) if pair[0] != pair[1]])
    result = json.loads(results[zipfile.ZIP_STORED][1])
    check("archive", result["answer"] == "bypass" and result["dumps"][0]["file"] == "PC 7/030724-5437-01.dmp" and
          [i["file"] for i in result["ignored"]] == ["PC 7/notes.txt"], result["ignored"])
    content = bytearray(archive.read_bytes())
    at = content.index(b"PAGEDU64") + 0x2200
    content[at] ^= 1
    damaged = write(folder / "damaged.zip", bytes(content))
    status, out, _ = host("replay", damaged, "--products", products)
    check("damaged archive", status == 0 and out.startswith("Cannot tell: ") and
          "not used: PC 7/030724-5437-01.dmp: is damaged in the archive: wrong check sum" in out, out)
    for what, bad in (("cut.zip", content[:2000]), ("cut.zip", content[:-30]), ("empty.zip", b"PK\5\6" + bytes(18))):
        status, _, err = host("replay", write(folder / what, bytes(bad)))
        check("bad archive", status == 3 and what in err, err)


def test_dump(folder):
    """A dump without a log: bug check, fault, stack, drivers, and the product that is blamed."""
    dump = EVIDENCE / "030724-5437-01.dmp"
    status, out, err = host("dump", dump, "--product", "guard:guard_flt")
    check("dump", status == 0, err)
    for line in ("bug check         0x7e SYSTEM_THREAD_EXCEPTION_NOT_HANDLED", "exception code: access violation",
                 "faulting module   guard_flt", "guard_flt+0x4a21\n", "guard_flt is blamed: Bypass: ", "  nt\n"):
        check("dump", line in out, f"{line} is not in {out}")
    status, out, _ = host("dump", EVIDENCE, folder / "late.dmp", "--product", "guard:guard_net", "--json")
    dumps = json.loads(out)["dumps"]
    check("dumps", status == 0 and [d["bug_check_name"] for d in dumps] ==
          ["SYSTEM_THREAD_EXCEPTION_NOT_HANDLED", "PAGE_FAULT_IN_NONPAGED_AREA"], out)
    check("dumps", [(d["answer"], d["blamed"]) for d in dumps] == [("no bypass", None)] * 2, out)
    check("dumps", dumps[1]["parameters"][1] == {"value": "0x9", "meaning": "0: read, 1: write, 2 or 8: execute"},
          dumps[1]["parameters"])
    status, out, err = host("dump", folder / "text", dump)
    check("one bad dump", status == 3 and "text: not a dump" in err and "guard_flt+0x4a21" in out, err)


def test_synthetic(folder):
    """Evidence of a scenario in the real formats: the folder and its archive give the truth beside it."""
    scenario = EVIDENCE.parent / "default.json"
    made = folder / "synthetic"
    status, out, err = host("synthesize", "--memory-dump", scenario, made)
    check("synthesize", status == 0, err)
    truth = json.loads((made / "truth.json").read_text())
    archive = folder / "synthetic.zip"
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as packed:
        for file in sorted(made.rglob("*")):
            packed.write(file, file.relative_to(made))
    for source in (made, archive):
        status, out, err = host("replay", source, "--boot", "1", "--json")
        check("synthetic", status == 0, err)
        result = json.loads(out)
        first, *_ = expected = truth["boots"]
        check("synthetic", [b["ended"] for b in result["boots"] if b["boot"]] == [b["ended"] for b in expected], out)
        check("synthetic", (result["answer"], result["blamed"]) == (first["answer"], first["blamed"]), out)
        check("synthetic", {c["to"] for c in result["commands"]} == {o["to"] for o in first["orders"]}, out)
        check("synthetic", result["events"]["records"] == truth["log"]["records"], result["events"])
        check("synthetic", {d["kind"] for d in result["dumps"]} == {"small", "kernel, with bitmap"}, result["dumps"])
    rows = [
        # status, what is said, arguments
        (2, "synthetic' is not empty", [scenario, made]),
        (2, "boot_time.json: cannot be evidence: ", [scenario.with_name("boot_time.json"), folder / "new"]),
        (2, "the log has 1 chunk", ["--damage", "missing-chunk", scenario, folder / "new"]),
        (2, "no crash leaves a dump", ["--memory-dump", scenario.with_name("status_check.json"), folder / "new"]),
        (2, "path not found", [scenario, folder / "no" / "new"]),
    ]
    for status, said, arguments in rows:
        got, printed, err = host("synthesize", *arguments)
        check(said, (got, printed) == (status, "") and said in err, f"status {got}: {printed}{err}")
    check("nothing written", not (folder / "new").exists(), "a folder was left")


def test_real(folder, data):
    log, dump = data / "system.evtx", data / "triage_x64.dmp"
    status, out, _ = host("replay", "--events", log, "--boots")
    check("real boots", status == 0 and out.count("\n") == 5 and out.count("clean, record") == 2, out)
    status, out, _ = host("replay", "--events", log, "--product", "guard:guard_flt")
    check("real log", status == 0 and out.startswith("No bypass: ") and "Verdict of the plug-in: normal; 0 bypass commands" in out, out)

    # The same log with a blue screen before its last start.
    _, out, _ = host("events", log)
    events = json.loads(out)
    at = max(i for i, e in enumerate(events) if e["source"] == KERNEL and e["id"] == 12)
    events = [e for i, e in enumerate(events) if not (e["source"] == KERNEL and e["id"] == 13 and i > at - 50)]
    at = max(i for i, e in enumerate(events) if e["source"] == KERNEL and e["id"] == 12)
    time = events[at + 20]["time"]
    events.insert(at + 21, record(
        "BugCheck", BUG_CHECK, time, "0x0000007e (0xffffffffc0000005, 0xfffff8048b58334c, "
        "0xffff850429891ee8, 0xffff850429891720)", r"C:\Windows\Minidump\022121-5437-01.dmp"))
    for number, event in enumerate(events):
        event["record"] = number + 1
    spliced, page = write(folder / "spliced.json", events), folder / "real.html"
    status, out, err = host("replay", "--events", spliced, "--dump", dump, "--product", "power:amdppm:2",
                            "--product", "other:tcpip,ntfs", "--html", page)
    check("real dump", status == 0, err)
    for line in ("Bypass: every product is ordered into bypass 130 s after Windows starts. amdppm (product \"power\")", "> amdppm+0x334c", "\n    nt+0x36b110",
                 "orders other into bypass (blamed driver: amdppm), delivered",
                 "Driver Bypass of power", "power        bypass, count 2"):
        check("real dump", line in out, f"{line} is not in {out}")
    check("real page", "is on the crashed stack" in page.read_text() and "amdppm+0x334c" in page.read_text(), "no stack")

    cut = write(folder / "cut.dmp", dump.read_bytes()[:20000])
    status, _, err = host("replay", "--events", spliced, "--dump", cut)
    check("cut dump", status == 3 and "cut.dmp" in err and err.count("\n") == 1, err)


def main():
    data = pathlib.Path(os.environ.get("BYPASS_SHARED_DATA") or "/none")
    real = (data / "system.evtx").exists() and (data / "triage_x64.dmp").exists()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        log = test_boots(folder)
        test_verdicts(folder, log)
        test_dumps(folder)
        test_bad_files(folder, log)
        test_diff(folder)
        test_redact(folder, log)
        test_redacted_decision(folder)
        test_example(folder)
        test_archive(folder)
        test_dump(folder)
        test_synthetic(folder)
        if real:
            test_real(folder, data)
    if check.failures:
        sys.exit(1)
    print("replay prints the right results")


if __name__ == "__main__":
    main()

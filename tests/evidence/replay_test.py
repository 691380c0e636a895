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
import zipfile

from evidence_files import (BUG_CHECK, DEFAULT, EVIDENCE, KERNEL, POWER, a_dump, check, host, logon, prints, record,
                            refused, result, run, serve, start, write)

CRASH_CONTROL = "[HKEY_LOCAL_MACHINE\\SYSTEM\\ControlSet001\\Control\\CrashControl"
EXAMPLE = EVIDENCE / "030724-5437-01.dmp"


def a_log():
    """Begins inside a run; then a clean end, a loss of power, a blue screen, and a run that goes on.
    The clock of the last boot is years behind until the time service sets it."""
    return [
        record("EventLog", 6005, "2024-03-01T08:00:00Z"),
        start("2024-03-02T09:00:00Z"),
        record("Other", 12, "2024-03-02T09:00:01Z"),
        record(KERNEL, 13, "2024-03-02T10:00:00Z"),
        start("2024-03-03T09:00:00Z"),
        logon("2024-03-03T09:00:20Z"),
        start("2024-03-04T09:00:00Z"),
        record(POWER, 41, "2024-03-04T09:00:05Z", "0"),
        logon("2024-03-04T09:00:20Z"),
        start("2009-01-01T00:00:00Z"),
        record(POWER, 41, "2009-01-01T00:00:05Z", "0"),
        record(KERNEL, 1, "2024-03-05T09:00:12Z", "2024-03-05T09:00:12Z", "2009-01-01T00:00:12Z"),
        record("BugCheck", BUG_CHECK, "2024-03-05T09:00:15Z", "0x00000050 (0x1, 0x2, 0x3, 0x4)",
               r"C:\Users\Alice Example\MEMORY.DMP", "11111111-2222-3333-4444-555555555555"),
        record("Other", 7, "2024-03-05T09:00:16Z", r"ALICE-PC\alice", "ALICE-PC"),
        logon("2024-03-05T09:00:30Z"),
    ]


def test_boots(folder):
    log = write(folder / "log.json", a_log())
    boots = result("boots", "replay", "--events", log, "--boots")["boots"]
    found = [(b["boot"], b["first_record"], b["last_record"], b["ended"], b["told_by"]) for b in boots]
    check("boots", found == [(0, 1, 1, "unknown", None), (1, 2, 4, "clean", 4), (2, 5, 6, "power loss", 8),
                            (3, 7, 9, "blue screen", 13), (4, 10, 15, "unknown", None)], found)


def test_verdicts(folder):
    rows = [
        # boot, verdict, commands to the product, a reason
        ("1", "normal", [], "concludes that the previous run ended normally"),
        ("2", "normal", [], "stops reading at record 6, Microsoft-Windows-Winlogon 7001 "),
        ("3", "power loss", [{"type": "set_count", "count": 2, "reason": "none"}],
         "finds the record of an unexpected shutdown"),
        ("last", "blue screen", [], "finds no dump that was written since the start of Windows"),
    ]
    for boot, verdict, commands, reason in rows:
        played = result(boot, "replay", "--events", folder / "log.json", "--boot", boot,
                        "--product", "guard:guard_flt,guard_net:3")
        write(folder / f"boot_{boot}.json", played)
        sent = [c["message"] for c in played["commands"] if c["to"] == "guard"]
        check(boot, (played["verdict"], sent) == (verdict, commands), (played["verdict"], sent))
        check(boot, any(reason in one["text"] for one in played["reasons"]), played["reasons"])
        for one in played["reasons"]: # each is backed by something that the plug-in did
            backing = [played["timeline"][index]["kind"] for index in one["because"]]
            check(boot, backing and set(backing) <= {"log", "call", "step"}, one)


def test_dumps(folder):
    """Which of several dumps is of the boot that is played, and where the plug-in looks for them."""
    crash = ["0x00000050 (0x1, 0x2, 0x3, 0x4)", r"C:\Windows\MEMORY.DMP"]
    events = [
        start("2024-03-01T09:00:00Z"),
        start("2024-03-02T09:00:00Z"),
        record("BugCheck", BUG_CHECK, "2024-03-02T09:00:20Z", *crash),
        logon("2024-03-02T09:00:30Z"),
        start("2024-03-03T09:00:00Z"),
        record(POWER, 41, "2024-03-03T09:00:05Z", "80"), # the code; the record of the crash is late
        logon("2024-03-03T09:00:30Z"),
        record("BugCheck", BUG_CHECK, "2024-03-03T09:01:20Z", *crash),
    ]
    log, last = write(folder / "dumps.json", events), write(folder / "last.json", events[4:])
    early, late = write(folder / "code.json", events[:-1]), folder / "late.dmp"
    first = a_dump(folder / "first.dmp", "2024-03-02T08:59:00Z")
    second = a_dump(folder / "second.dmp", "2024-03-03T08:59:30Z")
    other = a_dump(folder / "other.dmp", "2024-03-03T08:59:40Z", 9)
    a_dump(late, "2024-03-04T08:59:40Z", 9)
    elsewhere = write(folder / "elsewhere.reg", f'REGEDIT4\n\n{CRASH_CONTROL}]\n"Text"="two\nlines\\\\\n"\n'
                      f'"MinidumpDir"="D:\\\\Dumps"\n"DumpFile"="E:\\\\A.DMP"\n'
                      f'{CRASH_CONTROL.replace("001", "002")}]\n"MinidumpDir"="C:\\\\Old"\n')
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
        played = result(what, "replay", "--events", events, "--boot", boot, "--product", "management:guard_flt",
                        *[f"--dump={dump}" for dump in dumps])
        check(what, played["verdict"] == "blue screen", played["verdict"])
        for dump, (fate, why) in zip(played["dumps"], expected):
            check(what, fate in dump["fate"] and why in dump["why_there"], dump)
            check(what, why.startswith(("code and parameters are", "and another")) or dump["place"] is None or
                  dump["written"] < played["timeline"][0]["time"], dump)
    prints("elsewhere", "replay", "--events", log, "--dump", second, "--registry", elsewhere,
           contains=[r"searches D:\Dumps for its newest file", r"finds no file E:\A.DMP"])
    prints("code of record 41", "replay", "--events", early, "--boots", contains=["blue screen, record 6"])


def test_bad_files(folder):
    log, result = folder / "log.json", folder / "boot_1.json"
    huge = folder / "huge.bin"
    with open(huge, "wb") as file:
        file.truncate(5 << 30)
    empty, text = write(folder / "empty", b""), write(folder / "text", "not evidence")
    utf16 = "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\A]\r\n\"b\"=hex:0"
    cut_reg = write(folder / "cut.reg", b"\xff\xfe" + (utf16 + "1,\\\r\n").encode("utf-16-le"))
    other = write(folder / "other.json", {"schema": "bypass_mgr.replay", "version": 1})
    rows = [
        ("empty: empty, expected an event log", empty),
        ("text: not an event log: it does not begin with", text),
        ("huge.bin: not an event log", huge),
        ("missing: cannot be opened: file not found (2)", folder / "missing"),
        ("cut.json: byte ", write(folder / "cut.json", log.read_bytes()[:-40])),
        ("other.json: expected an array of event records", other),
        ('no_text.json: /0: "strings": expected an array of texts',
         write(folder / "no_text.json", [dict(start("2024-03-03T09:00:00Z"), strings="10")])),
        ('ancient.json: /0: "time": expected a time from 1970',
         write(folder / "ancient.json", [start("1601-03-03T09:00:00Z")])),
        ("empty: ", log, "dumps", empty),
        ("text: ", log, "dumps", text),
        ("huge.bin: ", log, "dumps", huge),
        ("missing: cannot be opened", log, "dumps", folder / "missing"),
        ("empty: empty, expected a registry export", log, "registries", empty),
        ("text: not a registry export", log, "registries", text),
        ("huge.bin: has 5368709120 bytes, expected ", log, "registries", huge),
        ("cut.reg: line 4: truncated", log, "registries", cut_reg),
        ("odd.reg: line 4: expected a text in quotation marks", log, "registries",
         write(folder / "odd.reg", utf16.replace("hex", "qword"))),
    ]
    answers = serve({"id": said, "events": str(events), **({more[0]: [str(more[1])]} if more else {})}
                    for said, events, *more in rows)
    for said, *_ in rows: # many in one host: a start of Wine takes longer than the rest
        answer = answers.get(said, {})
        check(said, answer.get("status") == 3 and said in answer["error"] and "\n" not in answer["error"], answer)
    refused([
        (3, "empty: empty, expected an event log", empty),
        (3, "huge.bin: ", log, "--dump", huge),
        (2, "--product p: 1 part; expected NAME:MODULE", log, "--product", "p"),
        (2, '--product q:m:x: count "x" is not a number', log, "--product", "q:m:x"),
        (2, 'product "p" is given twice', log, "--product", "p:n"),
        (2, "--boot 5: expected", log, "--boot", "5"),
    ], "replay", "--html", folder / "page.html", "--product", "p:m", "--events")
    check("nothing written", not (folder / "page.html").exists(), "a page was left")
    refused([
        (2, r"page.html': path not found \(3\)", "replay", "--html", folder / "no" / "page.html", "--events", log,
         "--boot", "1"),
        (3, "deep:1:101: expected 100 levels at most", "diff", result, write(folder / "deep", b"[" * 1000000)),
        (3, "empty:1:1: ", "diff", result, empty),
        (3, "text:1:2", "diff", text, result),
        (3, "huge.bin: has 5368709120 bytes", "diff", result, huge),
        (3, "other.json: /plugin: member is missing", "diff", result, other),
        (3, 'log.json: expected a result of replay --json', "diff", result, log),
    ])


def test_diff(folder):
    same, other = folder / "boot_1.json", folder / "boot_3.json"
    check("diff of the same", prints("diff", "diff", same, same).strip() == "Nothing differs.", "something differs")
    prints("diff", "diff", same, other, status=1, contains=[
        '  verdict: "normal" -> "power loss"', "+ commands: to guard, message",
        "- reasons: topic verdict, text concludes that the previous run ended normally",
        "- products: name guard, at_the_end"])


def test_redact(folder):
    registry = write(folder / "machine.reg", f'REGEDIT4\n\n{CRASH_CONTROL}]\n'
                     '"DumpFile"="C:\\\\Users\\\\Alice Example\\\\MEMORY.DMP"\n'
                     '"MinidumpDir"="%SystemDrive%\\\\Users/Alice/Dumps"\n'
                     '"ImagePath"="C:\\\\s-1-5-21-11\\\\a"\n"ALICE-PC"="ALICE-PC"\n'
                     f'{CRASH_CONTROL}\\ALICE-PC]\n"DumpFile"="a"\n'
                     f'{CRASH_CONTROL.replace("CrashControl", "ComputerName")}]\n"ComputerName"="ALICE-PC"\n')
    events = a_log()
    events[10:10] = [record(r"\\ALICE-PC\Source", 1, "2009-01-01T00:00:02Z", "ALICE-PC")]
    events[12]["strings"] += ["2", r"\Device\HarddiskVolume3\Users\Alice\time.exe"]
    events[13]["strings"][1] = r"\\?\UNC\ALICE-PC\dumps" + 5000 * r"\a" + r"\Alice.dmp"
    smuggled = write(folder / "smuggled.json", events)
    dump = a_dump(folder / "Alice.dmp", "2009-01-01T00:00:00Z")
    command = ["redact", "--events", smuggled, "--registry", registry, "--dump", dump, "--product",
               "guard:guard_flt:3"]
    target = folder / "redacted"
    prints("redact", *command, target)
    written = "".join(path.read_text() for path in target.iterdir())
    for name in ("lice", "ALICE", "-21-11", "11111111-2222"):
        check("redact", name not in written, f"{name} is still there")
    for kept in ("0x00000050 (0x1, 0x2, 0x3, 0x4)", "CrashControl", "guard_flt"):
        check("redact", kept in written, f"{kept} is gone")
    prints("redacted plays", "run", "--log", "info", target / "scenario.json",
           contains=["find [guard_flt] crach!", "the clock is set to 2024-03-05T09:00:12Z"])
    prints("redact twice", *command, target, status=2, contains=["already exists"])
    events[13]["strings"][1] = 300000 * "n" # the classic interface cannot deliver it, and it does not remain
    write(smuggled, events)
    prints("decided otherwise", *command, folder / "otherwise", status=1,
           contains=["The plug-in decides otherwise on it: blue screen"])


def without_addresses(text):
    """The plug-in logs the addresses of subscribers, which depend on the process."""
    return re.sub(r"\([0-9A-F]{16}\)", "", text)


def plugin_lines(timeline):
    """What the plug-in logs, local times included, without addresses and the engine's remarks."""
    return [without_addresses(entry["text"]) for entry in timeline
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
        scenario = json.loads(DEFAULT.read_text())
        scenario["machine"] = {**scenario.get("machine", {}), "time_zone": zone, "registry": values}
        scenario["boots"] = scenario["boots"][:1]
        scenario["boots"][0].update(until=4000, steps=[])
        del scenario["boots"][0]["expect"]
        scenario["before"]["crash"]["recorded"] = recorded
        made, target = folder / name, folder / (name + " redacted")
        prints(name, "synthesize", write(folder / "scenario.json", scenario), made)
        evidence = ["--events", made / "System.evtx", "--registry", made / "machine.reg", "--products",
                    made / "products.json", *[f"--dump={dump}" for dump in made.glob("Minidump/*")]]
        original = result(name, "replay", *evidence)
        prints(name, "redact", *evidence, target, contains=["blames guard_flt", 'The answer is "bypass"'])
        played = [json.loads(line) for line in
                  host("run", "--json", "--log", "debug", target / "scenario.json")[1].splitlines()]
        check(name, (original["answer"], original["time_zone"]["name"]) == ("bypass", zone_name), original["time_zone"])
        lines = plugin_lines(original["timeline"])
        check(name, any(f" {local}:00]" in line for line in lines if "system boot up at" in line), lines[0])
        check(name, lines == plugin_lines(played), "the plug-in logs other lines")


def test_example(folder):
    """The evidence of the documentation; another list of products blames no product."""
    evidence = ["replay", "--events", EVIDENCE / "System.evtx", "--dump", EXAMPLE, "--registry",
                EVIDENCE / "machine.reg", "--product", "vault:vault_fs:2"]
    page = folder / "example.html"
    prints("example", *evidence, "--product", "guard:guard_flt,guard_net", "--html", page, contains=[
        "Bypass: every product is ordered into bypass 70 s after Windows starts. guard_flt (product \"guard\")",
        "Verdict of the plug-in: blue screen, blames guard_flt; ", "> guard_flt+0x4a21", "\n    nt+0x3fd0b0",
        "was given to the debugger engine", "code and parameters are those of record 4731",
        "orders vault into bypass (blamed driver: guard_flt), delivered", "Driver Bypass of guard",
        "guard        bypass, count 3"])
    check("page", "guard_flt+0x4a21" in page.read_text(), "no stack")
    prints("before the crash", *evidence, "--boot", "2", contains=["after this start, so it does not exist yet"])
    results = [write(folder / f"{product}.json", result(product, *evidence, "--product", f"guard:{product}"))
               for product in ("guard_flt", "guard_net")]
    prints("other products", "diff", *results, status=1, contains=[
        '  blamed: "guard_flt" -> null', "+ reasons: topic stack, text finds guard_flt on the stack, which no product "
        "registered"])


def test_archive(folder):
    """The example as an archive, packed and stored, gives the same as the folder; damage is reported."""
    products = ["--products", write(folder / "products.json", {"guard": {"modules": ["guard_flt"]}})]
    results = []
    for method in (zipfile.ZIP_DEFLATED, zipfile.ZIP_STORED):
        archive = folder / f"évidence {method}.zip"
        with zipfile.ZipFile(archive, "w", method) as packed:
            for file in sorted(EVIDENCE.iterdir()):
                packed.write(file, f"PC 7/{file.name}")
            packed.writestr(zipfile.ZipInfo("PC 7/notes.txt", (2024, 3, 7, 12, 0, 0)), "called at noon", method)
        results.append(host("replay", archive, *products, "--json"))
    packed, stored = (without_addresses(str(one)).split("\\n") for one in results)
    check("archive", packed == stored, [pair for pair in itertools.zip_longest(packed, stored) if pair[0] != pair[1]])
    played = json.loads(results[1][1])
    check("archive", played["answer"] == "bypass" and played["dumps"][0]["file"] == "PC 7/030724-5437-01.dmp" and
          [i["file"] for i in played["ignored"]] == ["PC 7/notes.txt"], played["ignored"])
    content = bytearray(archive.read_bytes())
    content[content.index(b"PAGEDU64") + 0x2200] ^= 1
    prints("damaged archive", "replay", write(folder / "damaged.zip", bytes(content)), *products, contains=[
        "Cannot tell: ", "not used: PC 7/030724-5437-01.dmp: is damaged in the archive: wrong checksum"])
    refused([(3, what, write(folder / what, bytes(bad))) for what, bad in (
        ("cut.zip", content[:2000]), ("end.zip", content[:-30]), ("empty.zip", b"PK\5\6" + bytes(18)))], "replay")


def test_dump(folder):
    """A dump without a log: bug check, fault, stack, drivers, and the product that is blamed."""
    parts = ["exception code: access violation", "faulting module   guard_flt", "guard_flt+0x4a21\n"]
    prints("dump", "dump", EXAMPLE, "--product", "guard:guard_flt", contains=[
        "bug check         0x7e SYSTEM_THREAD_EXCEPTION_NOT_HANDLED", *parts, "guard_flt is blamed: Bypass: ", "  nt\n"])
    dumps = result("dumps", "dump", EVIDENCE, folder / "late.dmp", "--product", "guard:guard_net")["dumps"]
    found = [(one["bug_check_name"], one["answer"], one["blamed"]) for one in dumps]
    check("dumps", found == [("SYSTEM_THREAD_EXCEPTION_NOT_HANDLED", "no bypass", None),
                             ("PAGE_FAULT_IN_NONPAGED_AREA", "no bypass", None)], found)
    second = dumps[1]["parameters"][1]
    check("dumps", second == {"value": "0x9", "meaning": "0: read, 1: write, 2 or 8: execute"}, second)
    prints("one bad dump", "dump", folder / "text", EXAMPLE, status=3, contains=["text: not a dump", *parts])


def test_synthetic(folder):
    """Evidence of a scenario in the real formats: the folder and its archive give the truth beside it."""
    made, archive, new = folder / "synthetic", folder / "synthetic.zip", folder / "new"
    prints("synthesize", "synthesize", "--memory-dump", DEFAULT, made)
    truth = json.loads((made / "truth.json").read_text())
    first, *_ = expected = truth["boots"]
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as packed:
        for file in sorted(made.rglob("*")):
            packed.write(file, file.relative_to(made))
    for source in (made, archive):
        played = result("synthetic", "replay", source, "--boot", "1")
        for got, wanted in [
                ([b["ended"] for b in played["boots"] if b["boot"]], [b["ended"] for b in expected]),
                ((played["answer"], played["blamed"]), (first["answer"], first["blamed"])),
                ({c["to"] for c in played["commands"]}, {o["to"] for o in first["orders"]}),
                (played["events"]["records"], truth["log"]["records"]),
                ({d["kind"] for d in played["dumps"]}, {"small", "kernel, with bitmap"})]:
            check("synthetic", got == wanted, f"{got}, expected {wanted}")
    refused([
        (2, "synthetic' is not empty", DEFAULT, made),
        (2, "event_log_empty.json: cannot be evidence: ", DEFAULT.with_name("event_log_empty.json"), new),
        (2, "the log has 1 chunk", "--damage", "missing-chunk", DEFAULT, new),
        (2, "no crash leaves a dump", "--memory-dump", DEFAULT.with_name("status_check.json"), new),
        (2, "path not found", DEFAULT, folder / "no" / "new"),
    ], "synthesize")
    check("nothing written", not new.exists(), "a folder was left")


def test_real(folder):
    data = pathlib.Path(os.environ.get("BYPASS_SHARED_DATA") or "/none")
    log, dump = data / "system.evtx", data / "triage_x64.dmp"
    if not log.exists() or not dump.exists():
        return
    out = prints("real boots", "replay", "--events", log, "--boots")
    check("real boots", out.count("\n") == 5 and out.count("clean, record") == 2, out)
    prints("real log", "replay", "--events", log, "--product", "guard:guard_flt",
           contains=["No bypass: ", "Verdict of the plug-in: normal; 0 bypass commands"])

    # The same log with a blue screen before its last start.
    events = json.loads(prints("real events", "events", log))
    at = max(i for i, e in enumerate(events) if (e["source"], e["id"]) == (KERNEL, 12))
    events = [e for i, e in enumerate(events) if (e["source"], e["id"]) != (KERNEL, 13) or i <= at - 50]
    at = 20 + max(i for i, e in enumerate(events) if (e["source"], e["id"]) == (KERNEL, 12))
    events.insert(at + 1, record(
        "BugCheck", BUG_CHECK, events[at]["time"], "0x0000007e (0xffffffffc0000005, 0xfffff8048b58334c, "
        "0xffff850429891ee8, 0xffff850429891720)", r"C:\Windows\Minidump\022121-5437-01.dmp"))
    for number, event in enumerate(events):
        event["record"] = number + 1
    spliced, page = write(folder / "spliced.json", events), folder / "real.html"
    prints("real dump", "replay", "--events", spliced, "--dump", dump, "--product", "power:amdppm:2",
           "--product", "other:tcpip,ntfs", "--html", page, contains=[
               "Bypass: every product is ordered into bypass 130 s after Windows starts. amdppm (product \"power\")",
               "> amdppm+0x334c", "\n    nt+0x36b110", "orders other into bypass (blamed driver: amdppm), delivered",
               "Driver Bypass of power", "power        bypass, count 2"])
    text = page.read_text()
    check("real page", "is on the crashed stack" in text and "amdppm+0x334c" in text, "no stack")
    refused([(3, "cut.dmp", write(folder / "cut.dmp", dump.read_bytes()[:20000]))],
            "replay", "--events", spliced, "--dump")


run(test_boots, test_verdicts, test_dumps, test_bad_files, test_diff, test_redact, test_redacted_decision,
    test_example, test_archive, test_dump, test_synthetic, test_real)

#!/usr/bin/python3
"""A corpus of cases over the engine: results of the real host equal those of replay, and no fault of a case,
a worker, the scheduler, the disk or a person loses a result or counts it twice.

usage: corpus_test.py SOURCE BUILD [TEST]      (77: the engine is not installed)
"""
import contextlib
import importlib.util
import json
import os
import pathlib
import re
import shutil
import signal
import sqlite3
import struct
import subprocess
import sys
import tempfile
import time
import zipfile

sys.dont_write_bytecode = True
SOURCE, BUILD = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
sys.path[:0] = [str(SOURCE / "tests/devhost"), str(SOURCE / "tests/evidence")]
from evidence_files import Checks # noqa: E402
from page_test import Browser # noqa: E402

RUN = [sys.executable, str(SOURCE / "corpus/run.py"), "--build", str(BUILD)]
# It ends with its worker, as the real one does.
FAKE = ["--host", f"setpriv --pdeathsig KILL {sys.executable} {pathlib.Path(__file__).parent / 'fake_host.py'}"]
HOST = [str(SOURCE / "cmake/wine-run"), str(BUILD / "win/bin/oxni_devhost.exe")]
EVIDENCE = SOURCE / "scenarios/evidence"
PRODUCTS = {"guard": {"modules": ["guard_flt", "guard_net"], "count": 3}}
MACHINES = 8 # as many as take a second
check = Checks()


def corpus(*arguments, seconds=120):
    done = subprocess.run([*RUN, *map(str, arguments)], capture_output=True, text=True, timeout=seconds)
    return done.returncode, done.stdout, done.stderr


def start(*arguments, command=RUN):
    return subprocess.Popen([*command, *map(str, arguments)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True, start_new_session=True)


def query(folder, text):
    with contextlib.closing(sqlite3.connect(folder / "results.sqlite", timeout=20)) as base:
        return base.execute(text).fetchall()


def states(folder):
    return dict(query(folder, "SELECT name, state FROM cases"))


def answered(folder):
    try:
        return query(folder, "SELECT count(*) FROM cases WHERE state = 'answered'")[0][0]
    except sqlite3.Error:
        return 0


def wait_for(holds, run=None, seconds=300):
    end = time.monotonic() + seconds
    while not holds():
        if run and run.poll() is not None:
            sys.exit(f"FAILED: ended with {run.returncode} before: {run.communicate()}")
        if time.monotonic() > end:
            if run:
                os.killpg(run.pid, signal.SIGABRT)
            sys.exit(f"FAILED: waited in vain{run and f': {run.communicate()}'}")
        time.sleep(0.05)


def address_in(file):
    """The address that a scheduler has written; None while the file is not there or not whole."""
    with contextlib.suppress(OSError, ValueError):
        return json.loads(file.read_text())["address"]


def make_cases(folder, *names):
    for name in names:
        (folder / name).mkdir(parents=True)
    return folder


def times_played(cases):
    return sum(path.stat().st_size for path in cases.glob("*/played"))


def is_whole(what, folder, names):
    """Every case has one result with its one boot."""
    check(what, states(folder) == {name: "answered" for name in names}, states(folder))
    boots = query(folder, "SELECT count(*), count(DISTINCT case_id) FROM boots")[0]
    check(what, boots == (len(names), len(names)), boots)


def children_of(pid):
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        for child in (task / "children").read_text().split():
            yield int(child)
            with contextlib.suppress(OSError):
                yield from children_of(child)


def hosts_of(process):
    """The fake hosts below a run, and the worker of each."""
    for pid in children_of(process.pid):
        with contextlib.suppress(OSError):
            if "fake_host" in pathlib.Path(f"/proc/{pid}/cmdline").read_text():
                yield pid, int(re.search(r"PPid:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])


# The real host.

def a_zip(path, names, **how):
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, **how) as packed:
        for name, content in names.items():
            packed.writestr(name, content)
    return path


def a_bomb(path):
    """Two small members that claim to become 3 GiB each."""
    a_zip(path, {"A.DMP": bytes(1000), "B.DMP": bytes(1000)})
    return patched(path, lambda content: content.replace(struct.pack("<I", 1000), struct.pack("<I", 3 << 30)))


def an_overlap(path):
    """A directory that lists one member a thousand times."""
    a_zip(path, {"A.DMP": os.urandom(5000)})

    def repeat(content):
        at, end = content.index(b"PK\1\2"), content.index(b"PK\5\6")
        tail = bytearray(content[end:])
        struct.pack_into("<HHI", tail, 8, 1000, 1000, 1000 * (end - at))
        return content[:at] + 1000 * content[at:end] + bytes(tail)

    return patched(path, repeat)


def patched(path, change):
    path.write_bytes(change(path.read_bytes()))
    return path


def a_huge_dump(folder):
    """A complete example, and a dump of 2 GB that is almost empty."""
    shutil.copytree(EVIDENCE, folder)
    shutil.copy(EVIDENCE / "030724-5437-01.dmp", folder / "MEMORY.DMP")
    with open(folder / "MEMORY.DMP", "r+b") as file:
        file.truncate(2 << 30)


def a_truth(**changes):
    last = {"boot": 3, "answer": "bypass", "blamed": "guard_flt", "all_orders": False,
            "orders": [{"to": "guard", "type": "bypass", "reason": "guard_flt"}]}
    return {"boots": [{"boot": 1, "answer": "no bypass", "blamed": None, "ended": "clean"},
                      {"boot": 2, "not_known": "not stated"}, dict(last, **changes)]}


def real_cases(folder):
    plain = {file.name: file.read_bytes() for file in EVIDENCE.iterdir()}
    own = folder / "own"
    shutil.copytree(EVIDENCE, own / "true")
    (own / "true/truth.json").write_text(json.dumps(dict(a_truth(), schema="bypass_mgr.truth")))
    (own / "true/products.json").write_text(json.dumps(PRODUCTS))
    a_huge_dump(own / "huge")
    a_zip(own / "packed.zip", plain)
    a_zip(own / "outside.zip", dict(plain, **{"../../System.evtx": b"ElfFile"}))
    a_zip(own / "absolute.zip", dict(plain, **{"C:\\Windows\\a.reg": b"REGEDIT4"}))
    rows = [
        {"name": "inline", "source": str(EVIDENCE), "products": PRODUCTS, "truth": a_truth()},
        {"name": "files", "events": str(EVIDENCE / "System.evtx"), "products": PRODUCTS,
         "dumps": [str(EVIDENCE / "030724-5437-01.dmp")], "registries": [str(EVIDENCE / "machine.reg")]},
        {"name": "untrue", "source": str(EVIDENCE), "products": PRODUCTS, "truth": a_truth(blamed="other")},
        {"name": "unordered", "source": str(EVIDENCE), "products": PRODUCTS, "truth": a_truth(all_orders=True)},
        {"name": "wrong", "source": str(EVIDENCE), "products": {"guard": {"modules": 1}}},
        {"name": "bomb", "source": str(a_bomb(folder / "bomb.zip"))},
        {"name": "overlap", "source": str(an_overlap(folder / "overlap.zip"))},
    ]
    manifest = folder / "manifest.jsonl"
    manifest.write_text("".join(json.dumps(row) + "\n" for row in rows))
    return own, manifest


def test_real(folder):
    own, manifest = real_cases(folder)
    out = folder / "out"
    status, text, error = corpus(own, manifest, "--out", out)
    check("real", status == 1, f"status {status}, {text}{error}")
    found = {name: (state, answer, reason or "") for name, state, answer, reason in
             query(out, "SELECT name, state, answer, error FROM cases")}
    rows = [
        # case, state, answer, part of the reason
        ("true", "answered", "bypass", ""), ("inline", "answered", "bypass", ""),
        ("untrue", "answered", "bypass", ""), ("unordered", "answered", "bypass", ""),
        ("files", "answered", "bypass", ""), ("packed.zip", "answered", "cannot tell", ""),
        ("huge", "answered", "cannot tell", ""),
        ("outside.zip", "unreadable", None, "the member '../../System.evtx' leads out of the folder"),
        ("absolute.zip", "unreadable", None, "leads out of the folder"),
        ("bomb", "unreadable", None, "refused: 0 MiB would become 6144 MiB"),
        ("overlap", "unreadable", None, "refused: its members overlap"),
        ("wrong", "failed", None, "expected an array of module names"),
    ]
    for name, state, answer, reason in rows:
        check(name, found[name][:2] == (state, answer) and reason in found[name][2], found[name])
    check("real", set(found) == {row[0] for row in rows}, set(found))
    differences = dict(query(out, "SELECT name, differences FROM cases WHERE differences NOT NULL"))
    check("truth", set(differences) == {"untrue", "unordered"}, differences)
    check("truth", "blamed is guard_flt, the truth is other" in differences["untrue"], differences)
    check("truth", "truth: 2 of 4 cases" in text, text)
    test_equals_replay(out, own)
    test_leaves_nothing(folder)
    test_baseline(folder, out)
    test_page_of_case(out)
    test_page(out)


def test_equals_replay(out, own):
    """A host of many cases answers as one of a single case."""
    for name in ("true", "packed.zip"):
        one = subprocess.run([*HOST, "replay", "--json", str(own / name)], capture_output=True, timeout=100)
        boots = [boot for boot in json.loads(one.stdout)["boots"] if "answer" in boot]
        kept = query(out, "SELECT boot, boots.answer, boots.sentence, blamed, orders FROM boots JOIN cases ON "
                          f"id = case_id WHERE name = '{name}' ORDER BY boot")
        check(name, [(b["boot"], b["answer"], b["sentence"], b["blamed"], json.dumps(b["orders"])) for b in boots]
              == kept, kept)
        doubts = [doubt for boot in boots for doubt in boot["doubts"]]
        check(name, sorted(doubts) == sorted(doubt for doubt, in query(
            out, f"SELECT doubt FROM doubts JOIN cases ON id = case_id WHERE name = '{name}'")), doubts)
    exported = [json.loads(line) for line in open(out / "results.jsonl", encoding="utf-8")]
    check("export", len(exported) == 12 and [len(case["boots"]) for case in exported if case["name"] == "true"] == [3],
          exported)
    check("export", (out / "results.csv").read_text().count("\n") == 27, (out / "results.csv").read_text())


def test_leaves_nothing(folder):
    """A boot that is played again right away finds no files of the first time."""
    log = folder / "one_boot.json"
    events = subprocess.run([*HOST, "events", str(EVIDENCE / "System.evtx")], capture_output=True, timeout=100)
    log.write_text(json.dumps([event for event in json.loads(events.stdout) if event["record"] >= 4725]))
    case = {"id": 1, "events": str(log), "dumps": [str(EVIDENCE / "030724-5437-01.dmp")], "products": PRODUCTS}
    done = subprocess.run([*HOST, "serve"], input=2 * (json.dumps(case) + "\n"), capture_output=True, text=True,
                          timeout=100)
    first, second = (json.loads(line)["result"] for line in done.stdout.splitlines())
    check("again", first == second and first["answer"] == "bypass", [first["boots"], second["boots"]])


def test_baseline(folder, out):
    old = folder / "old"
    shutil.copytree(out, old)
    status, text, _ = corpus("--out", out, "--baseline", old)
    check("same", "baseline: nothing changed" in text, text)
    some = "case_id IN (SELECT id FROM cases WHERE name IN ('true', 'inline'))"
    with contextlib.closing(sqlite3.connect(old / "results.sqlite")) as base, base:
        base.execute("UPDATE boots SET blamed = 'fs_flt', orders = '[]' WHERE blamed NOT NULL AND " + some)
        base.execute("UPDATE boots SET answer = 'cannot tell' WHERE boot = 1 AND " + some)
        base.execute("UPDATE cases SET state = 'answered' WHERE name = 'bomb'")
        base.execute("UPDATE cases SET name = 'gone' WHERE name = 'files'")
    status, text, _ = corpus("--out", out, "--baseline", old)
    check("changed", status == 1, f"status {status}")
    for line in ("2 cases: answer: cannot tell -> no bypass", "2 cases: blamed: fs_flt -> guard_flt",
                 '2 cases: orders: [] -> ["', "1 case: case: answered -> unreadable",
                 "2 cases are in one of the runs only"):
        check("changed", line in text, f"'{line}' is not in {text}")


def test_page_of_case(out):
    status, text, error = corpus("--out", out, "--page", "inline")
    page = re.search(r"page: (.*)", text)
    check("page", status == 0 and page and "guard_flt" in pathlib.Path(page[1]).read_text(), text + error)


def test_page(out):
    """The table in a browser: totals, a click on a ranking, the filter, the order, a case's details."""
    names = "return [...document.querySelectorAll('#rows tr > td:first-child > button')].map(b => b.textContent)"
    with open(out / "driver.log", "w", encoding="utf-8") as log:
        browser = Browser(log)
        try:
            browser.open(out / "index.html", "light")
            check("page", "12 cases: 7 answered, 4 unreadable, 1 failed" in browser.text("#totals"), browser.text("#totals"))
            check("page", len(browser.run(names)) == 12, browser.run(names))
            browser.click("#modules button")
            check("page", set(browser.run(names)) == {"true", "inline", "untrue", "unordered", "files"}, browser.run(names))
            browser.click("#chosen button")
            browser.click("#heads th:last-child button")
            times = browser.run("return data.cases.map(row => row[5]).sort((a, b) => b - a)[0]")
            first = browser.run("return +document.querySelector('#rows td:last-child').textContent.replaceAll(',', '')")
            check("page", first == times, f"{first} is not the longest, {times}")
            browser.run("document.getElementById('text').value = 'leads out'; filter()")
            check("page", set(browser.run(names)) == {"outside.zip", "absolute.zip"}, browser.run(names))
            browser.click("#rows button")
            check("page", "refused" in browser.text(".details") and "--page" in browser.text(".details"),
                  browser.text(".details"))
        finally:
            browser.close()


def test_truth(folder):
    """Synthetic customers: every answer is as their generator knows."""
    made = subprocess.run([HOST[0], str(BUILD / "win/bin/harness.exe"), "synthesize", "--random", "1", "--count",
                           str(MACHINES), str(folder / "cases")], capture_output=True, text=True, timeout=200)
    if made.returncode == 2:
        print("not tested: truth, since this harness synthesizes nothing")
        return
    status, text, error = corpus(folder / "cases", "--out", folder / "out", "--workers", 1)
    check("truth", status == 0, f"status {status}, {text}{error}")
    check("truth", f"truth: {MACHINES} of {MACHINES} cases" in text, text)


# Faults, with a host that does what the case's name says.

def test_cases_that_fail(folder):
    """Hosts that crash or hang, and a worker that is killed in the middle."""
    good = [f"busy{i}" for i in range(40)]
    cases = make_cases(folder / "cases", *good, "crashes", "hangs", "prints", "once")
    out = folder / "out"
    run = start(cases, "--out", out, "--workers", 2, "--timeout", 2, *FAKE)
    wait_for(lambda: len(list(hosts_of(run))) == 2 and answered(out) > 2, run)
    host, worker = next(hosts_of(run))
    os.kill(worker, signal.SIGKILL)
    text, error = run.communicate(timeout=100)
    check("failing", run.returncode == 1, f"status {run.returncode}, {text}{error}")
    check("failing", not pathlib.Path(f"/proc/{host}").exists(), "the host of the killed worker goes on")
    found = states(out)
    check("failing", {name for name in found if found[name] == "failed"} == {"crashes", "hangs", "prints"}, found)
    check("failing", all(found[name] == "answered" for name in [*good, "once"]), found)
    check("failing", query(out, "SELECT count(*) FROM boots") == [(41,)], "a case has two results")
    errors = dict(query(out, "SELECT name, error FROM cases WHERE state = 'failed'"))
    for name, reason in (("crashes", "crashed: exit status 70\nthe reason is on stderr"),
                         ("hangs", "hangs: no result after 2 s"), ("prints", "printed something else")):
        check(name, errors.get(name, "").startswith(reason), errors.get(name, found[name]))
        # The killed worker may have had it as well.
        check(name, (cases / name / "played").read_text() in ("xx", "xxx"), "was not tried twice")


def test_interrupted(folder):
    """A scheduler that is killed, a second run into the same folder, Ctrl-C, and what goes on afterwards."""
    names = [f"busy{i}" for i in range(40)]
    cases, out, address = make_cases(folder / "cases", *names), folder / "out", folder / "scheduler.json"
    scheduler = start("--scheduler-file", address, "--port", 0, "--no-dashboard", command=["dask-scheduler"])
    worker = start("--scheduler-file", address, "--nthreads", 1, "--no-dashboard", "--local-directory", folder,
                   command=["dask-worker"])
    try:
        wait_for(lambda: address_in(address))
        run = start(cases, "--out", out, "--scheduler", address_in(address), *FAKE)
        wait_for(lambda: answered(out) > 2, run)
        scheduler.kill()
        text, error = run.communicate(timeout=60)
        check("scheduler killed", run.returncode == 5 and "--resume goes on" in error,
              f"status {run.returncode}, {text}{error}")
    finally:
        for process in (scheduler, worker):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
    status, _, error = corpus(cases, "--out", out, *FAKE)
    check("not resumed", status == 2 and "--resume goes on" in error, f"status {status}, {error}")
    before = answered(out)
    run = start("--out", out, "--workers", 1, "--resume", *FAKE)
    wait_for(lambda: answered(out) > before, run)
    os.killpg(run.pid, signal.SIGSTOP) # however long the second one takes
    status, _, error = corpus(cases, "--out", out, "--resume", *FAKE)
    check("two runs", status == 2 and "another run is writing" in error, f"status {status}, {error}")
    os.killpg(run.pid, signal.SIGCONT)
    os.killpg(run.pid, signal.SIGINT)
    _, error = run.communicate(timeout=60)
    check("Ctrl-C", run.returncode == 130 and "Traceback" not in error, f"status {run.returncode}, {error}")
    check("Ctrl-C", before < answered(out) < 40, f"{before}, then {answered(out)} results")
    left, played = 40 - answered(out), times_played(cases)
    status, text, error = corpus("--out", out, "--workers", 1, "--resume", *FAKE)
    check("resumed", status == 0, f"status {status}, {text}{error}")
    is_whole("resumed", out, names)
    check("resumed", times_played(cases) == played + left, f"{times_played(cases)}, {played} and {left}")


def test_full_disk(folder):
    """A disk of its own that is full after some results, and then has space again."""
    names = [f"case{i:04}" for i in range(400)]
    cases, disk = make_cases(folder / "cases", *names), folder / "disk"
    disk.mkdir()
    script = ('mount -t tmpfs -o size=140k none "$0" && { "$@"; echo "status $?"; '
              'mount -o remount,size=64m "$0"; "$@" --resume; echo "status $?"; cp "$0"/out/results.sqlite "$0"/..; }')
    done = subprocess.run(["unshare", "-rm", "sh", "-c", script, disk, *RUN, cases, "--out", disk / "out",
                           "--workers", "1", *FAKE], capture_output=True, text=True, timeout=120)
    if "status" not in done.stdout:
        print("not tested: a full disk, since this machine permits no mount:", done.stderr.strip())
        return
    check("full disk", re.findall("status (.*)", done.stdout) == ["2", "0"], done.stdout + done.stderr)
    check("full disk", "cannot write the results: database or disk is full" in done.stderr, done.stderr)
    is_whole("full disk", folder, names)


def test_seeds(folder):
    """Seeds over the engine: a faulty plug-in is found with more than one, and the list has each once."""
    command = [sys.executable, str(SOURCE / "corpus/seeds.py"), "--build", str(BUILD), "--scheduler", "local"]
    done = subprocess.run([*command, "simulate", "--boots", "3", "--seed", "168", "--no-shrink", "--plugin",
                           str(BUILD / "win/bin/mutant_blames_anybody.dll")], capture_output=True, text=True,
                          timeout=200, cwd=folder)
    seeds = re.findall(r"reproduce: ./dev simulate --boots 1 --seed (\d+)", done.stdout)
    check("seeds", done.returncode == 1 and len(seeds) > 1 and len(set(seeds)) == len(seeds), done.stdout + done.stderr)
    check("seeds", f"{len(seeds)} findings" in done.stdout.splitlines()[-1], done.stdout)


def main():
    if importlib.util.find_spec("distributed") is None:
        return 77
    for test in (test_real, test_truth, test_cases_that_fail, test_interrupted, test_full_disk, test_seeds):
        if sys.argv[3:] not in ([], [test.__name__]):
            continue
        begin = time.monotonic()
        with tempfile.TemporaryDirectory(prefix="bypass_mgr-") as folder:
            test(pathlib.Path(folder))
        print(f"{test.__name__}: {time.monotonic() - begin:.1f} s", flush=True)
    return 1 if check.failures else 0


sys.exit(main())

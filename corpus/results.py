"""The results of a run: one SQLite database in the run's folder, written as results come."""
import csv
import fcntl
import json
import os
import sqlite3
import time

FILE = "results.sqlite"
# A run that is killed repeats what it did not commit. More often would cost a disk flush each time.
COMMIT_SECONDS = 1

SCHEMA = """
CREATE TABLE run(name TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID;
-- state: open, answered, unreadable (no evidence that can be read), failed (crashed or hung twice, or
-- called wrongly). request, truth, differences: JSON; truth NULL: not known.
CREATE TABLE cases(id INTEGER PRIMARY KEY, name TEXT UNIQUE, request TEXT, truth TEXT,
    state TEXT DEFAULT 'open', answer TEXT, sentence TEXT, seconds REAL, worker TEXT, tries INTEGER DEFAULT 0,
    error TEXT, differences TEXT);
CREATE TABLE boots(case_id INTEGER, boot INTEGER, started TEXT, ended TEXT, answer TEXT, sentence TEXT,
    blamed TEXT, orders TEXT, PRIMARY KEY(case_id, boot)) WITHOUT ROWID;
CREATE TABLE doubts(case_id INTEGER, boot INTEGER, doubt TEXT);
CREATE INDEX doubts_of_case ON doubts(case_id);
"""


class BadFolder(Exception):
    """The folder is in use, or belongs to another run."""


def connect(folder):
    """The database of a finished or interrupted run, to read."""
    path = os.path.join(folder, FILE) if os.path.isdir(folder) else folder
    if not os.path.isfile(path):
        raise BadFolder(f"{folder}: contains no {FILE}")
    return sqlite3.connect(f"file:{path}?mode=ro", uri=True)


class Results:
    def __init__(self, folder, resume):
        os.makedirs(folder, exist_ok=True)
        self.folder = folder
        self.lock = open(os.path.join(folder, "lock"), "w", encoding="utf-8")
        try:
            fcntl.flock(self.lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            raise BadFolder(f"{folder}: another run is writing its results there") from None
        path = os.path.join(folder, FILE)
        there = os.path.exists(path)
        if there and not resume:
            raise BadFolder(f"{folder}: contains results already; --resume goes on with them, --out names "
                            "another folder")
        self.base = sqlite3.connect(path)
        self.base.execute("PRAGMA synchronous = NORMAL")
        self.committed = time.monotonic()
        if self.base.execute("SELECT count(*) FROM sqlite_master").fetchone()[0] == 0:
            self.base.executescript(SCHEMA)

    def close(self):
        self.base.close()
        self.lock.close()

    def note(self, name, value):
        """Writes a fact of the run once. Returns the one that was written first."""
        self.base.execute("INSERT OR IGNORE INTO run VALUES(?, ?)", (name, value))
        return self.base.execute("SELECT value FROM run WHERE name = ?", (name,)).fetchone()[0]

    def add_cases(self, cases, resume):
        """Cases that the database has keep their results; failed ones are played again."""
        for name, request, truth in cases:
            added = self.base.execute("INSERT OR IGNORE INTO cases(name, request, truth) VALUES(?, ?, ?)",
                                      (name, json.dumps(request), truth and json.dumps(truth)))
            if added.rowcount == 0 and not resume:
                raise BadFolder(f"two cases have the name '{name}'; give them other names in a manifest")
        self.base.execute("UPDATE cases SET state = 'open', tries = 0, error = NULL WHERE state = 'failed'")
        self.base.commit()

    def counts(self):
        return dict(self.base.execute("SELECT state, count(*) FROM cases GROUP BY state"))

    def open_cases(self, after, most):
        """The next cases without a result: (id, request, truth)."""
        return [(number, json.loads(request), truth and json.loads(truth)) for number, request, truth in
                self.base.execute("SELECT id, request, truth FROM cases WHERE state = 'open' AND id > ? "
                                  "ORDER BY id LIMIT ?", (after, most))]

    def put(self, row, worker):
        different = row.get("differences")
        self.base.execute(
            "UPDATE cases SET state = ?, answer = ?, sentence = ?, seconds = ?, worker = ?, tries = tries + 1, "
            "error = ?, differences = ? WHERE id = ?",
            (row["state"], row.get("answer"), row.get("sentence"), row["seconds"], worker, row.get("error"),
             json.dumps(different) if different else None, row["id"]))
        for boot in row.get("boots", []):
            self.base.execute("INSERT INTO boots VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
                              (row["id"], boot["boot"], boot["started"], boot["ended"], boot["answer"],
                               boot["sentence"], boot["blamed"], json.dumps(boot["orders"])))
            self.base.executemany("INSERT INTO doubts VALUES(?, ?, ?)",
                                  [(row["id"], boot["boot"], doubt) for doubt in boot["doubts"]])
        if time.monotonic() - self.committed > COMMIT_SECONDS:
            self.commit()

    def commit(self):
        self.base.commit()
        self.committed = time.monotonic()


CASE_COLUMNS = ("name", "state", "answer", "sentence", "seconds", "error", "differences")
BOOT_COLUMNS = ("boot", "started", "ended", "answer", "sentence", "blamed", "orders")


def export(base, folder):
    """Writes results.jsonl, an object a case with its boots, and results.csv, a line a boot."""
    with open(os.path.join(folder, "results.jsonl"), "w", encoding="utf-8") as lines, \
            open(os.path.join(folder, "results.csv"), "w", encoding="utf-8", newline="") as table:
        rows = csv.writer(table)
        rows.writerow(("case", "state", *BOOT_COLUMNS, "doubts"))
        for number, *values in base.execute(f"SELECT id, {', '.join(CASE_COLUMNS)} FROM cases ORDER BY id"):
            case = dict(zip(CASE_COLUMNS, values))
            case["differences"] = json.loads(case["differences"] or "[]")
            case["boots"] = list(boots_of(base, number))
            lines.write(json.dumps(case, ensure_ascii=False) + "\n")
            for boot in case["boots"]:
                rows.writerow((case["name"], case["state"], *(boot[name] for name in BOOT_COLUMNS[:-1]),
                               "; ".join(boot["orders"]), "; ".join(boot["doubts"])))
            if not case["boots"]:
                rows.writerow((case["name"], case["state"]))


def boots_of(base, number):
    doubts = {}
    for boot, doubt in base.execute("SELECT boot, doubt FROM doubts WHERE case_id = ?", (number,)):
        doubts.setdefault(boot, []).append(doubt)
    for values in base.execute(f"SELECT {', '.join(BOOT_COLUMNS)} FROM boots WHERE case_id = ? ORDER BY boot",
                               (number,)):
        boot = dict(zip(BOOT_COLUMNS, values))
        yield dict(boot, orders=json.loads(boot["orders"]), doubts=doubts.get(boot["boot"], []))

"""The page of a run: totals, rankings and a table of all cases, which the browser pages, sorts and filters."""
import collections
import json
import os
import re
import subprocess
import sys

import results

FILE = "index.html"
STATES = ("answered", "unreadable", "failed", "open")
OPTIONS = {"events": "--events", "time_zone": "--time-zone", "products_file": "--products"}
LISTS = {"dumps": "--dump", "registries": "--registry"}


class Index(dict):
    """Texts and their numbers, in the order in which they were first needed."""

    def __missing__(self, text):
        return self.setdefault(text, len(self))


def kind_of(doubt):
    """A doubt without its file, record and code numbers: so that equal ones can be counted."""
    return re.sub(r"0x[0-9a-fA-F]+|\d+", "N", doubt)


def by_case(base, query, number_of):
    found = collections.defaultdict(set)
    for case, text in base.execute(query):
        found[case].add(number_of(text))
    return found


def data_of(base):
    """What the page shows. A case is a row: name, state, answer, blamed modules, doubts, milliseconds,
    and a text when it failed or differs from the truth; numbers are places in the lists of texts."""
    answers, modules, doubts = Index(), Index(), Index()
    blamed = by_case(base, "SELECT DISTINCT case_id, blamed FROM boots WHERE blamed NOT NULL", modules.__getitem__)
    doubted = by_case(base, "SELECT case_id, doubt FROM doubts", lambda doubt: doubts[kind_of(doubt)])
    cases = []
    for number, name, state, answer, seconds, error, different in base.execute(
            "SELECT id, name, state, answer, seconds, error, differences FROM cases ORDER BY id"):
        row = [name, STATES.index(state), -1 if answer is None else answers[answer],
               sorted(blamed.get(number, ())), sorted(doubted.get(number, ())), round(1000 * (seconds or 0))]
        if error or different:
            row.append(error or "differs from the truth: " + "; ".join(json.loads(different)))
        cases.append(row)
    return {"states": STATES, "answers": list(answers), "modules": list(modules), "doubts": list(doubts),
            "cases": cases, "run": dict(base.execute("SELECT name, value FROM run"))}


def write(base, folder):
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "page.html"), encoding="utf-8") as file:
        before, after = file.read().split("@data@")
    data = dict(data_of(base), folder=os.path.abspath(folder))
    text = json.dumps(data, ensure_ascii=False, separators=(",", ":")).replace("</", "<\\/")
    with open(os.path.join(folder, FILE), "w", encoding="utf-8") as file:
        file.write(before + text + after)


def replay_arguments(request):
    yield from [request["source"]] if "source" in request else []
    for member, option in OPTIONS.items():
        if member in request:
            yield from (option, request[member])
    for member, option in LISTS.items():
        for file in request.get(member, ()):
            yield from (option, file)
    for name, product in request.get("products", {}).items():
        yield "--product"
        yield (f"{name}:{','.join(product['modules'])}:{product.get('count', 3)}:"
               f"{product.get('status', 'working')}")


def write_case(options):
    """Writes the page of one case, which the link in the table opens."""
    with results.connect(options.out) as base:
        row = base.execute("SELECT id, request FROM cases WHERE name = ?", (options.page,)).fetchone()
    if row is None:
        raise results.BadFolder(f"{options.out}: contains no case '{options.page}'")
    folder = os.path.join(options.out, "pages")
    os.makedirs(folder, exist_ok=True)
    path = os.path.join(folder, f"{row[0]}.html")
    done = subprocess.run([*options.program, "replay", *replay_arguments(json.loads(row[1])), "--plugin",
                           options.plugin, "--html", os.path.abspath(path)], stdout=subprocess.DEVNULL)
    if done.returncode == 0:
        sys.stdout.write(f"page: {path}\n")
    return done.returncode

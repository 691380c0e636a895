"""Named faults: one for each rule of the plug-in, with the test that has to fail.

named.json has one object a fault:
  "rule"   the rule that the fault breaks, as a sentence
  "file"   the source; when the text has moved, the one source that contains it
  "from"   text that occurs there once; a run of blanks and line feeds equals one blank
  "to"     its replacement
  "fails"  the scenario "NAME.json" or the unit test "SUITE.NAME" that has to fail
"""
import datetime
import json
import pathlib
import random
import re

ROWS = pathlib.Path(__file__).resolve().parent / "named.json"
MEMBERS = ["rule", "file", "from", "to", "fails"]


class Named:
    """One named fault."""

    def __init__(self, row):
        self.rule, self.file, self.old, self.new, self.test = (row[name] for name in MEMBERS)

    def __str__(self):
        return f"{self.file}: {self.rule}"

    def place(self, files):
        """Returns the source that has the text once, and the match; None without one."""
        find = re.compile(r"\s+".join(re.escape(word) for word in self.old.split()))
        found = [(name, match) for name, text in files.items() for match in find.finditer(text)]
        found = [one for one in found if one[0] == self.file] or found
        return found[0] if len(found) == 1 else None

    def changes(self, files):
        """Returns the change as runner.Fault has it. Other lines keep their number for the log."""
        name, match = self.place(files)
        lines = match.group().count("\n") - self.new.count("\n")
        return {name: lambda text: text[:match.start()] + self.new + "\n" * lines +
                text[match.end():]}


def read():
    return [Named(row) for row in json.loads(ROWS.read_text())]


def problems(files, scenarios, unit_tests):
    """Returns what is wrong with the rows. unit_tests: the text of their sources."""
    rows = json.loads(ROWS.read_text())
    found = [f"members are not {MEMBERS}: {row}" for row in rows if list(row) != MEMBERS]
    if found:
        return found
    rules = [row["rule"] for row in rows]
    found += [f"twice: {rule}" for rule in sorted(set(rules)) if rules.count(rule) > 1]
    for one in map(Named, rows):
        suite, _, name = one.test.partition(".")
        if one.place(files) is None:
            found.append(f"{one}: no source, or more than one place, has: {one.old}")
        if name == "json" and one.test not in scenarios:
            found.append(f"{one}: there is no scenario {one.test}")
        if name != "json" and not re.search(rf"TEST\({suite}, {name}\)", unit_tests):
            found.append(f"{one}: there is no unit test {one.test}")
    return found


def shuffled(seed):
    """Returns the seed, by default today, and all faults in its order."""
    seed = seed or datetime.date.today().isoformat()
    rows = read()
    random.Random(seed).shuffle(rows)
    return seed, rows

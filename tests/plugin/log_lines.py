#!/usr/bin/env python3
"""The list of the plug-in's log lines: made from its sources, and compared with docs/log_lines.md;
behaviour.py compares it with the lines that runs print.

usage: log_lines.py PROJECT_FOLDER --write    writes docs/log_lines.md
       log_lines.py PROJECT_FOLDER            compares sources and document
"""
import collections
import dataclasses
import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "mutants"))
import lexer  # noqa: E402

PLUGINS = "oxni_sys/plugins"
DOCUMENT = "docs/log_lines.md"
INTRODUCTION = """# Log lines

Every line that the plug-in can write into the agent's log, by source file; texts are fixed, so \
search for them as they are shown here.

A line is `[time] [level] [pid:PROCESS] [tid:THREAD] [vkl] [FILE:LINE] text`. In a text `%d`, `%u`, \
`%I64d` and `%llu` stand for a number, `%x` and `%08x` for a hexadecimal one, `%p` for an address, \
`%s` and `%S` for a text; a text that is `%s` alone is a message as JSON on one line. `\\n` is a line \
feed within a text, and a text may end with a blank. The log's level decides which lines are \
written: `fatal` and `error` always, `warn` from level 1 on, `info` from 2 on, `debug` from 3 on. \
"places" is the number of places in the file that write the line.

This file is made from the sources: `tests/plugin/log_lines.py . --write`.
"""
LINE = re.compile(r"\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] \[(\w+)\] \[pid:\d+\] \[tid:\d+\] \[vkl\] "
                  r"\[([^:\]]+):(\d+)\] (.*?)\n?", re.S)
STATEMENT = re.compile(r"LOG_(ERROR|WARN|INFO|DEBUG)(_JSON)?$")
CONVERSIONS = {"%d": r"-?\d+", "%u": r"\d+", "%I64d": r"-?\d+", "%llu": r"\d+", "%x": r"[0-9a-f]+",
               "%08x": r"[0-9a-f]{8}", "%p": r"[0-9a-fA-F]+", "%s": ".*", "%S": ".*"}
ESCAPES = {"\\n": "\n", '\\"': '"', "\\\\": "\\"}


class Failed(Exception):
    """What cannot be read, with its message."""


@dataclasses.dataclass(frozen=True, order=True)
class Row:
    file: str
    level: str
    text: str  # as in the source: a line feed is \\n

    def pattern(self):
        """Returns the expression that a line's text has to match as a whole."""
        if self.text == "%s":
            return re.compile(r"[\[{].*[\]}]", re.S)
        parts = re.split(r"(%(?:08x|I64d|llu|[duxpsS]))", self.text)
        return re.compile("".join(CONVERSIONS[part] if part in CONVERSIONS else
                                  re.escape(unescaped(part)) for part in parts), re.S)


def unescaped(text):
    return re.sub(r'\\[n"\\]', lambda match: ESCAPES[match.group()], text)


def macros_of(sources):
    """Returns the texts that macros of the sources stand for."""
    return dict(re.findall(r'^#\s*define\s+(\w+)\s+"((?:[^"\\]|\\.)*)"', "\n".join(sources), re.M))


def first_argument(tokens, macros):
    """Returns the text of a call's first argument; tokens follow the opening parenthesis."""
    text = ""
    for token in tokens:
        if token.text in (",", ")"):
            return text
        if token.kind == "text":
            text += token.text[1:-1]
        elif token.text in macros:
            text += macros[token.text]
        else:
            raise Failed(f"the format of a log statement has no text for {token.text}")
    return text


def statement_rows(name, source, macros):
    """Yields the log statements of a file: row, first and last line."""
    tokens = lexer.tokens_of(source)
    for at, token in enumerate(tokens[:-1]):
        match = STATEMENT.match(token.text)
        if tokens[at + 1].text != "(" or not (match or token.text == "GUARD_ALLOCATION"):
            continue
        level, text = "fatal", "Out of memory"  # the platform's, for a line of this file
        if match:
            level = match.group(1).lower()
            text = "%s" if match.group(2) else first_argument(tokens[at + 2:], macros)
        depth, end = 0, at + 1
        while depth or end == at + 1:
            depth += (tokens[end].text == "(") - (tokens[end].text == ")")
            end += 1
        yield (Row(name, level, text), source.count("\n", 0, token.start) + 1,
               source.count("\n", 0, tokens[end - 1].start) + 1)


def statements_of(files):
    """Returns the log statements of sources by path: (row, first line, last line)."""
    macros = macros_of(files.values())
    return [statement for path, source in sorted(files.items())
            for statement in statement_rows(pathlib.Path(path).name, source, macros)]


def sources_of(root):
    folder = pathlib.Path(root) / PLUGINS
    return {str(path.relative_to(folder)): path.read_text()
            for path in sorted(folder.rglob("*")) if path.suffix in (".cpp", ".h")}


def places_of(statements):
    """Returns how many statements each row has."""
    return collections.Counter(row for row, _, _ in statements)


def document_of(places):
    lines = [INTRODUCTION]
    for file in sorted({row.file for row in places}):
        lines += [f"## {file}", "", "| level | places | text |", "| --- | --- | --- |"]
        lines += [f"| {row.level} | {places[row]} | `{row.text.replace('|', chr(92) + '|')}` |"
                  for row in sorted(places) if row.file == file]
        lines.append("")
    return "\n".join(lines)


def rows_of_document(text):
    """Returns the rows of the document with their number of places."""
    places, file = collections.Counter(), ""
    for line in text.splitlines():
        if line.startswith("## "):
            file = line[3:]
        match = re.fullmatch(r"\| (\w+) \| (\d+) \| `(.*)` \|", line)
        if match:
            level, count, line_text = match.groups()
            places[Row(file, level, line_text.replace("\\|", "|"))] = int(count)
    return places


def differences(statements, listed):
    """Returns what differs between the log statements and the rows of the document."""
    places = places_of(statements)
    return [f"{DOCUMENT}: {row.file}: {row.level}: {row.text}: {listed[row]} places, "
            f"expected {places[row]}"
            for row in sorted(places | listed) if places[row] != listed[row]]


class Checker:
    """Compares printed lines with the log statements they come from."""

    def __init__(self, statements):
        self.at = {}
        for row, first, last in statements:
            for line in range(first, last + 1):
                self.at.setdefault((row.file, line), []).append((row, row.pattern()))
        self.printed = set()

    def problem(self, text):
        """Returns what is wrong with a printed line; empty when nothing is."""
        match = LINE.fullmatch(text)
        if match is None:
            return f"not of the form of a log line: {text}"
        level, file, line, message = match.groups()
        known = [row for row, pattern in self.at.get((file, int(line)), [])
                 if row.level == level and pattern.fullmatch(message)]
        self.printed.update(known)
        return "" if known else f"no log statement there has this level and text: {text}"


def run_problems(root, happenings):
    """Compares the lines of a run at all levels with the sources; returns the problems."""
    statements = statements_of(sources_of(root))
    checker, rows = Checker(statements), set(places_of(statements))
    lines = [what["text"] for what in happenings if what["kind"] == "log"]
    problems = [problem for problem in map(checker.problem, lines) if problem]
    print(f"{len(lines)} lines printed; of {len(rows)} rows {len(rows - checker.printed)} are never printed")
    return problems if lines else ["no line was printed"]


def main(root, *command):
    document = pathlib.Path(root) / DOCUMENT
    statements = statements_of(sources_of(root))
    if command == ("--write",):
        document.write_text(document_of(places_of(statements)))
        return 0
    listed = rows_of_document(document.read_text() if document.exists() else "")
    problems = differences(statements, listed)
    for problem in problems[:20]:
        print("FAILED:", problem)
    if problems:
        print(f"{len(problems)} problems. After a wanted change: "
              "tests/plugin/log_lines.py . --write")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))

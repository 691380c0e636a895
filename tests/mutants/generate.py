"""Makes mutants of sources, and finds a mutant again after the sources around it have changed.

A mutant's identity has no line number. It consists of file, function, operator, the statement's
text with one blank between tokens, its number among equal statements of the function, the index of
the token in it, the original text and the replacement. "after", the previous statement,
distinguishes equal statements after a function was renamed.
"""
import dataclasses
import random
import re

import lexer

RELATIONAL = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"),
              "==": ("!=",), "!=": ("==",)}
LOGICAL = {"&&": ("||",), "||": ("&&",)}
ARITHMETIC = {"+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",), "%": ("*",), "<<": (">>",),
              ">>": ("<<",), "&": ("|",), "|": ("&",), "^": ("&",), "+=": ("-=",), "-=": ("+=",),
              "*=": ("/=",), "/=": ("*=",), "|=": ("&=",), "&=": ("|=",), "^=": ("&=",),
              "<<=": (">>=",), ">>=": ("<<=",), "++": ("--",), "--": ("++",)}
LEVELS = {"ERROR": "WARN", "WARN": "ERROR", "INFO": "DEBUG", "DEBUG": "INFO"}
LEVEL = re.compile(r"LOG_(ERROR|WARN|INFO|DEBUG)(_\w+)?$")
INTEGER = re.compile(r"(0[xX][0-9a-fA-F]+|0[bB][01]+|[0-9]+)([uUlLzZ]*)$")
JUMPS = {"return", "break", "continue", "goto", "throw", "case", "default"}
IDENTITY = ("file", "function", "operator", "statement", "occurrence", "at", "original",
            "replacement", "after")


@dataclasses.dataclass(frozen=True)
class Mutant:
    """start, end  the part of the file's text that is replaced; line: for messages only."""
    file: str
    function: str
    operator: str
    statement: str
    occurrence: int
    at: int
    original: str
    replacement: str
    after: str
    start: int = 0
    end: int = 0
    line: int = 0

    @property
    def identity(self):
        return {name: getattr(self, name) for name in IDENTITY}

    @property
    def key(self):
        return tuple(self.identity[name] for name in IDENTITY if name != "after")

    def apply(self, text):
        """Returns the file's text with the fault. Other lines keep their number for the log."""
        lines = text.count("\n", self.start, self.end) - self.replacement.count("\n")
        return text[:self.start] + self.replacement + "\n" * lines + text[self.end:]

    def __str__(self):
        where = f" in {self.function}" if self.function else ""
        return (f"{self.file}:{self.line}{where}: {self.operator}: "
                f"{short(self.original)} -> {short(self.replacement) or 'nothing'}"
                + (f"  ({short(self.statement)})" if self.statement != self.original else ""))


def short(text, most=70):
    text = " ".join(text.split())
    return text if len(text) <= most else text[:most - 3] + "..."


def neighbours_of_integer(text):
    """Returns the literals one above and one below, in the same base."""
    match = INTEGER.match(text.replace("'", ""))
    if match is None:
        return ()
    digits, suffix = match.groups()
    value = int(digits, 0 if digits[:2].lower() in ("0x", "0b") else 8 if len(digits) > 1
                and digits[0] == "0" else 10)
    form = "0x{:X}" if digits[:2].lower() == "0x" else "{}"
    return form.format(value + 1) + suffix, form.format(value - 1) + suffix if value else "-1"


def on_tokens(unit):
    """Yields faults of single tokens: operator, index of the token, replacement."""
    tokens = unit.tokens
    for index, token in enumerate(tokens):
        before = tokens[index - 1].text if index else ""
        for kind, table in (("relational", RELATIONAL), ("logical", LOGICAL),
                            ("arithmetic", ARITHMETIC)):
            # Without blanks it is unary, or belongs to a type or a template.
            if token.text in table and (token.spaced or token.text in ("++", "--")):
                yield from ((kind, index, new) for new in table[token.text])
        if token.text == "!" and token.kind == "operator":
            yield "negation", index, ""
        if token.kind == "number" and not sizes_an_array(unit, index) and \
                not (before == "(" and index > 1 and tokens[index - 2].text == "while"):
            yield from (("constant", index, new) for new in neighbours_of_integer(token.text))
        if token.text in ("true", "false"):
            yield "constant", index, "false" if token.text == "true" else "true"
        level = LEVEL.match(token.text)
        if level and unit.kind != "macro":
            yield "level", index, f"LOG_{LEVELS[level.group(1)]}{level.group(2) or ''}"


def sizes_an_array(unit, index):
    return index > 2 and unit.tokens[index - 1].text == "[" and is_declaration(unit)


def is_declaration(unit):
    """Returns whether a statement begins with a type and a name."""
    words = [token.text for token in unit.tokens]
    if not words or unit.tokens[0].kind != "word" or words[0] in JUMPS or unit.kind != "statement":
        return False
    if words[0] in ("const", "static", "auto", "struct", "enum", "unsigned", "constexpr"):
        return True
    at = 1
    while at + 1 < len(words) and words[at] == "::":
        at += 2
    if at < len(words) and words[at] == "<":
        return ">" in words[at:] and unit.tokens[at].spaced is False
    # "type name", "type *name", "type &name": only an expression has blanks on both sides.
    return at < len(words) and (unit.tokens[at].kind == "word" or words[at] in "*&" and
                                not unit.tokens[at].spaced)


def plain_call(unit):
    """Returns whether a statement only calls, with or without (void)."""
    words = [token.text for token in unit.tokens]
    if unit.kind != "statement" or words[:1] == ["delete"]:
        return unit.kind == "statement"
    if words[:3] == ["(", "void", ")"]:
        words = words[3:]
    if len(words) < 4 or words[-2:] != [")", ";"] or not re.match(r"[A-Za-z_]", words[0]) or \
            words[0] in JUMPS or is_declaration(unit):
        return False
    depth = 0
    for word in words[:-1]:
        if depth == 0 and not re.match(r"(\w+|::|\.|->|[()\[\]<>])$", word):
            return False
        depth += (word in "([") - (word in ")]")
    return True


def assignment(unit):
    if unit.kind != "statement" or is_declaration(unit) or unit.tokens[0].text in JUMPS:
        return False
    depth = 0
    for token in unit.tokens:
        if depth == 0 and token.text in ("=", "+=", "-=", "|=", "&=", "*=", "/=", "++", "--"):
            return True
        depth += (token.text in "([{") - (token.text in ")]}")
    return False


def has_operator(tokens):
    return any(token.spaced and token.text in {**RELATIONAL, **LOGICAL} for token in tokens)


def on_condition(unit):
    """Negates a condition that has no operator to mutate."""
    tokens = unit.tokens[2:-1]
    if unit.kind == "header" and unit.tokens[0].text in ("if", "while") and tokens and \
            tokens[0].text != "!" and not has_operator(tokens):
        yield "negation", 2, len(unit.tokens) - 2, "!({})"


def on_return(unit):
    tokens = unit.tokens
    if unit.kind != "statement" or tokens[0].text != "return":
        return
    value = tokens[1:-1]
    if not value:
        yield "return", 0, 0, ""
        return
    if re.search(r"\bbool$", unit.result):
        if value[0].text not in ("true", "false", "!") and not has_operator(value):
            yield "return", 1, len(tokens) - 2, "!({})"
        return
    if len(value) == 1 and re.match(r"(?!NULL$)[A-Z][A-Z0-9_]+$", value[0].text):
        yield "return", 1, 1, "{} + 1"
    if not (len(value) == 1 and (value[0].kind == "number" or value[0].text in ("NULL", "nullptr"))
            or [token.text for token in value] == ["{", "}"]
            or len(value) == 2 and value[0].text == "-" and value[1].kind == "number"):
        yield "return", 1, len(tokens) - 2, "{{}}"


def swappable(first, second):
    """Returns whether two statements of one block can change places with an effect. One of them
    must be a call: two assignments give the same in either order."""
    return first.block == second.block and first.text != second.text and \
        all(plain_call(unit) or assignment(unit) for unit in (first, second)) and \
        (plain_call(first) or plain_call(second))


def faults_of(units):
    """Yields all faults: unit, operator, first and last token, and their replacement, in which {}
    is the original text. A swap replaces two units."""
    for number, unit in enumerate(units):
        for kind, index, new in on_tokens(unit):
            yield unit, kind, unit.tokens[index], unit.tokens[index], new
        if unit.kind not in ("statement", "header") or not unit.function:
            continue
        for kind, first, last, new in (*on_condition(unit), *on_return(unit)):
            yield unit, kind, unit.tokens[first], unit.tokens[last], new
        if plain_call(unit) or assignment(unit):
            yield unit, "remove", unit.tokens[0], unit.tokens[-2], ""
        # A control statement between them has units of other blocks, which are next in the list.
        if number + 1 < len(units) and swappable(unit, units[number + 1]):
            yield unit, "swap", unit.tokens[0], units[number + 1].tokens[-1], None


def swapped(text, unit, other):
    """Returns both statements in the other order; the text between them stays."""
    first, second = ((one.tokens[0].start, one.tokens[-1].end) for one in (unit, other))
    return text[slice(*second)] + text[first[1]:second[0]] + text[slice(*first)]


def mutants_of(file, text):
    """Returns all mutants of one file's text."""
    units = lexer.units_of(text)
    seen, occurrence, before = {}, {}, {}
    last = None
    for unit in units:
        key = (unit.function, unit.text)
        occurrence[unit] = seen.get(key, 0)
        seen[key] = occurrence[unit] + 1
        before[unit] = last.text if last is not None and last.function == unit.function else ""
        last = unit
    found = {}
    for unit, kind, first, end, new in faults_of(units):
        original = text[first.start:end.end]
        if kind == "swap":
            new = swapped(text, unit, units[units.index(unit) + 1])
        elif "{" in new:
            new = new.format(original)
        mutant = Mutant(file, unit.function, kind, unit.text, occurrence[unit],
                        unit.tokens.index(first), normal(original), new, before[unit],
                        first.start, end.end, text.count("\n", 0, first.start) + 1)
        found.setdefault(mutant.key, mutant)
    return sorted(found.values(), key=lambda mutant: (mutant.start, mutant.end, mutant.operator))


def normal(text):
    return " ".join(token.text for token in lexer.tokens_of(text))


def sample(mutants, seed):
    """Returns the mutants in an order whose every prefix is spread over all files in proportion."""
    by_file = {}
    for mutant in mutants:
        by_file.setdefault(mutant.file, []).append(mutant)
    ranked = []
    for file, own in sorted(by_file.items()):
        random.Random(f"{seed} {file}").shuffle(own)
        ranked += [((place + 0.5) / len(own), file, place, one) for place, one in enumerate(own)]
    return [row[3] for row in sorted(ranked, key=lambda row: row[:3])]


class Finder:
    """Finds mutants by their identity: in the same function of the same file, then in that function
    in another file, then anywhere if exactly one fits."""

    def __init__(self, mutants):
        self.same, self.elsewhere, self.anywhere = {}, {}, {}
        for one in mutants:
            fault = self.fault(one.identity)
            self.same[(one.file, one.function, one.occurrence, *fault)] = one
            self.elsewhere.setdefault((one.function, one.occurrence, *fault), []).append(one)
            self.anywhere.setdefault(fault, []).append(one)

    @staticmethod
    def fault(identity):
        return tuple(identity[name] for name in ("operator", "statement", "at")) + \
            (normal(identity["replacement"]),)

    def find(self, identity):
        """Returns the mutant, or None when it no longer applies."""
        fault = self.fault(identity)
        place = (identity["function"], identity["occurrence"], *fault)
        exact = self.same.get((identity["file"], *place))
        if exact is not None:
            return exact
        found = self.elsewhere.get(place, []) if identity["function"] else []
        if len(found) != 1:
            found = self.anywhere.get(fault, [])
        if len(found) > 1:
            found = [one for one in found if one.after == identity["after"]]
        return found[0] if len(found) == 1 else None

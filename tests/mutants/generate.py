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
# Of statements as they are laid out, without what is inside of brackets.
DECLARATION = re.compile(r"(?!return|delete|throw|goto)(?:(?:const|static|auto|struct|enum|unsigned"
                         r"|constexpr)\b|[\w:]+(?:<.*?>)? [*&]*\w)")
CALL = re.compile(r"(?!return|throw)(?:\(\))?[A-Za-z_](?:[\w.<>()[\]]|::|->)*\(\);|delete\b.*", re.S)
ASSIGNMENT = re.compile(r"(?!return|throw)[^=]*?(?: [-+*/|&]?= |\+\+|--)")
COMPARING = {**RELATIONAL, **LOGICAL}
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
        if token.kind == "number" and not (before == "[" and is_declaration(unit)) and \
                lexer.joined(tokens[max(0, index - 2):index]) != "while (":
            yield from (("constant", index, new) for new in neighbours_of_integer(token.text))
        if token.text in ("true", "false"):
            yield "constant", index, "false" if token.text == "true" else "true"
        level = LEVEL.match(token.text)
        if level and unit.kind != "macro":
            yield "level", index, f"LOG_{LEVELS[level.group(1)]}{level.group(2) or ''}"


def is_declaration(unit):
    """Returns whether a statement begins with a type and a name."""
    return unit.kind == "statement" and DECLARATION.match(unit.outline) is not None


def is_call(unit):
    """Returns whether a statement only calls, with or without (void)."""
    return unit.kind == "statement" and not is_declaration(unit) and \
        CALL.fullmatch(unit.outline) is not None


def is_assignment(unit):
    return unit.kind == "statement" and not is_declaration(unit) and \
        ASSIGNMENT.match(unit.outline) is not None


def is_effect(unit):
    return is_call(unit) or is_assignment(unit)


def has_operator(tokens):
    return any(token.spaced and token.text in COMPARING for token in tokens)


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
        is_effect(first) and is_effect(second) and (is_call(first) or is_call(second))


def faults_of(units):
    """Yields all faults: a unit's number, the operator, first and last token, and their replacement,
    in which {} is the original text. A swap replaces two units."""
    for number, unit in enumerate(units):
        tokens = unit.tokens
        for kind, index, new in on_tokens(unit):
            yield number, kind, tokens[index], tokens[index], new
        if unit.kind not in ("statement", "header") or not unit.function:
            continue
        for kind, first, last, new in (*on_condition(unit), *on_return(unit)):
            yield number, kind, tokens[first], tokens[last], new
        if is_effect(unit):
            yield number, "remove", tokens[0], tokens[-2], ""
        # A control statement between them has units of other blocks, which are next in the list.
        if number + 1 < len(units) and swappable(unit, units[number + 1]):
            yield number, "swap", tokens[0], units[number + 1].tokens[-1], ""


def mutants_of(file, text):
    """Returns all mutants of one file's text."""
    units = lexer.units_of(text)
    statements = [(unit.function, unit.text) for unit in units]
    found = {}
    for number, operator, first, last, new in faults_of(units):
        unit, after = units[number], units[number - 1] if number else None
        original = text[first.start:last.end]
        if operator == "swap":  # the text between them stays
            end, begin = unit.tokens[-1].end, units[number + 1].tokens[0].start
            new = text[begin:last.end] + text[end:begin] + text[first.start:end]
        elif "{" in new:
            new = new.format(original)
        mutant = Mutant(
            file, unit.function, operator, unit.text,
            statements[:number].count(statements[number]), unit.tokens.index(first),
            normal(original), new, after.text if after and after.function == unit.function else "",
            first.start, last.end, text.count("\n", 0, first.start) + 1)
        found.setdefault(mutant.key, mutant)
    return sorted(found.values(), key=lambda mutant: (mutant.start, mutant.end, mutant.operator))


def normal(text):
    return lexer.joined(lexer.tokens_of(text))


def sample(mutants, seed):
    """Returns the mutants in an order whose every prefix is spread over all files in proportion."""
    ranked = []
    for file in sorted({one.file for one in mutants}):
        own = [one for one in mutants if one.file == file]
        random.Random(f"{seed} {file}").shuffle(own)
        ranked += [((place + 0.5) / len(own), one) for place, one in enumerate(own)]
    return [one for _, one in sorted(ranked, key=lambda row: row[0])]


class Finder:
    """Finds mutants by their identity: in the same function of the same file, then in that function
    in another file, then anywhere if exactly one fits."""

    def __init__(self, mutants):
        self.places = {}
        for one in mutants:
            for place in self.places_of(one.identity):
                self.places.setdefault(place, []).append(one)

    @staticmethod
    def places_of(identity):
        fault = (*(identity[name] for name in ("operator", "statement", "at")),
                 normal(identity["replacement"]))
        function = (identity["function"], identity["occurrence"], fault)
        return (identity["file"], function), function if identity["function"] else (), fault

    def find(self, identity):
        """Returns the mutant, or None when it no longer applies."""
        found = []
        for place in self.places_of(identity):
            found = self.places.get(place, []) if place else []
            if len(found) == 1:
                return found[0]
        found = [one for one in found if one.after == identity["after"]]
        return found[0] if len(found) == 1 else None

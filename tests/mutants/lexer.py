"""Splits C++ text into tokens and into the units that mutants are made of: statements, headers of
control statements, rows of tables, macros.

A full parser is not necessary because clang-format settles the layout of the sources: an operator
with a blank on both sides is binary, and a '<' without them belongs to a template.
"""
import dataclasses
import re

TOKEN = re.compile(r"""
    (?P<blank>[ \t\n]+|\\\n)
  | (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:\\\n|/\*.*?\*/|//[^\n]*|[^\n])*)
  | (?P<raw>(?:u8|[uUL])?R"(?P<mark>[^()\s]*)\(.*?\)(?P=mark)")
  | (?P<text>(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
  | (?P<char>(?:u8|[uUL])?'(?:\\.|[^'\\\n])*')
  | (?P<number>\.?[0-9](?:'?[0-9A-Za-z_.]|(?<=[eEpP])[+-])*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<operator><<=|>>=|\.\.\.|->\*|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|\#\#|.)
""", re.S | re.X | re.M)
DEFINE = re.compile(r"\s*#[ \t]*define[ \t]+\w+(\([^)]*\))?")
FUNCTION = re.compile(r"(.*?)((?:\w+ :: )*(?:operator (?:\( \)|[^(]+?)|\w+)) \(")
ATTRIBUTE = re.compile(r"__attribute__ \( \(.*?\) \) ")
NOT_CODE = ("static_assert", "typedef", "using")
CLOSING = {"(": ")", "[": "]", "{": "}"}


@dataclasses.dataclass(frozen=True)
class Token:
    """spaced: whether it has blanks on both sides."""
    kind: str
    text: str
    start: int
    end: int
    spaced: bool = False


def tokens_of(text, start=0, end=None):
    """Returns the tokens without comments and blanks; a directive is one token."""
    found = []
    for match in TOKEN.finditer(text, start, len(text) if end is None else end):
        kind = "raw" if match["raw"] else match.lastgroup
        if kind not in ("blank", "comment"):
            around = text[match.start() - 1:match.start()] + text[match.end():match.end() + 1]
            found.append(Token(kind, match.group(), match.start(), match.end(),
                               len(around) == 2 and not around.strip()))
    return found


def joined(tokens):
    return " ".join(token.text for token in tokens)


@dataclasses.dataclass(eq=False)
class Unit:
    """Tokens that are mutated together. Nested rows and bodies of lambdas are units of their own;
    the outer unit contains "{}" for them.

    kind      "statement", "header", "row" or "macro"
    function  name, with its class; "" outside of functions
    result    the function's result type, as its declaration begins
    """
    kind: str
    function: str
    result: str
    block: int
    tokens: list

    @property
    def text(self):
        return joined(self.tokens)

    @property
    def outline(self):
        """The text as it is laid out, with nothing inside of brackets."""
        text, depth, last = "", 0, self.tokens[0]
        for token in self.tokens:
            depth -= token.text in CLOSING.values()
            if depth == 0:
                text += " " * (token.start > last.end) + token.text
            depth += token.text in CLOSING
            last = token
        return text


class Parser:
    """Finds the units of one file."""

    def __init__(self, text):
        self.tokens, self.units, self.blocks = [], [], 0
        for token in tokens_of(text):
            if token.kind == "directive":
                self.macro(text, token)
            else:
                self.tokens.append(token)
        self.closing, opened = {}, []  # places of brackets, from the opening to the closing one
        for at, token in enumerate(self.tokens):
            if token.text in CLOSING:
                opened.append(at)
            elif token.text in CLOSING.values():
                self.closing[opened.pop()] = at
        self.declarations(0, len(self.tokens), "")

    def is_at(self, at, *texts):
        return at < len(self.tokens) and self.tokens[at].text in texts

    def find(self, at, *texts):
        """Returns the place of the next of some tokens outside of brackets."""
        while not self.is_at(at, *texts) or self.is_at(at - 1, "operator"):
            at = self.closing.get(at, at) + 1
        return at

    def new_block(self):
        self.blocks += 1
        return self.blocks

    def macro(self, source, directive):
        """Adds the body of a macro. Its name and parameters are the first token."""
        head = DEFINE.match(directive.text)
        body = head and tokens_of(source, directive.start + head.end(), directive.end)
        if body:
            name = " ".join(head.group().split())
            self.units.append(Unit("macro", "", "", self.new_block(), [
                Token("word", name, directive.start, directive.start + len(name)), *body]))

    def declarations(self, at, end, prefix):
        """Reads what a namespace, a class or the file contains."""
        while at < end:
            at = self.declaration(at, prefix)

    def declaration(self, at, prefix):
        """Reads a declaration and returns the place after it."""
        if self.is_at(at, "public", "private", "protected"):
            return at + 2
        if self.is_at(at, "template"):
            while not self.is_at(at - 1, ">"):
                at += 1
        stop = self.find(at, ";", "=", "{")
        head = self.tokens[at:stop]
        words = ATTRIBUTE.sub("", joined(head))
        if self.is_at(at, *NOT_CODE) or self.is_at(stop, ";"):
            return self.find(at, ";") + 1
        if self.is_at(stop, "="):
            return self.add_statement(stop, "", "", self.new_block(), head)
        function = FUNCTION.match(words)
        if function is None and "enum" in words:
            self.enumerators(head, stop)
        elif function is None:
            name = re.search(r"\b(?:class|struct|union) (\w+)", words)
            self.declarations(stop + 1, self.closing[stop], prefix + (name[1] + "::" if name else ""))
        else:
            # Members that a constructor initialises in braces.
            while " : " in words and self.tokens[stop - 1].kind == "word":
                stop = self.find(self.closing[stop] + 1, "{")
            self.statements(stop, prefix + function[2].replace(" ", ""), function[1].strip())
        return self.closing[stop] + 1

    def enumerators(self, head, at):
        """Adds each as a unit, so that a new enumerator leaves the identity of the others alone."""
        end = self.closing[at]
        while at + 1 < end:
            stop = min(self.find(at + 1, ",", "}"), end)
            self.units.append(Unit("row", "", "", self.new_block(),
                                   head + self.tokens[at + 1:stop]))
            at = stop

    def statements(self, at, function, result):
        """Reads statements in the braces that open here."""
        block, end = self.new_block(), self.closing[at]
        at += 1
        while at < end:
            at = self.statement(at, function, result, block)

    def statement(self, at, function, result, block):
        """Reads a statement and returns the place after it."""
        if self.is_at(at, "{"):
            self.statements(at, function, result)
            return self.closing[at] + 1
        if self.is_at(at, "else", "do", "try"):
            return self.statement(at + 1, function, result, self.new_block())
        if self.is_at(at, *NOT_CODE):
            return self.find(at, ";") + 1
        if self.is_at(at, "case", "default"):
            stop = self.find(at, ":")
            self.units.append(Unit("header", function, result, block, self.tokens[at:stop]))
            return stop + 1
        if self.is_at(at, "if", "for", "while", "switch", "catch"):
            stop = self.closing[self.find(at, "(")] + 1
            self.units.append(Unit("header", function, result, block, self.tokens[at:stop]))
            if self.is_at(stop, ";"):  # the end of do ... while
                return stop + 1
            return self.statement(stop, function, result, self.new_block())
        return self.add_statement(at, function, result, block)

    def add_statement(self, at, function, result, block, head=()):
        """Adds a statement, then those of the lambdas in it. Returns the place after it."""
        end = self.find(at, ";") + 1
        unit = Unit("statement", function, result, block, list(head))
        lambdas = self.fill(unit, at, end)
        self.units.append(unit)
        for place in lambdas:
            self.statements(place, function, "auto")
        return end

    def fill(self, unit, at, end):
        """Adds tokens to a unit, and the rows in them as units. Returns the places of lambdas."""
        lambdas = []
        while at < end:
            is_lambda = self.is_at(at, "{") and self.is_at(at - 1, ")", "mutable")
            if is_lambda:
                lambdas.append(at)
            elif self.is_at(at, "{") and unit.tokens and self.is_at(at - 1, "{", ","):
                row = Unit("row", unit.function, unit.result, self.new_block(), [self.tokens[at]])
                lambdas += self.fill(row, at + 1, self.closing[at] + 1)
                self.units.append(row)
            else:
                unit.tokens.append(self.tokens[at])
                at += 1
                continue
            last = self.closing[at]
            unit.tokens.append(Token("group", "{}", self.tokens[at].start, self.tokens[last].end))
            at = last + 1
        return lambdas


def units_of(text):
    return Parser(text).units

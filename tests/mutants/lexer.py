"""Splits C++ text into tokens and into the units that mutants are made of: statements, headers of
control statements, rows of tables, macros.

A full parser is not necessary because clang-format settles the layout of the sources: an operator
with a blank on both sides is binary, and a '<' without them belongs to a template.
"""
import re

TOKEN = re.compile(r"""
    (?P<blank>[ \t\n]+|\\\n)
  | (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<raw>(?:u8|[uUL])?R"(?P<mark>[^()\s]*)\(.*?\)(?P=mark)")
  | (?P<text>(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
  | (?P<char>(?:u8|[uUL])?'(?:\\.|[^'\\\n])*')
  | (?P<number>\.?[0-9](?:'?[0-9A-Za-z_.]|(?<=[eEpP])[+-])*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<operator><<=|>>=|\.\.\.|->\*|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|\#\#|.)
""", re.S | re.X)
DIRECTIVE = re.compile(r"#[ \t]*(\w+)((?:\\\n|/\*.*?\*/|//[^\n]*|[^\n])*)", re.S)
NOT_CODE = {"static_assert", "typedef", "using"}
CLOSING = {"(": ")", "[": "]", "{": "}"}


class Token:
    """One token: its text, its place, and whether it has blanks on both sides."""

    def __init__(self, kind, text, start, spaced):
        self.kind, self.text, self.start, self.spaced = kind, text, start, spaced
        self.end = start + len(text)


class Unit:
    """Tokens that are mutated together. Nested rows and bodies of lambdas are units of their own;
    the outer unit contains "{}" for them.

    kind      "statement", "header", "row" or "macro"
    function  name, with its class; "" outside of functions
    result    the function's result type, as its declaration begins
    """

    def __init__(self, kind, function, result, block):
        self.kind, self.function, self.result, self.block = kind, function, result, block
        self.tokens = []

    @property
    def text(self):
        return " ".join(token.text for token in self.tokens)


def tokens_of(text, start=0, end=None):
    """Returns the tokens without comments and blanks; a directive is one token."""
    found = []
    end = len(text) if end is None else end
    line_start = True
    while start < end:
        directive = DIRECTIVE.match(text, start, end) if line_start else None
        if directive:
            found.append(Token("directive", directive.group(), start, False))
            start = directive.end()
            continue
        match = TOKEN.match(text, start, end)
        kind = match.lastgroup if match.lastgroup != "mark" else "raw"
        if kind == "blank":
            line_start = line_start or "\n" in match.group()
        elif kind != "comment":
            around = text[match.start() - 1:match.start()] + text[match.end():match.end() + 1]
            found.append(Token(kind, match.group(), start, len(around) == 2 and not around.strip()))
            line_start = False
        start = match.end()
    return found


class Parser:
    """Finds the units of one file."""

    def __init__(self, text):
        self.source = text
        self.tokens = []
        self.units = []
        self.blocks = 0
        for token in tokens_of(text):
            if token.kind == "directive":
                self.macro(token)
            else:
                self.tokens.append(token)
        self.at = 0
        self.scope("")

    def peek(self, ahead=0):
        at = self.at + ahead
        return self.tokens[at].text if at < len(self.tokens) else ""

    def take(self):
        self.at += 1
        return self.tokens[self.at - 1]

    def skip_group(self):
        """Skips the group that opens here and returns its tokens."""
        first = self.at
        depth = 0
        while self.at < len(self.tokens):
            text = self.take().text
            depth += (text in CLOSING) - (text in CLOSING.values())
            if depth == 0:
                break
        return self.tokens[first:self.at]

    def skip_statement(self):
        while self.at < len(self.tokens) and self.take().text != ";":
            pass

    def new_block(self):
        self.blocks += 1
        return self.blocks

    def add(self, unit):
        if unit.tokens:
            self.units.append(unit)
        return unit

    def macro(self, directive):
        """Adds the body of a macro. Its name and parameters are the first token."""
        head = re.match(r"#[ \t]*define[ \t]+\w+(\([^)]*\))?", directive.text)
        if head is None:
            return
        body = tokens_of(self.source, directive.start + head.end(), directive.end)
        if not body:
            return
        name = Token("word", " ".join(head.group().split()), directive.start, False)
        unit = Unit("macro", "", "", self.new_block())
        unit.tokens = [name, *body]
        self.add(unit)

    def scope(self, prefix):
        """Reads declarations up to the end of a namespace, a class or the file."""
        while self.at < len(self.tokens):
            if self.peek() == "}":
                self.take()
                return
            if re.match(r"(public|private|protected)$", self.peek()) and self.peek(1) == ":":
                self.at += 2
                continue
            self.declaration(prefix)

    def declaration(self, prefix):
        head = []
        parameters = None  # where those of a function open, in head
        while self.at < len(self.tokens):
            text = self.peek()
            if text == ";":
                self.take()
                return
            if text in NOT_CODE:
                self.skip_statement()
                return
            if text in ("__attribute__", "alignas", "decltype", "noexcept") and self.peek(1) == "(":
                self.take()
                self.skip_group()
            elif text == "template" and self.peek(1) == "<":
                while self.take().text != ">":
                    pass
            elif text == "operator":  # its name may look like anything
                head.append(self.take())
                while self.peek() != "(" or self.peek(1) == ")" and self.peek(2) == "(":
                    head.append(self.take())
            elif text in ("(", "["):
                if text == "(" and parameters is None:
                    parameters = len(head)
                head += self.skip_group()
            elif text == "{" and parameters is None and any(one.text == "enum" for one in head):
                self.enumerators(head)
            elif text == "=":
                unit = Unit("statement", "", "", self.new_block())
                unit.tokens = head
                self.rest_of_statement(unit)
                return
            elif text == "{":
                self.body(prefix, head, parameters)
                return
            else:
                head.append(self.take())

    def enumerators(self, head):
        """Adds each as a unit, so that a new enumerator leaves the identity of the others alone."""
        self.take()
        while self.at < len(self.tokens) and self.peek() != "}":
            unit = Unit("row", "", "", self.new_block())
            unit.tokens = [*head]
            while self.peek() not in (",", "}", ""):
                unit.tokens += self.skip_group() if self.peek() in CLOSING else [self.take()]
            if self.peek() == ",":
                self.take()
            self.add(unit)
        self.take()

    def body(self, prefix, head, parameters):
        words = [token.text for token in head]
        if parameters is None:
            self.take()
            kind = next((word for word in ("class", "struct", "union") if word in words), None)
            name = words[words.index(kind) + 1:][:1] if kind else []
            self.scope(prefix + "".join(word + "::" for word in name))
            return
        # Members that a constructor initialises in braces.
        while ":" in words and self.peek() == "{" and self.tokens[self.at - 1].kind == "word":
            self.skip_group()
            while self.peek() not in ("{", ""):
                self.take()
        first = words.index("operator") if "operator" in words else parameters - 1
        while first >= 2 and words[first - 1] == "::":
            first -= 2
        name = prefix + "".join(words[first:parameters])
        self.block(name, " ".join(words[:first]))

    def block(self, function, result):
        """Reads statements in braces."""
        block = self.new_block()
        self.take()
        while self.at < len(self.tokens) and self.peek() != "}":
            self.statement(function, result, block)
        self.take()

    def statement(self, function, result, block):
        text = self.peek()
        if text == "{":
            self.block(function, result)
        elif text in ("else", "do", "try"):
            self.take()
            self.statement(function, result, self.new_block())
        elif text in ("if", "for", "while", "switch", "catch"):
            self.control(function, result, block)
        elif text in ("case", "default"):
            unit = Unit("header", function, result, block)
            while self.peek() not in (":", ""):
                unit.tokens.append(self.take())
            self.take()
            self.add(unit)
        elif text in NOT_CODE:
            self.skip_statement()
        else:
            self.rest_of_statement(Unit("statement", function, result, block))

    def control(self, function, result, block):
        unit = Unit("header", function, result, block)
        unit.tokens.append(self.take())
        if self.peek() == "constexpr":
            unit.tokens.append(self.take())
        unit.tokens += self.skip_group()
        self.add(unit)
        if self.peek() == ";":  # the end of do ... while
            self.take()
        else:
            self.statement(function, result, self.new_block())

    def rest_of_statement(self, unit):
        """Reads up to the semicolon that ends it."""
        nested = []
        depth = 0
        while self.at < len(self.tokens):
            text = self.peek()
            before = self.tokens[self.at - 1].text if unit.tokens else ""
            if text == "{" and before in (")", "mutable"):
                nested.append((self.at, self.skip_group()))
                self.placeholder(unit, nested[-1][1])
            elif text == "{" and before in ("{", ",") and depth > 0:
                self.row(unit)
            else:
                depth += (text in CLOSING) - (text in CLOSING.values())
                unit.tokens.append(self.take())
                if text == ";" and depth <= 0:
                    break
        self.add(unit)
        self.bodies_of_lambdas(unit, nested)

    @staticmethod
    def placeholder(unit, group):
        unit.tokens.append(Token("group", "{}", group[0].start, False))
        unit.tokens[-1].end = group[-1].end

    def row(self, outer):
        """Reads a row of a table, which may nest others."""
        unit = Unit("row", outer.function, outer.result, self.new_block())
        first = self.at
        unit.tokens.append(self.take())
        while self.at < len(self.tokens) and self.peek() != "}":
            if self.peek() == "{":
                self.row(unit)
            else:
                unit.tokens.append(self.take())
        unit.tokens.append(self.take())
        self.add(unit)
        self.placeholder(outer, self.tokens[first:self.at])

    def bodies_of_lambdas(self, unit, nested):
        end = self.at
        for at, group in nested:
            self.at = at
            self.block(unit.function, "auto")
        self.at = end


def units_of(text):
    return Parser(text).units

"""What can be changed in a C++ source, one thing at a time.

The source is cut into tokens; comments, literals of text and directives of the preprocessor are left alone. It is expected to
be laid out by clang-format: an operator with two operands has a space on each side, which tells it from the brackets of a
template and from a reference.
"""

import collections
import dataclasses
import re


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str  # name, number, text, sign
    text: str
    at: int


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int  # from 1
    text: str  # of the line, without the space around it
    kind: str
    change: str  # for people and for the list of equivalent ones; one of its line in its file
    at: int
    end: int
    new: str

    def apply(self, source):
        return source[: self.at] + self.new + source[self.end :]


TOKEN = re.compile(
    r"""(?P<space>\s+|//[^\n]*|/\*.*?\*/)
      | (?P<text>(?:u8|[uUL])?R"(?P<mark>[^()\\\s]{0,16})\(.*?\)(?P=mark)"
               | (?:u8|[uUL])?"(?:[^"\\\n]|\\.)*" | (?:u8|[uUL])?'(?:[^'\\\n]|\\.)+')
      | (?P<number>(?:0[xX][0-9a-fA-F']+|0[bB][01']+|\d[\d']*(?:\.\d*)?(?:[eE][+-]?\d+)?|\.\d+)[uUlLzZfF]*)
      | (?P<name>[A-Za-z_]\w*)
      | (?P<sign><=>|<<=|>>=|\.\.\.|->\*|->|::|<<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|[-+*/%&|^]=|.)""",
    re.VERBOSE | re.DOTALL,
)
DIRECTIVE = re.compile(r"^[ \t]*#(?:[^\n\\]|\\.|\\\n)*", re.MULTILINE)

# With two operands. What stands first is at the border of a comparison, what stands second turns it round.
BETWEEN = {
    "comparison": {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"]},
    "arithmetic": {"+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"], "<<": [">>"], ">>": ["<<"], "&": ["|"],
                   "|": ["&"], "^": ["&"], "+=": ["-="], "-=": ["+="], "*=": ["/="], "/=": ["*="], "|=": ["&="],
                   "&=": ["|="], "<<=": [">>="], ">>=": ["<<="]},
    "logical": {"&&": ["||"], "||": ["&&"]},
}
FLAG = re.compile(r"[A-Z][A-Z0-9]*_[A-Z0-9_]+$")
CLOSE_ON_EXEC = re.compile(r"[A-Z]+_CLOEXEC$")
LOCK = re.compile(r"(?:[Ll]ock|(?:scoped|unique|shared)_lock|lock_guard)$")
LOCKING = re.compile(r"(?:[Ll]ock|[Uu]nlock|LockMutex|UnlockMutex|pthread_mutex_\w+)$")
FREEING = re.compile(r"(?:free\w*|\w*_free\w*|\w*_unrefp?|[Uu]nref|[Rr]elease|[Cc]lose\w*|[Rr]eset|\w*_close|\w*_discard|munmap)$")
NO_EXPRESSION = {
    "if", "else", "for", "while", "do", "switch", "case", "default", "return", "goto", "try", "catch", "using", "namespace",
    "class", "struct", "enum", "union", "template", "typename", "typedef", "static_assert", "friend", "public", "private",
    "protected", "const", "constexpr", "constinit", "static", "auto", "extern", "inline", "virtual", "explicit", "operator",
    "co_return", "throw", "asm", "thread_local", "mutable", "volatile", "unsigned", "signed", "int", "long", "short", "char",
    "bool", "double", "float", "void", "noexcept", "requires", "concept",
}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>="}
OPEN, CLOSE = "([{", ")]}"


def tokens_of(source):
    blind = DIRECTIVE.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), source)
    found = []
    for match in TOKEN.finditer(blind):
        if match.lastgroup != "space" and not match["space"]:
            kind = next(kind for kind in ("text", "number", "name", "sign") if match[kind])
            found.append(Token(kind, match[0], match.start()))
    return found


class Finder:
    """Finds the mutants of one source."""

    def __init__(self, file, source):
        self.file, self.source = file, source
        self.lines = source.split("\n")
        self.tokens = tokens_of(source)
        self.found = []

    def all(self):
        self.partners = self.match_brackets()
        for index, token in enumerate(self.tokens):
            if token.kind == "sign":
                self.operators(index, token)
            elif token.kind == "number":
                self.constant(index, token)
            elif token.kind == "name":
                self.name(index, token)
            if self.begins_statement(index):
                self.statement(index)
        return self.numbered()

    # -- Kinds.

    def operators(self, index, token):
        for kind, table in BETWEEN.items():
            if token.text in table and self.is_spaced(token):
                for new in table[token.text]:
                    self.add(kind, token.at, token.at + len(token.text), new, f"'{token.text}' to '{new}'")
        if token.text in ("++", "--"):
            new = "--" if token.text == "++" else "++"
            self.add("arithmetic", token.at, token.at + 2, new, f"'{token.text}' to '{new}'")
        elif token.text == "!" and self.text(index - 1) != "operator":
            self.add("condition", token.at, token.at + 1, "", "'!' removed")
        elif token.text == "|" and self.is_spaced(token):
            self.flag(index)

    def constant(self, index, token):
        text = token.text.replace("'", "")
        match = re.fullmatch(r"(0[xX][0-9a-fA-F]+|0[0-7]*|[1-9]\d*)([uUlLzZ]*)", text)
        if match is None:
            return
        digits, suffix = match.groups()
        if digits[:2] in ("0x", "0X"):
            value, form = int(digits, 16), "{:#x}"
        elif digits.startswith("0") and len(digits) > 1:
            value, form = int(digits, 8), "0{:o}"
        else:
            value, form = int(digits), "{}"
        for other in (value + 1, value - 1):
            if other >= 0:
                new = form.format(other) + suffix
                self.add("constant", token.at, token.at + len(token.text), new, f"{token.text} to {new}")

    def name(self, index, token):
        if token.text in ("true", "false"):
            new = "false" if token.text == "true" else "true"
            self.add("bool", token.at, token.at + len(token.text), new, f"{token.text} to {new}")
        elif token.text in ("if", "while"):
            self.condition(index)
        elif token.text == "return":
            self.status(index)
        elif CLOSE_ON_EXEC.match(token.text) and "|" not in (self.text(index - 1), self.text(index + 1)):
            self.add("flag", token.at, token.at + len(token.text), "0", f"{token.text} removed")

    def flag(self, index):
        """A name in capitals beside a '|', with it."""
        before, after = self.tokens[index - 1], self.tokens[index + 1]
        if FLAG.match(after.text) and self.text(index + 2) not in ("(", "::", "."):
            self.add("flag", before.at + len(before.text), after.at + len(after.text), "", f"{after.text} removed")
        if FLAG.match(before.text) and self.text(index - 2) not in ("|", "::", "."):
            self.add("flag", before.at, after.at, "", f"{before.text} removed")

    def condition(self, index):
        """What stands in brackets behind if or while, without what is declared in front of it."""
        opening = index + 1
        if self.text(opening) in ("constexpr", "consteval"):
            opening += 1
        closing = self.partners.get(opening)
        if self.text(opening) != "(" or closing is None:
            return
        first = opening + 1
        at = first
        while at < closing:
            if self.text(at) in OPEN:
                at = self.partners.get(at, at)
            elif self.text(at) == ";":
                first = at + 1
            at += 1
        # A condition that declares something cannot be negated.
        if first >= closing or any(self.text(at) == "=" for at in range(first, closing) if self.depth_is(first, at)):
            return
        begin, end = self.tokens[first].at, self.tokens[closing].at
        condition = self.source[begin:end].rstrip()
        self.add("condition", begin, begin + len(condition), f"!({condition})", f"{self.text(index)} negated")

    def status(self, index):
        at = index + 1
        while at < len(self.tokens) and self.text(at) != ";":
            if self.text(at) in ("{", "}"):
                return
            if self.text(at) == "StatusCode" and self.text(at + 1) == "::":
                token = self.tokens[at + 2]
                new = "Failure" if token.text == "Ok" else "Ok"
                self.add("status", token.at, token.at + len(token.text), new, f"{token.text} to {new}")
            if self.text(at) == "-" and re.fullmatch(r"E[A-Z0-9]+", self.text(at + 1)):
                token = self.tokens[at + 1]
                self.add("status", self.tokens[at].at, token.at + len(token.text), "0", f"-{token.text} to 0")
            at += 1

    def statement(self, index):
        """A statement that is an expression, or a lock that is declared; break, continue and a bare return."""
        end = index
        while end < len(self.tokens) and self.text(end) != ";":
            if self.text(end) in ("}", ")", "]"):
                return
            end = self.partners.get(end, end) + 1 if self.text(end) in OPEN else end + 1
        if end >= len(self.tokens):
            return
        parts = self.tokens[index:end]
        kind = self.kind_of_statement(index, end, parts)
        if kind is None:
            return
        begin = parts[0].at
        text = " ".join(self.source[begin : self.tokens[end].at].split())
        short = text if len(text) <= 60 else text[:57] + "..."
        self.add(kind, begin, self.tokens[end].at, "", f"removed: {short}")

    def kind_of_statement(self, index, end, parts):
        first = parts[0].text if parts else ""
        if first in ("break", "continue") and len(parts) == 1 or [part.text for part in parts] == ["return"]:
            return "statement"
        if self.declares_lock(index, end):
            return "lock"
        if not parts or first in NO_EXPRESSION or first in ("++", "--") or parts[0].kind in ("number", "text"):
            return "statement" if first in ("++", "--") else None
        if first in ("static_cast", "delete", "*", "("):
            return self.kind_of_call(index, end)
        if parts[0].kind != "name":
            return None
        # Names, what is in brackets, and what leads from one to the next: two names side by side declare.
        at, former = index, ""
        while at < end:
            text = self.text(at)
            if text in ASSIGNMENTS:
                # `Type name = ...` has two names side by side, `Type* name = ...` a sign that leads nowhere.
                return self.kind_of_call(index, end) if former != "" else None
            if text in ("(", "["):
                at = self.partners.get(at, end)
                former = ")"
            elif text == "<":
                closing = self.template_end(at, end)
                if closing is None:
                    return None
                at, former = closing, ">"
            elif self.tokens[at].kind == "name":
                if former not in ("", "::", ".", "->", "template"):
                    return None
                former = "name"
            elif text in ("::", ".", "->", "++", "--"):
                former = text
            else:
                return None
            at += 1
        return self.kind_of_call(index, end) if former in (")", "++", "--") else None

    def declares_lock(self, index, end):
        at = index + 1 if self.text(index) == "const" else index
        if self.text(at) == "std" and self.text(at + 1) == "::":
            at += 2
        if not LOCK.match(self.text(at)):
            return False
        at += 1
        if self.text(at) == "<":
            closing = self.template_end(at, end)
            if closing is None:
                return False
            at = closing + 1
        return at < end and self.tokens[at].kind == "name" and self.text(at + 1) in ("(", "{")

    def kind_of_call(self, index, end):
        # What is called inside a function that is only handed over does not tell.
        called, braces = [], 0
        for at in range(index + 1, end):
            braces += (self.text(at) == "{") - (self.text(at) == "}")
            if self.text(at) == "(" and braces == 0:
                called.append(self.text(at - 1))
        if any(LOCKING.match(name) for name in called):
            return "lock"
        if self.text(index) == "delete" or any(FREEING.match(name) for name in called):
            return "free"
        return "statement"

    # -- Help.

    def text(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def is_spaced(self, token):
        end = token.at + len(token.text)
        return (self.source[token.at - 1 : token.at].isspace() and self.source[end : end + 1].isspace()
                and not self.is_operator_name(token))

    def is_operator_name(self, token):
        return self.source[: token.at].rstrip().endswith("operator")

    def match_brackets(self):
        partners, stack = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind != "sign":
                continue
            if token.text in OPEN:
                stack.append(index)
            elif token.text in CLOSE and stack:
                partners[stack.pop()] = index
        return partners

    def depth_is(self, first, at):
        depth = 0
        for index in range(first, at):
            depth += (self.text(index) in OPEN) - (self.text(index) in CLOSE)
        return depth == 0

    def template_end(self, at, end):
        depth = 0
        for index in range(at, end):
            depth += {"<": 1, ">": -1, ">>": -2}.get(self.text(index), 0)
            if depth <= 0:
                return index if depth == 0 else None
        return None

    def begins_statement(self, index):
        former = self.text(index - 1)
        if former in (";", "{", "}", "else", "do"):
            return True
        return former == ":" and self.text(index - 2) in ("default",) or former == ":" and self.text(index - 3) == "case"

    def add(self, kind, at, end, new, change):
        line = self.source.count("\n", 0, at) + 1
        self.found.append(Mutant(self.file, line, self.lines[line - 1].strip(), kind, change, at, end, new))

    def numbered(self):
        """With a number from 2 behind the change of each that another one is like, so that it can be named."""
        seen = collections.Counter()
        result = []
        for mutant in sorted(self.found, key=lambda one: (one.at, one.end, one.new)):
            seen[mutant.text, mutant.change] += 1
            number = seen[mutant.text, mutant.change]
            result.append(mutant if number == 1 else dataclasses.replace(mutant, change=f"{mutant.change} #{number}"))
        return result


def mutants_of(file, source):
    """All mutants of the source `file`, a name that is only passed on, in the order of their places."""
    return Finder(file, source).all()

"""The mutations of a C++ source, found in its tokens.

The sources are formatted, and so a binary operator has a blank on both sides, and a bracket of a template, a reference
or a pointer has not: no parser is needed to tell them apart. A change that is not C++ does no harm: it does not compile
and is not counted.

Left alone are comments, preprocessor lines, what is compiled for the other processor alone, strings, static assertions,
debug records, and sizes of buffers and reservations: a larger one changes nothing that can be observed.
"""

import bisect
import platform
import re
from typing import NamedTuple

from mutation import Mutation, shown

OTHER_PROCESSOR = "__SSE2__" if platform.machine() == "aarch64" else "__ARM_NEON"
TOKEN = re.compile(
    rf"""
      (?P<other_processor> ^\#(?:if|elif)[^\n]*{OTHER_PROCESSOR}.*?(?=^\#) )
    | (?P<comment> //[^\n]* | /\*.*?\*/ )
    | (?P<preprocessor> ^[ \t]*\#(?:[^\n\\]|\\.)* )
    | (?P<string> (?:u8|[uUL])?R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)" | (?:u8|[uUL])?"(?:[^"\\]|\\.)*" )
    | (?P<char> (?:u8|[uUL])?'(?:[^'\\]|\\.)+' )
    | (?P<number> \.?\d(?:[\w.']|(?<=[eEpP])[+-])* )
    | (?P<word> [A-Za-z_]\w* )
    | (?P<operator> <=>|<<=|>>=|\.\.\.|->|::|\+\+|--|&&|\|\||[-+*/%&|^=!<>]=|<<|>>|. )
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

BINARY = {
    "<": "<=",
    "<=": "<",
    ">": ">=",
    ">=": ">",
    "==": "!=",
    "!=": "==",
    "&&": "||",
    "||": "&&",
    "+": "-",
    "-": "+",
    "*": "/",
    "/": "*",
    "%": "*",
    "&": "|",
    "|": "&",
    "<<": ">>",
    ">>": "<<",
    "+=": "-=",
    "-=": "+=",
}
UNARY = {"++": "--", "--": "++"}
WORDS = {"true": "false", "false": "true"}

# What begins a statement that is not dropped: declarations, and those that have other statements in them.
KEEPERS = set(
    "alignas auto case catch class const constexpr consteval default do else enum extern for friend goto if inline"
    " namespace operator private protected public return signed static static_assert struct switch template thread_local"
    " try typedef typename union unsigned using virtual while bool char double float int long short void".split()
)
SPARED_CALLS = {"static_assert", "alignas", "reserve", "shrink_to_fit", "ORVLOG_DEBUG", "ORVLOG_TRACE"}
UNCHANGING_RESULTS = {"{}", "0", "nullptr", "false", "true", '""', "*this", "std::nullopt"}
BEFORE_BODIES = {")", "else", "do", "try", "const", "noexcept", "override", ";", "{", "}"}
INTEGER = re.compile(r"(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlLzZ]*)\Z")


LEFT_ALONE = ("comment", "preprocessor", "other_processor")


class Token(NamedTuple):
    kind: str
    text: str
    start: int

    @property
    def end(self):
        return self.start + len(self.text)


def tokens_of(source):
    found = (Token(match.lastgroup, match.group(), match.start()) for match in TOKEN.finditer(source))
    kept = (token for token in found if token.kind not in LEFT_ALONE and not token.text.isspace())
    return [token._replace(kind="string") if token.kind == "mark" else token for token in kept]


def match_brackets(tokens):
    """Returns the index of each bracket's partner, and of the curly bracket that each token is in, -1 where in none."""
    partner, around, open_ones = {}, [], []
    for index, token in enumerate(tokens):
        if token.kind == "operator" and token.text in ")]}" and open_ones:
            partner[index] = open_ones.pop()
            partner[partner[index]] = index
        around.append(next((opening for opening in reversed(open_ones) if tokens[opening].text == "{"), -1))
        if token.kind == "operator" and token.text in "([{":
            open_ones.append(index)
    return partner, around


class CppSource:
    """CppSource finds the mutations of one source."""

    def __init__(self, path, data):
        self._path = path
        self._text = data.decode("latin-1")  # a byte is a character, so places in both are the same
        self._tokens = tokens_of(self._text)
        self._partner, self._around = match_brackets(self._tokens)
        self._line_starts = [0] + [place.end() for place in re.finditer("\n", self._text)]
        self._spared = self._spared_tokens()

    def mutations(self):
        for index, token in enumerate(self._tokens):
            if index not in self._spared:
                yield from self._of_token(index, token)

    # --- what is left alone ---

    def _spared_tokens(self):
        spared = set()
        for index, token in enumerate(self._tokens):
            if token.text in SPARED_CALLS and self._text_at(index + 1) == "(":
                spared.update(range(index, self._partner.get(index + 1, index)))
            if token.text == "[" and (self._is_declared(index - 1) or self._text_at(index + 1) == "["):  # or attributes
                spared.update(range(index, self._partner.get(index, index)))
        return spared

    def _is_declared(self, index):
        """Whether the word here is being declared, and so follows its type."""
        before = self._tokens[index - 1] if index > 0 else None
        if before is None or self._tokens[index].kind != "word" or before.text in ("return", "else", "case", "throw"):
            return False
        return before.kind == "word" or before.text in (">", "*", "&")

    # --- the changes ---

    def _of_token(self, index, token):
        if token.kind == "operator":
            yield from self._of_operator(index, token)
        elif token.kind == "number":
            yield from self._of_number(token)
        elif token.kind == "word":
            yield from self._of_word(index, token)
        if self._begins_statement(index):
            yield from self._dropped_statement(index)

    def _of_operator(self, index, token):
        text = token.text
        is_spaced = self._text[token.start - 1].isspace() and self._text[token.end : token.end + 1].isspace()
        next_to_text = "string" in (self._kind_at(index - 1), self._kind_at(index + 1))
        if text in BINARY and is_spaced and not (next_to_text and text in ("+", "<<", "+=")):
            yield self._replaced(token, token.end, BINARY[text])
        elif text in UNARY:
            yield self._replaced(token, token.end, UNARY[text])
        elif text == "!":
            yield self._replaced(token, token.end, "", f"drop the ! of {shown(self._line(token))}")

    def _of_number(self, token):
        match = INTEGER.match(token.text)
        if match and not (match[1].startswith("0") and match[1].isdigit() and len(match[1]) > 1):
            more = int(match[1].replace("'", ""), 0) + 1
            digits = hex(more) if match[1][:2] in ("0x", "0X") else str(more)
            yield self._replaced(token, token.end, digits + match[2])

    def _of_word(self, index, token):
        if token.text in WORDS:
            yield self._replaced(token, token.end, WORDS[token.text])
        elif token.text in ("if", "while") and self._text_at(index + 1) == "(":
            yield from self._negated_condition(index)
        elif token.text == "return":
            yield from self._other_result(index)

    def _negated_condition(self, index):
        first, last = index + 1, self._partner.get(index + 1)
        inner = self._tokens[first + 1 : last]
        if last is None or any(token.text == ";" for token in inner):
            return
        begin, end = self._tokens[first], self._tokens[last].end
        condition = self._text[begin.start : end]
        yield self._replaced(begin, end, f"(!{condition})", f"negate {shown(condition)}")

    def _other_result(self, index):
        last = self._end_of_statement(index)
        if last is None or last == index + 1:
            return
        begin, end = self._tokens[index + 1], self._tokens[last].start
        result = self._text[begin.start : end]
        if result not in UNCHANGING_RESULTS and not INTEGER.match(result):
            yield self._replaced(begin, end, "{}", f"return {{}} for {shown(result)}")

    def _dropped_statement(self, index):
        last = self._end_of_statement(index)
        if last is None or self._is_declaration(index) or not self._spared.isdisjoint(range(index, last)):
            return
        begin, end = self._tokens[index], self._tokens[last].start
        yield self._replaced(begin, end, "", f"drop {shown(self._text[begin.start : end])}")

    # --- statements ---

    def _begins_statement(self, index):
        """Whether an expression or a jump begins here, in a function's body."""
        if self._kind_at(index) != "word" and self._text_at(index) not in ("++", "--", "*", "("):
            return False
        if self._text_at(index) in KEEPERS or not self._is_in_body(index):
            return False
        before = self._text_at(index - 1)
        if before in (";", "{", "}", "else", "do"):
            return True
        if before == ")":
            opening = self._partner.get(index - 1, 0)
            return self._text_at(opening - 1) in ("if", "for", "while", "switch", "constexpr")
        return before == ":" and self._follows_case(index - 1)

    def _follows_case(self, colon):
        for index in range(colon - 1, max(colon - 8, 0), -1):
            if self._text_at(index) in ("case", "default"):
                return True
            if self._text_at(index) in (";", "{", "}", "?", "("):
                return False
        return False

    def _is_in_body(self, index):
        """Whether the innermost curly bracket around the token, if any, is that of a body and not of a scope or list."""
        opening = self._around[index]
        before = self._text_at(opening - 1)
        return opening >= 0 and (before in BEFORE_BODIES or (before == ":" and self._is_in_body(opening)))

    def _end_of_statement(self, index):
        """Returns the index of the semicolon; None where curly brackets come before, as of a lambda's body."""
        while index < len(self._tokens):
            text = self._text_at(index)
            if text == ";":
                return index
            if text in ("{", "}", ")", "]"):
                return None
            index = self._partner.get(index, index) + 1
        return None

    def _is_declaration(self, index):
        """Whether the statement declares: a type is followed by a name."""
        while self._kind_at(index) == "word" and self._text_at(index + 1) == "::":
            index += 2
        if self._kind_at(index) != "word":
            return False
        after = index + 1
        if self._text_at(after) == "<" and not self._text[self._tokens[after].start - 1].isspace():
            while self._text_at(after) not in (">", ">>", ";"):
                after += 1
            after += 1
        while self._text_at(after) in ("*", "&", "&&") and not self._text[self._tokens[after].start - 1].isspace():
            after += 1
        return self._kind_at(after) == "word" and self._text_at(index) not in ("delete", "throw", "co_return", "break")

    # --- places ---

    def _text_at(self, index):
        return self._tokens[index].text if 0 <= index < len(self._tokens) else ""

    def _kind_at(self, index):
        return self._tokens[index].kind if 0 <= index < len(self._tokens) else ""

    def _line_number(self, place):
        return bisect.bisect_right(self._line_starts, place)

    def _line(self, token):
        start = self._line_starts[self._line_number(token.start) - 1]
        return self._text[start:].split("\n", 1)[0]

    def _replaced(self, token, end, text, what=None):
        what = what or f"{self._text[token.start : end]} to {text} in {shown(self._line(token), 70)}"
        return Mutation(self._path, self._line_number(token.start), token.start, end, text, what)


def cpp_mutations(path, data):
    """Returns the mutations of the source with these bytes, in its order."""
    return list(CppSource(path, data).mutations())

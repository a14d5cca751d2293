"""Finds the one-place changes of a C++ source that a test ought to notice."""

import hashlib
import re
from dataclasses import dataclass

from blocks import bodies, closing, masked

SPACED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&",
          "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "+=": "-=", "-=": "+=",
          "|=": "&=", "&=": "|="}
KINDS = {"<": "relational", "<=": "relational", ">": "relational", ">=": "relational",
         "==": "relational", "!=": "relational", "&&": "logical", "||": "logical"}
WORDS = {"true": "false", "false": "true", "RET_SUCCESS": "RET_FAILED", "RET_FAILED": "RET_SUCCESS"}
# Words that begin a statement which is no expression.
KEYWORDS = ("return", "break", "continue", "if", "else", "for", "while", "do", "switch", "case",
            "default", "goto", "using", "typedef", "static", "class", "struct", "enum", "union",
            "template", "namespace", "public", "private", "protected", "friend", "extern", "throw",
            "try", "catch", "delete", "static_assert", "explicit", "virtual", "constexpr", "inline")
GUARD = re.compile(r"(const )?(MutexGuard|ScopedLock|std::(lock_guard|unique_lock|scoped_lock)\S*) \w+[({]")


@dataclass(frozen=True)
class Mutant:
    """One change: the bytes from start to end of the file are replaced."""

    file: str
    line: int
    start: int
    end: int
    text: str
    kind: str
    key: str


def statements(code):
    """(start, end, nesting) of the plain statements: neither blocks nor control words."""
    found = []
    start = 0
    parens = 0
    nesting = []
    for place, char in enumerate(code):
        if char in "([":
            parens += 1
        elif char in ")]":
            parens -= 1
        elif char == "{":
            nesting.append(parens)
            parens = 0
            start = place + 1
        elif char == "}":
            parens = nesting.pop() if nesting else 0
            start = place + 1
        elif char == ";":
            if parens == 0:
                text = code[start:place + 1]
                begin = start + len(text) - len(text.lstrip())
                found.append((begin, place + 1, len(nesting)))
                start = place + 1
        elif char == ":" and parens == 0 and re.search(r"(case [^;{}]*|default|public|private|protected)$",
                                                       code[start:place]) and code[place + 1:place + 2] != ":":
            start = place + 1
    return found


def isExpression(text):
    """Whether a statement is a call or an assignment, not a declaration."""
    text = re.sub(r"^\(void\)", "", text)
    word = re.match(r"\w+", text)
    if word and word.group() in KEYWORDS:
        return False
    head = re.split(r"[(=]|\+\+|--", text, maxsplit=1)[0].rstrip(" +-*/|&%")
    if re.search(r"[\w>*&]\s+[*&]?\w", head):
        return False # a type, then a name
    return bool(re.search(r"\(|=|\+\+|--", text))


def numbers(text):
    """What an integer literal is changed to: neighbours of a small one, far from a large one."""
    value = int(text)
    if value == 0:
        return ["1"]
    if value == 1:
        return ["0", "2"]
    if value < 10:
        return [str(value + 1), str(value - 1)]
    return [str(value * 3), str(value // 3)]


def changes(source):
    """(start, end, replacement, kind) of every change, in the file's order."""
    code = masked(source)
    inside = bodies(source)
    for match in re.finditer(r"(?<= )([<>=!&|+\-*/%]=?|&&|\|\|)(?=[ \n])", code):
        operator = match.group()
        if operator in SPACED:
            yield match.start(), match.end(), SPACED[operator], KINDS.get(operator, "arithmetic")
    for match in re.finditer(r"\+\+|--", code):
        yield match.start(), match.end(), "--" if match.group() == "++" else "++", "arithmetic"
    for match in re.finditer(r"(?<![\w.])(0|[1-9][0-9]*)(?![\w.'])", code):
        if re.search(r"\bvirtual\b[^;{}]*\)( const)? = $", code[:match.start()]):
            continue # a function without a body
        for text in numbers(match.group()):
            yield match.start(), match.end(), text, "constant"
    for match in re.finditer(r"(?<![\w.])([0-9]+\.[0-9]+)(?![\w.])", code):
        yield match.start(), match.end(), f"({match.group()} * 3)", "constant"
    for match in re.finditer(r"\b\w+\b", code):
        if match.group() in WORDS:
            yield match.start(), match.end(), WORDS[match.group()], "constant"
    for match in re.finditer(r" \|\s+[A-Z][A-Z0-9_]+\b", code):
        yield match.start(), match.end(), "", "flag"
    for match in re.finditer(r"\bif \(", code):
        end = closing(code, match.end() - 1)
        if end > 0 and ";" not in code[match.end():end]:
            yield match.end(), end, f"!({source[match.end():end]})", "negated condition"
    for match in re.finditer(r"\b(break|continue);", code):
        yield match.start(), match.end(), ";", "dropped statement"
    former = [] # the last statement, unless something else stands behind it
    for start, end, nesting in statements(code):
        text = code[start:end]
        if GUARD.match(text):
            yield start, end, ";", "dropped lock guard"
        if not isExpression(text) or not any(begun < start < ended for _, begun, ended in inside):
            former = []
            continue
        yield start, end, ";", "dropped statement"
        for begun, ended, outer in former:
            if outer == nesting and not code[ended:start].strip():
                swapped = source[start:end] + source[ended:start] + source[begun:ended]
                yield begun, end, swapped, "swapped statements"
        former = [(start, end, nesting)]


def mutantsOf(file, source):
    """All mutants of a file; their keys stay when other lines of the file change."""
    found = []
    lines = source.split("\n")
    times = {}
    for start, end, text, kind in changes(source):
        line = source.count("\n", 0, start) + 1
        column = start - (source.rfind("\n", 0, start) + 1)
        mark = f"{file}|{lines[line - 1].strip()}|{column}|{kind}|{text}"
        times[mark] = times.get(mark, 0) + 1
        key = hashlib.sha1(f"{mark}|{times[mark]}".encode()).hexdigest()[:12]
        found.append(Mutant(file, line, start, end, text, kind, key))
    return found


def applied(source, mutant):
    return source[:mutant.start] + mutant.text + source[mutant.end:]

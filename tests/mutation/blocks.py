"""Finds the bodies of functions in a C++ source, and the places in them where statements begin."""

import re

# What stands between the parameters of a function and its body.
TAIL = re.compile(r"\)\s*((const|noexcept|override|final|mutable|[A-Z_]{4,}(\([^()]*\))?)\s*)*(->[^;{}()]+)?$")
SCOPE = re.compile(r"\b(namespace|class|struct|union|extern)\b")


def masked(source):
    """The source with all that is no code or can't be changed blanked, its length kept."""
    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)"|"(?:\\.|[^"\\\n])*"'
        r"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+'|^[ \t]*#(?:\\\n|[^\n])*"
        r"|__attribute__\(\(.*?\)\)(?=[;\s])", re.S | re.M)

    def blank(match):
        text = match.group()
        # A text stays a word, so that a call keeps its argument.
        fill = "_" if text[0] in "\"'R" else " "
        return re.sub(r"[^\n]", fill, text)

    return pattern.sub(blank, source)


def closing(code, opening):
    """The place of the bracket that closes the one at opening, -1 without one."""
    pair = {"(": "()", "{": "{}"}[code[opening]]
    depth = 0
    for place in range(opening, len(code)):
        if code[place] in pair:
            depth += 1 if code[place] == pair[0] else -1
            if depth == 0:
                return place
    return -1


def isBody(head):
    """Whether a brace behind this text opens the body of a function."""
    head = head.rstrip()
    return bool(TAIL.search(head)) or bool(head.endswith("}") and re.search(r"\)\s*:[^:]", head))


def bodies(source):
    """(head, opening brace, closing brace) of each function that stands in no other."""
    code = masked(source)
    found = []
    place = begin = 0
    while place < len(code):
        char = code[place]
        if char in ";}" or re.search(r"\b(public|private|protected):$", code[begin:place + 1]):
            begin = place + 1
        elif char == "{":
            head = code[begin:place]
            if isBody(head):
                end = closing(code, place)
                found.append((head, place, end))
                place, begin = end, end + 1
            elif SCOPE.search(head) and not re.search(r"\benum\b|=\s*$", head):
                begin = place + 1
            else:
                place = closing(code, place) # the values of a variable
        place += 1
    return found


def points(code, opening, end):
    """(place, end of its block) where the statements of a body begin."""
    found = []
    blocks = [] # (end, parentheses around it, whether "while" follows)
    parens = 0
    begin = opening
    fresh = False # whether a statement may begin here
    for place in range(opening, end):
        char = code[place]
        if char.isspace():
            continue
        former = code[opening:place].rstrip()
        opens = char == "{" and (place == opening or fresh or
                                 bool(re.search(r"[)\]]$|\b(else|do|try)$", former)))
        if fresh:
            begin = place
            fresh = False
            if not re.match(r"(else|catch|case|default)\b|[)\],;.:?}]", code[place:place + 8]):
                found.append((place, blocks[-1][0]))
        if char in "([":
            parens += 1
        elif char in ")]":
            parens -= 1
        elif char == "{":
            blocks.append((closing(code, place), parens, former.endswith("do")))
            parens = 0
            fresh = opens
        elif char == "}":
            _, parens, loops = blocks.pop()
            fresh = parens == 0 and not loops
        elif char == ";" and parens == 0:
            fresh = True
        elif char == ":" and parens == 0 and "::" not in code[place - 1:place + 2]:
            fresh = bool(re.match(r"(case\b|default$)", code[begin:place]))
    return found


def reaching(code, opening, found, place):
    """The statement that is always come by before a place of the same body, as an index, or None."""
    text = re.search(r"[^;{}]*$", code[opening:place]).group()
    if re.match(r"\s*case\b", text): # the cases before it are not come by
        return 0 if found else None
    return max((index for index, (begin, end) in enumerate(found) if begin <= place < end),
               default=None)

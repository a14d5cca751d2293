"""Holds all changes of the sources at once, so that one build serves them: a number chooses which."""

import hashlib
import json
import os
import re

import blocks

HERE = os.path.dirname(os.path.abspath(__file__))
MOST_POINTS = 65536 # as chosen.h has it


def written(path, content):
    """Write a file unless it has that content. @return whether it was written"""
    if os.path.exists(path):
        with open(path, "rb") as file:
            if file.read() == content:
                return False
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(content)
    return True


class Guards:
    """
    The changes of one source. Each that stands in the body of a function has a copy of that body, a
    constant elsewhere has its other values beside it. What can't be had so is left to be compiled alone.
    """

    def __init__(self, file, source, numbers, first, header="chosen.h"):
        """
        @param numbers  of the changes, as a dict
        @param first    the number of the first statement
        @param header   the path of chosen.h
        """
        self.header = header
        self.file = file
        self.source = source
        self.code = blocks.masked(source)
        self.numbers = numbers
        self.refused = set()  # changes that do not compile
        self.alone = set()    # changes that do not compile beside the others
        self.bare = set()     # lines whose statements are not looked at
        self.bodies = []      # (opening brace, closing brace, statements, number of the first)
        self.points = range(first, first)
        for head, opening, end in blocks.bodies(source):
            inside = [mutant for mutant in numbers if opening < mutant.start and mutant.end <= end]
            if re.search(r"\bconstexpr\b", head):
                self.alone.update(inside)
            else:
                found = blocks.points(self.code, opening, end)
                self.bodies.append((opening, end, found, self.points.stop))
                self.points = range(first, self.points.stop + len(found))
        for mutant in numbers:
            if self.bodyOf(mutant) is None and not self.besides(mutant):
                self.alone.add(mutant)

    def bodyOf(self, mutant):
        return next((body for body in self.bodies if body[0] < mutant.start and mutant.end <= body[1]),
                    None)

    def besides(self, mutant):
        """Whether a change is a constant that has its other value beside it."""
        return mutant.kind == "constant" and bool(re.fullmatch(r"\w+", mutant.text))

    def live(self, mutant):
        return mutant not in self.refused and mutant not in self.alone

    def reaching(self, mutant):
        """The number of the statement that is come by before a change, None where that is not known."""
        body = self.bodyOf(mutant)
        if body is None:
            return None
        opening, _, found, first = body
        index = blocks.reaching(self.code, opening, found, mutant.start)
        if index is None or self.line(found[index][0]) in self.bare:
            return None
        return first + index

    def line(self, place):
        return self.source.count("\n", 0, place) + 1

    def copies(self, body):
        """The body of a function with a copy for each of its changes."""
        opening, end, found, first = body
        begin = opening + 1
        line = self.line(begin)
        parts = ["{ switch (mutation::chosen) {\n"]
        for mutant, number in self.numbers.items():
            if opening < mutant.start and mutant.end <= end and self.live(mutant):
                parts.append(f'case {number}: {{\n#line {line} "change-{number}"\n'
                             f"{self.source[begin:mutant.start]}{mutant.text}"
                             f"{self.source[mutant.end:end]}\n}} break;\n")
        parts.append(f'default: {{\n#line {line} "{self.file}"\n')
        for index, (place, _) in enumerate(found):
            if self.line(place) not in self.bare:
                parts.append(f"{self.source[begin:place]}mutation::reached[{first + index}] = 1; ")
                begin = place
        parts.append(f'{self.source[begin:end]}\n}} break;\n}}\n#line {self.line(end)} "{self.file}"\n')
        return "".join(parts)

    def text(self):
        """The source with all changes that are not compiled alone."""
        if not self.numbers:
            return self.source
        pieces = [(opening, end, self.copies((opening, end, found, first)))
                  for opening, end, found, first in self.bodies]
        values = {}
        for mutant, number in self.numbers.items():
            if self.bodyOf(mutant) is None and self.live(mutant):
                place = (mutant.start, mutant.end)
                former = values.get(place, self.source[mutant.start:mutant.end])
                values[place] = f"(mutation::chosen == {number} ? {mutant.text} : {former})"
        pieces += [(start, end, text) for (start, end), text in values.items()]
        heads = {} # of statements with such a value: constant expressions no more
        for start, _ in values:
            begin = max(self.code.rfind(mark, 0, start) for mark in ";{}") + 1
            heads[begin] = min(start, heads.get(begin, start))
        for begin, end in heads.items():
            head = re.sub(r"\bstatic const(expr)?\b", "static inline const", self.source[begin:end])
            pieces.append((begin, end, re.sub(r"(?<!inline )\bconstexpr\b", "const", head)))
        result = self.source
        for start, end, text in sorted(pieces, reverse=True):
            result = result[:start] + text + result[end:]
        return f'#include "{self.header}"\n#line 1 "{self.file}"\n{result}'

    def declared(self, mutant):
        """The name of the constant that a change outside of functions belongs to."""
        begin = max(self.code.rfind(mark, 0, mutant.start) for mark in ";{}") + 1
        names = re.findall(r"(\w+)\s*(?:\[\w*\]\s*)?[={(]", self.code[begin:mutant.start])
        return names[-1] if names else ""

    def blame(self, line):
        """Leave out what an error at a line is put down to. @return whether there was anything"""
        blamed = [mutant for mutant in self.numbers
                  if self.live(mutant) and self.bodyOf(mutant) is None and mutant.line == line]
        if not blamed and line not in self.bare and any(
                self.line(place) == line for *_, found, _ in self.bodies for place, _ in found):
            self.bare.add(line)
            return True
        if not blamed:
            body = next((body for body in self.bodies
                         if self.line(body[0]) <= line <= self.line(body[1])), None)
            if body is not None:
                self.bodies.remove(body)
                blamed = [mutant for mutant in self.numbers
                          if body[0] < mutant.start and mutant.end <= body[1]]
        self.alone.update(blamed)
        return bool(blamed)

    # What was learned of these changes is kept for the next run.

    def sign(self):
        text = self.source + "".join(mutant.key for mutant in self.numbers)
        return hashlib.sha1(text.encode()).hexdigest()

    def state(self):
        return {"sign": self.sign(), "refused": sorted(mutant.key for mutant in self.refused),
                "alone": sorted(mutant.key for mutant in self.alone), "bare": sorted(self.bare),
                "bodies": [opening for opening, *_ in self.bodies]}

    def restore(self, state):
        if state.get("sign") != self.sign():
            return
        keys = {mutant.key: mutant for mutant in self.numbers}
        self.refused = {keys[key] for key in state["refused"]}
        self.alone = {keys[key] for key in state["alone"]}
        self.bare = set(state["bare"])
        self.bodies = [body for body in self.bodies if body[0] in state["bodies"]]


class AllGuards:
    """The changes of all sources that a run looks at."""

    def __init__(self, parts, read, stored):
        """
        @param parts   file -> its changes
        @param read    gives a file's text
        @param stored  where what was learned is kept, beside a copy of chosen.h
        """
        self.stored = stored
        header = f"{os.path.dirname(stored)}/chosen.h"
        with open(f"{HERE}/chosen.h", "rb") as stream:
            written(header, stream.read())
        self.files = {}
        self.numbers = {}
        first = 0
        for file, part in parts.items():
            numbers = {mutant: len(self.numbers) + index + 1 for index, mutant in enumerate(part)}
            self.numbers.update(numbers)
            self.files[file] = Guards(file, read(file), numbers, first, header)
            first = self.files[file].points.stop
        assert first <= MOST_POINTS
        if os.path.exists(stored):
            with open(stored, encoding="utf-8") as stream:
                for file, state in json.load(stream).items():
                    if file in self.files:
                        self.files[file].restore(state)

    def texts(self):
        return {file: guards.text() for file, guards in self.files.items()}

    def keep(self):
        with open(self.stored, "w", encoding="utf-8") as stream:
            json.dump({file: guards.state() for file, guards in self.files.items()}, stream)

    def leaveOut(self, output):
        """
        Leave out what the compiler has refused.
        @param output  the build's
        @return whether anything was left out
        """
        wrong = {int(number) for number in re.findall(r"\bchange-(\d+):", output)}
        if wrong:
            for mutant, number in self.numbers.items():
                if number in wrong:
                    self.files[mutant.file].refused.add(mutant)
            return True
        changed = False
        errors = re.findall(r"^(\S+?):(\d+):(?:\d+:)? (?:fatal )?error: (.*)", output, re.M)
        for file, line, message in errors:
            guards = next((found for name, found in self.files.items() if file.endswith(name)), None)
            text = guards.source.split("\n")[int(line) - 1] if guards is not None else ""
            if self.named(f"{message} {text}") or guards is not None and guards.blame(int(line)):
                changed = True
        return changed or self.named(output)

    def named(self, text):
        """Leave out the constants that a text names: they stand where only a constant can."""
        words = set(re.findall(r"\w+", text))
        found = False
        for guards in self.files.values():
            blamed = {mutant for mutant in guards.numbers
                      if guards.live(mutant) and guards.bodyOf(mutant) is None and
                      guards.declared(mutant) in words}
            guards.alone |= blamed
            found = found or bool(blamed)
        return found

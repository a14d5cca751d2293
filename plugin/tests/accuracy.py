"""The accuracy tables of docs/plugin.md.

usage: accuracy.py write PROGRAM  replace the tables by what the program plugin-accuracy prints
       accuracy.py check PROGRAM  whether the plug-in is as exact as they say, on a few places
"""

import os
import re
import subprocess
import sys

PAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs", "plugin.md")
BEGIN = "<!-- scripts/accuracy writes from here -->\n"
END = "<!-- to here -->\n"
FEW = 6  # places
ROUNDED = 0.02  # and what the clock in the pictures changes


def tables(program, *arguments):
    return subprocess.run([program, *arguments], capture_output=True, text=True, check=True).stdout


def rows(text):
    """The cells of each row by its first one and the table's number."""
    found, number = {}, 0
    for line in text.splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if line.startswith("|---"):
            number += 1
        elif line.startswith("|") and not re.match(r"[A-Za-z]", cells[0]):
            found[number, cells[0]] = cells[1:]
    return found


def worse(told, now):
    """Whether a cell shows more than the page tells; a refused picture is no error."""
    numbers = [re.match(r"\d+\.\d+", cell) for cell in (told, now)]
    if not numbers[1]:
        return numbers[0] is not None and "refused" not in told
    return not numbers[0] or float(numbers[1].group()) > float(numbers[0].group()) + ROUNDED


def check(told, now):
    told, now = rows(told), rows(now)
    wrong = [f"rows {sorted(set(told) ^ set(now))}"] if set(told) != set(now) else []
    for key in set(told) & set(now):
        for cell, (there, here) in enumerate(zip(told[key], now[key])):
            if worse(there, here):
                wrong.append(f"table {key[0]}, {key[1]}, column {cell + 1}: "
                             f"the page says {there}, measured {here}")
    return wrong


def main():
    action, program = sys.argv[1], sys.argv[2]
    with open(PAGE, encoding="utf-8") as file:
        page = file.read()
    before, rest = page.split(BEGIN)
    told, after = rest.split(END)
    if action == "write":
        page = before + BEGIN + "\n" + tables(program) + "\n" + END + after
        with open(PAGE, "w", encoding="utf-8") as file:
            file.write(page)
        return 0
    wrong = check(told, tables(program, str(FEW)))
    print("\n".join(wrong) or "as exact as docs/plugin.md says")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

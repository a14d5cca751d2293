"""One table of all figures, and the comparison of their ratios with the stored ones."""

import json

TOLERANCE = 1.25  # a ratio may be worse by this factor than the stored one


def key(row):
    return f"{row['piece']}: {row['figure']}"


def met(row):
    """Whether the row reaches its goal; None for a row without one.

    A goal bounds the ratio, or the value where there is no floor.
    """
    if row["goal"] is None:
        return None
    measured = row["value"] if row["floor"] is None else row["ratio"]
    if row["better"] == "more":
        return measured >= row["goal"]
    return measured <= row["goal"]


def number(value):
    """Three digits are all that a measurement is good for; whole numbers stay whole."""
    if value is None:
        return ""
    if value == int(value) and abs(value) < 1e9:
        return f"{int(value):,}"
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def cells(row):
    goal = verdict = ""
    if row["goal"] is not None:
        measure = "" if row["floor"] is None else "ratio "
        sense = "at least" if row["better"] == "more" else "at most"
        goal = f"{measure}{sense} {number(row['goal'])}"
        verdict = "met" if met(row) else "**missed**"
    return [row["piece"], row["figure"], f"{number(row['value'])} {row['unit']}".strip(),
            number(row["floor"]), "" if row["ratio"] is None else f"{row['ratio']:.2f}", goal,
            verdict, row["bound"] or ""]


def markdown(rows):
    """The rows as a table that reads well as plain text too."""
    lines = [["Piece", "Figure", "Value", "Floor", "Ratio", "Goal", "", "Bound by"]]
    lines += [cells(row) for row in rows]
    widths = [max(3, *(len(line[column]) for line in lines)) for column in range(len(lines[0]))]
    lines.insert(1, ["-" * width for width in widths])
    return "".join("| " + " | ".join(text.ljust(width) for text, width in zip(line, widths))
                   + " |\n" for line in lines)


def gated(row):
    """A row may ask to be left out of the gate with "gate": false."""
    return row["ratio"] is not None and row.get("gate", True)


def ratios(rows):
    """What is stored: the ratio of each row that has one, and which way is better."""
    return {key(row): {"ratio": round(row["ratio"], 4), "better": row["better"]}
            for row in rows if gated(row)}


def regressions(rows, stored):
    """What is worse than stored, or cannot be compared; one sentence each."""
    now = ratios(rows)
    complaints = []
    for name, before in stored.items():
        if name not in now:
            complaints.append(f"{name}: stored, but not measured any more")
            continue
        worse = now[name]["ratio"] / before["ratio"]
        if before["better"] == "more":
            worse = before["ratio"] / now[name]["ratio"] if now[name]["ratio"] > 0 else float("inf")
        if worse > TOLERANCE:
            complaints.append(f"{name}: ratio {now[name]['ratio']:.3f}, stored "
                              f"{before['ratio']:.3f}: worse by {(worse - 1) * 100:.0f} %")
    complaints += [f"{name}: measured, but not stored" for name in now if name not in stored]
    return complaints


def load(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def store(path, rows):
    with open(path, "w", encoding="utf-8") as file:
        json.dump(ratios(rows), file, indent=1, sort_keys=True)
        file.write("\n")

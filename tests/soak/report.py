"""The table of one or two runs. usage: report.py [--guard] RECORD..."""

import json
import sys

COUNTS = ("rounds", "connects", "frames", "snapshots", "files", "camera commands", "measurements",
          "heights measured", "log lines",
          "nonsense sent", "vanished silently", "camera unplugged", "camera faults",
          "cable unplugged", "jobs", "job lines printed", "replies disturbed")
GUARD_COUNTS = ("rounds", "job lines", "whole", "paused", "service killed", "service silent", "unplugged", "restarted",
                "alarm", "garbage", "operator off", "lease lost", "strangers", "guards started again")
# Name in the record, in the table, and what divides the number.
WATCHED = (("resident", "resident memory, kB", 1), ("allocated", "allocated, kB", 1024),
           ("descriptors", "descriptors", 1), ("threads", "threads", 1),
           ("consumers", "consumers", 1))


def watched(record, name, divisor):
    """Begin, highest and end."""
    samples = record["samples"].get(name)
    if not samples:
        return "?"
    numbers = (samples[0][1], record["highest"][name], samples[-1][1])
    return " / ".join(f"{number // divisor:,}" for number in numbers)


def rows(record):
    yield "minutes", f"{record['minutes']:.1f}"
    yield "seed", str(record["seed"])
    for name in COUNTS:
        yield name, f"{record['counts'].get(name, 0):,}"
    for name, title, divisor in WATCHED:
        yield title, watched(record, name, divisor)
    yield "reset pins left open", f"{record['pins']:,}"
    yield "verdict", "FAILED" if record["failures"] else "clean"


def guard_rows(record):
    yield "minutes", f"{record['minutes']:.1f}"
    yield "seed", str(record["seed"])
    for name in GUARD_COUNTS:
        yield name, f"{record['counts'].get(name, 0):,}"
    for name, samples in record["samples"].items():
        values = [value for _, value in samples] or [0]
        yield (name.replace("resident", "resident, kB"),
               " / ".join(f"{number:,}" for number in (values[0], max(values), values[-1])))
    yield "verdict", "FAILED" if record["failures"] else "clean"


def main():
    records = []
    guard = sys.argv[1] == "--guard"
    for path in sys.argv[2 if guard else 1:]:
        with open(path, encoding="utf-8") as file:
            records.append(json.load(file))
    print(f"{'guard' if guard else '':22}" + "".join(f"{record['build']:>28}" for record in records))
    for columns in zip(*((guard_rows if guard else rows)(record) for record in records)):
        print(f"{columns[0][0]:22}" + "".join(f"{value:>28}" for _, value in columns))
    print("(three numbers: at the first quiet moment / highest / at the last quiet moment)")
    failed = False
    for record in records:
        for failure in record["failures"]:
            failed = True
            print(f"{record['build']}: {failure}")
    return 1 if failed else 0


if __name__ == "__main__":
    raise SystemExit(main())

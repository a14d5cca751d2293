"""A mutation run: which changes, in which order, and what is kept of their results."""

import json
import os
import random
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

import mutants
import trial

RESULTS = ("killed", "timed out", "not compiled", "survived")


def sources(root):
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "application"], cwd=root,
                            check=True, stdout=subprocess.PIPE, text=True).stdout.split("\n")
    return sorted(name for name in listed if name.endswith((".cpp", ".h")))


def read(root, file):
    with open(f"{root}/{file}", encoding="utf-8") as stream:
        return stream.read()


def chosen(found, share, seed):
    """A part of a file's changes; a larger part holds the smaller."""
    shuffled = sorted(found, key=lambda mutant: mutant.key)
    random.Random(seed).shuffle(shuffled)
    part = shuffled[:max(1, round(len(shuffled) * share / 100))] if shuffled else []
    return sorted(part, key=lambda mutant: (mutant.start, mutant.key))


def load(path):
    results = {}
    if os.path.exists(path):
        with open(path, encoding="utf-8") as file:
            for line in file:
                record = json.loads(line)
                results[record["key"]] = record
    return results


def difference(source, mutant):
    """The changed lines, before and after."""
    first = source.rfind("\n", 0, mutant.start) + 1
    last = source.find("\n", mutant.end)
    before = source[first:last]
    after = source[first:mutant.start] + mutant.text + source[mutant.end:last]
    return ("".join(f"-{line}\n" for line in before.split("\n")) +
            "".join(f"+{line}\n" for line in after.split("\n")))


def wanted(mutant, results, options):
    former = results.get(mutant.key)
    if former is None or options.again:
        return True
    return former["result"] == "survived" and (options.survivors or
                                               former["slowest"] < options.slowest)


def report(path, all_mutants, results):
    """Write the table and the survivors. @return the table"""
    lines = [f"{'file':58}{'changes':>8}{'tried':>7}" + "".join(f"{name:>14}" for name in RESULTS)]
    sums = [0] * (2 + len(RESULTS))
    survivors = []
    for file, found in all_mutants.items():
        tried = [results[mutant.key] for mutant in found if mutant.key in results]
        numbers = [len(found), len(tried)]
        numbers += [sum(record["result"] == name for record in tried) for name in RESULTS]
        sums = [former + number for former, number in zip(sums, numbers)]
        lines.append(f"{file:58}{numbers[0]:8}{numbers[1]:7}" +
                     "".join(f"{number:14}" for number in numbers[2:]))
        survivors += [record for record in tried if record["result"] == "survived"]
    lines.append(f"{'all':58}{sums[0]:8}{sums[1]:7}" + "".join(f"{number:14}" for number in sums[2:]))
    if sums[0]:
        lines.append(f"tried: {100 * sums[1] / sums[0]:.1f} % of all changes")
    table = "\n".join(lines) + "\n"
    with open(path, "w", encoding="utf-8") as file:
        file.write(table)
        for record in survivors:
            bound = record["slowest"]
            told = "" if bound == float("inf") else f", put to tests of up to {bound:g} s only"
            file.write(f"\n{record['file']}:{record['line']}: {record['kind']}{told}\n{record['diff']}")
    return table


def run(options):
    """@return 0, whatever survived; 2 when the sources do not build or their tests fail unchanged"""
    files = options.files or sources(options.root)
    all_mutants = {}
    for file in files:
        found = mutants.mutantsOf(file, read(options.root, file))
        if options.kind:
            found = [mutant for mutant in found if mutant.kind in options.kind]
        all_mutants[file] = found
    parts = {file: chosen(found, options.share, options.seed) for file, found in all_mutants.items()}
    if options.list:
        for file, part in parts.items():
            for mutant in part:
                print(f"{file}:{mutant.line}: {mutant.kind}\n"
                      f"{difference(read(options.root, file), mutant)}", end="")
        return 0
    os.makedirs(options.folder, exist_ok=True)
    stored = f"{options.folder}/results.jsonl"
    results = load(stored)
    try:
        attempts(options, parts, results, stored)
    except trial.Broken as broken:
        print(f"scripts/mutate: {broken}")
        return 2
    print(report(f"{options.folder}/report.txt", all_mutants, results), end="")
    return 0


def attempts(options, parts, results, stored):
    """Try what is wanted of the changes, in an order given by the seed, those to be compiled alone last."""
    end = time.monotonic() + 60 * options.minutes
    texts = {file: read(options.root, file) for file in parts}
    bench = trial.Bench(options.root, options.folder, parts, texts.get, options.jobs, options.patience)

    def keep(mutant, result, who, begin):
        record = {"key": mutant.key, "file": mutant.file, "line": mutant.line, "kind": mutant.kind,
                  "result": result, "noticed by": "" if who is None else who[1] or who[0],
                  "slowest": options.slowest, "seconds": round(time.monotonic() - begin, 1),
                  "diff": difference(texts[mutant.file], mutant)}
        with bench.lock:
            results[mutant.key] = record
            with open(stored, "a", encoding="utf-8") as stream:
                stream.write(json.dumps(record) + "\n")
        bench.say(f"{mutant.file}:{mutant.line}: {mutant.kind}: {result} {record['noticed by']} "
                  f"({record['seconds']} s)")

    def attempt(mutant):
        begin = time.monotonic()
        if begin < end:
            keep(mutant, *bench.attempt(mutant, options.slowest), begin)

    try:
        left = [mutant for part in parts.values() for mutant in part if wanted(mutant, results, options)]
        random.Random(options.seed).shuffle(left)
        with ThreadPoolExecutor(options.jobs) as pool:
            for _ in pool.map(attempt, [mutant for mutant in left if not bench.isAlone(mutant)]):
                pass # a failure is raised here
        # A header's at last: most is compiled again for each of them.
        for file in sorted(parts, key=lambda name: name.endswith(".h")):
            alone = [mutant for mutant in left if mutant.file == file and bench.isAlone(mutant)]
            begin = time.monotonic()
            if alone and begin < end:
                for mutant, result, who in bench.attemptAlone(alone, options.slowest):
                    keep(mutant, result, who, begin)
    finally:
        bench.close()

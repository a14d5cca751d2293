"""Make every fault happen in the middle of a burning job, and measure when the beam is off.

usage: drill.py full|quick [--runs N] [--seed N] [--boards N] [--fault NAME]... [--language NAME]
                [--store]
KESTREL_BUILD names the build folder. --store writes the table into docs/guard.md, and its worst figure
into README.md. The status is non-zero when a bound or an invariant does not hold.
"""

import argparse
import collections
import dataclasses
import math
import multiprocessing
import os
import platform
import queue
import random
import re
import statistics
import sys
import time
import traceback

import verdict
from burning_board import ACCELERATION, Board, die_with_parent, start, wait_until
from faults import BY_NAME, FAULTS

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
RUNS = {"full": 50, "quick": 3}
LANGUAGES = ("arm", "grbl")
POWERS = ("M3", "M4")
BUSY_LOOPS = 8
BUSY_LOOP = "import os\nparent = os.getppid()\nwhile os.getppid() == parent:\n    pass"
FEED = 600  # mm/min: ten millimetres a second
LIMIT = 30.0  # seconds for the beam to go off; only ends a failing run
SETTLE = 0.25  # what comes behind the trip is waited for; the service repeats its line after 0.5 s or sooner
STORED = ("<!-- drill -->\n", "<!-- end of drill -->\n")
FIGURE = re.compile(r"^\| beam off after a fault.*$", re.M)

Task = collections.namedtuple("Task", "fault language power number seed")


@dataclasses.dataclass
class Result:
    task: Task
    outcome: verdict.Outcome
    notes: list


def make_job(kind, power, chance):
    """Lines, and how long the guard takes each for, from rest to rest. Relative moves, some neighbours alike."""
    count, low, high = {"long": (80, 3, 7), "short": (400, 0.5, 1.5), "ending": (chance.randrange(3, 9), 3, 7)}[kind]
    lines, durations = [f"{power} S500", "G91", f"G1 X-20 Y-15 F{FEED}"], [0.0, 0.0, estimate(20, 15)]
    x = y = 0.0
    for number in range(count):
        if number % 6 != 5:
            step_x = round(math.copysign(chance.uniform(low, high), -x if abs(x) > 5 else chance.uniform(-1, 1)), 3)
            step_y = round(math.copysign(chance.uniform(0, 1), -y if abs(y) > 5 else chance.uniform(-1, 1)), 3)
        x, y = x + step_x, y + step_y
        lines.append(f"G1 X{step_x:.3f} Y{step_y:.3f}")
        durations.append(estimate(step_x, step_y))
    return lines, durations


def estimate(x, y):
    speed = FEED / 60
    return math.hypot(x, y) / speed + speed / ACCELERATION


def do(board, task):
    """One run on a board, whatever the one before has left."""
    fault = BY_NAME[task.fault]
    chance = random.Random(repr(task))
    board.stop_service()
    if fault.reset_line != board.reset_line:
        board.release_reset_line()
    board.start_guard(fault.reset_line)
    board.home()
    lines, durations = make_job(fault.job, task.power, chance)
    board.start_job(lines, fault.lease)
    wait_until(lambda: board.see(lambda records: any(map(verdict.is_lit, records))), "the beam is on")
    if fault.job != "ending":
        board.wait(chance.uniform(0, 1.5))
    run = verdict.Run(fault=task.fault, language=task.language, power=task.power, job=lines, records=board.records,
                      durations=durations, **fault.make(board, chance))
    wait_until(lambda: board.see(lambda records: verdict.find_cut(run) is not None
                                 and verdict.dark_since(records) is not None), "the beam is off", LIMIT)
    board.lease = 0.0
    board.wait(SETTLE)
    if fault.undo is not None:
        fault.undo(board)
    if fault.ends_guard:
        board.await_end()
    run.records = list(board.records)
    return verdict.judge(run)


def work(language, tasks, results):
    """A board's process."""
    die_with_parent()
    board = None
    while True:
        try:
            task = tasks.get_nowait()
        except queue.Empty:
            break
        notes = []
        try:
            if board is None:
                board = Board(language)
            outcome = do(board, task)
        except Exception as error:  # pylint: disable=broad-exception-caught  # a run that fails is told
            outcome = verdict.Outcome(problems=[f"{type(error).__name__}: {error}"])
            notes = traceback.format_exc().splitlines()[-4:]
        if board is not None and (outcome.problems or verdict.is_late(task.fault, outcome.figure)):
            notes += board.tell_journal(12) + [" ".join(map(str, record)) for record in board.records[-30:]]
        if board is not None and outcome.problems:
            board.close()
            board = None
        results.put(Result(task, outcome, notes))
    if board is not None:
        board.stop_service()
        board.close()
    results.put(None)


def do_all(tasks, boards, progress):
    """Results in no order."""
    context = multiprocessing.get_context("fork")
    results = context.Queue()
    running = []
    for language in LANGUAGES:
        mine = [task for task in tasks if task.language == language]
        waiting = context.Queue()
        for task in mine:
            waiting.put(task)
        time.sleep(0.1)  # the queue's own thread has handed them over
        for _ in range(min(len(mine), max(1, boards // 2))):
            running.append(context.Process(target=work, args=(language, waiting, results)))
    for process in running:
        process.start()
    done, ended = [], 0
    while ended < len(running):
        try:
            result = results.get(timeout=5)
        except queue.Empty:
            if not any(process.is_alive() for process in running):
                break
            continue
        if result is None:
            ended += 1
            continue
        done.append(result)
        progress(result)
    for process in running:
        process.join()
    if len(done) != len(tasks):
        raise SystemExit(f"{len(tasks) - len(done)} runs are missing")
    return done


def do_phases(tasks, boards):
    count = 0

    def progress(result):
        nonlocal count
        count += 1
        if sys.stderr.isatty():
            print(f"\r{count} of {len(tasks)} runs", end="", file=sys.stderr)
        if result.notes:
            what = "; ".join(result.outcome.problems) or f"{result.outcome.figure:.3f} s"
            print(f"{result.task}: {what}", *result.notes, sep="\n    ", file=sys.stderr, flush=True)
    results = []
    calm = [task for task in tasks if not BY_NAME[task.fault].loaded]
    loaded = [task for task in tasks if BY_NAME[task.fault].loaded]
    if calm:
        results += do_all(calm, boards, progress)
    if loaded:
        loops = [start([sys.executable, "-c", BUSY_LOOP]) for _ in range(BUSY_LOOPS)]
        try:
            results += do_all(loaded, boards, progress)
        finally:
            for loop in loops:
                loop.kill()
                loop.wait()
    return results


def milliseconds(seconds):
    value = seconds * 1000
    return f"{value:.1f}" if value < 9.95 else f"{value:.0f}"


def summary(values):
    return " / ".join(map(milliseconds, (statistics.median(values), verdict.percentile(values, 0.99), max(values))))


def figures_of(results, *fields):
    """Seconds by what tells tasks apart."""
    figures = collections.defaultdict(list)
    for result in results:
        if not math.isnan(result.outcome.figure):
            figures[tuple(getattr(result.task, field) for field in fields)].append(result.outcome.figure)
    return figures


def table(results):
    """Markdown."""
    figures = figures_of(results, "fault", "language", "power")
    runs = collections.Counter(result.task.fault for result in results)
    columns = [(language, power) for language in LANGUAGES for power in POWERS]
    rows = ["| Fault | Measured from | Runs | " + " | ".join(
        f"{language} {power}" for language, power in columns) + " |", "|---" * (3 + len(columns)) + "|"]
    for fault in FAULTS:
        if not runs[fault.name]:
            continue
        cells = [figures.get((fault.name, *column)) for column in columns]
        rows.append(f"| {fault.name} | {fault.measured} | {runs[fault.name]} | " + " | ".join(
            summary(cell) if cell else "-" for cell in cells) + " |")
    return rows


def pooled(results):
    """Markdown: what the bounds are for, by language."""
    rows = ["| Language | Runs | Median, 99th percentile, worst | Lines twice | Skipped | Behind a trip |",
            "|---|---|---|---|---|---|"]
    for language in LANGUAGES:
        mine = [result for result in results if result.task.language == language]
        values = [result.outcome.figure for result in mine if not math.isnan(result.outcome.figure)
                  and result.task.fault not in verdict.WORKER_BOUND and result.task.fault not in verdict.UNBOUNDED]
        if values:
            counts = [sum(getattr(result.outcome, field) for result in mine)
                      for field in ("twice", "skipped", "after")]
            rows.append(f"| {language} | {len(values)} | {summary(values)} | " + " | ".join(map(str, counts)) + " |")
    return rows


class Machine:
    """What the machine is, and how busy it is beside the drill."""

    def __init__(self):
        self.begun = time.monotonic()
        self.before = self.busy()

    @staticmethod
    def busy():
        """Seconds of all processors' work so far, and of the drill's own that have ended."""
        with open("/proc/stat", encoding="ascii") as file:
            ticks = list(map(int, file.readline().split()[1:9]))
        own = os.times()
        idle = ticks[3] + ticks[4]
        return (sum(ticks) - idle) / os.sysconf("SC_CLK_TCK"), sum(own[:4])

    def describe(self, boards):
        seconds = time.monotonic() - self.begun
        total, own = (after - before for before, after in zip(self.before, self.busy()))
        with open("/proc/cpuinfo", encoding="ascii") as file:
            model = re.search(r"model name\s*: (.*)", file.read())
        return (f"{os.cpu_count()} cores of {model.group(1).strip() if model else platform.machine()}, Linux "
                f"{platform.release().split('-')[0]}; {boards} boards side by side; the drill used "
                f"{own / seconds:.2f} cores of its own, and others {max(0.0, total - own) / seconds:.2f}; "
                f"{seconds / 60:.0f} minutes")


def store(lines, worst, runs):
    path = f"{TOP}/docs/guard.md"
    with open(path, encoding="utf-8") as file:
        text = file.read()
    head, rest = text.split(STORED[0])
    tail = rest.split(STORED[1])[1]
    with open(path, "w", encoding="utf-8") as file:
        file.write(head + STORED[0] + "\n".join(lines) + "\n" + STORED[1] + tail)
    path = f"{TOP}/README.md"
    with open(path, encoding="utf-8") as file:
        text = file.read()
    row = (f"| beam off after a fault, behind the [guard](docs/guard.md#measured), worst of {runs} runs | "
           f"{worst * 1000:.0f} ms |")
    with open(path, "w", encoding="utf-8") as file:
        file.write(FIGURE.sub(row, text))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("form", choices=RUNS)
    parser.add_argument("--runs", type=int, help="of each fault, language and power mode; 50, quick: 3")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--boards", type=int, default=6, help="side by side, half of them for each language")
    parser.add_argument("--fault", action="append", help="only this one, e.g. alarm")
    parser.add_argument("--language", action="append", choices=LANGUAGES)
    parser.add_argument("--store", action="store_true")
    arguments = parser.parse_args()
    for name in arguments.fault or ():
        if name not in BY_NAME:
            parser.error(f"no such fault: {name}; there are: {', '.join(BY_NAME)}")
    count = arguments.runs or RUNS[arguments.form]
    tasks = [Task(fault.name, language, power, number, arguments.seed)
             for fault in FAULTS if not arguments.fault or fault.name in arguments.fault
             for language in arguments.language or LANGUAGES for power in POWERS for number in range(count)]
    random.Random(arguments.seed).shuffle(tasks)
    machine = Machine()
    results = do_phases(tasks, arguments.boards)
    bad = [result for result in results if result.outcome.problems]
    by_language = figures_of(results, "fault", "language")
    broken = verdict.check_bounds(by_language)
    lines = [f"{len(results)} runs, {count} of each; milliseconds: median / 99th percentile / worst. "
             f"{machine.describe(arguments.boards)}.", "", *table(results), "", *pooled(results)]
    print("\n".join(lines))
    print(f"\n{len(bad)} runs with a finding")
    for text in broken:
        print(f"FAILED {text}")
    if arguments.store and (bad or broken):
        print("not stored")
    elif arguments.store:
        bounded = [value for (fault, _), values in by_language.items() for value in values
                   if fault not in verdict.WORKER_BOUND and fault not in verdict.UNBOUNDED]
        store(lines, max(bounded), len(bounded))
    return 1 if bad else 3 if broken else 0


if __name__ == "__main__":
    sys.exit(main())

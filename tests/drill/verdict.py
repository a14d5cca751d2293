"""What a run of the drill came to, by the log of the virtual controller alone.

Times are seconds of that log. A run's figure is the later of two moments, less the moment at which the
fault could be seen: that at which the beam went off for good, and that at which the guard's own beam
off arrived. So a controller that turns dark by itself is no credit to the guard.
"""

import collections
import dataclasses
import math
import re

POOLED_BOUND = {"p99": 0.1, "worst": 0.25}  # seconds; all faults of a language that have no bound of their own
WORKER_BOUND = {"worker killed": 1.0, "worker stopped": 2.0}
UNBOUNDED = ("guard killed whole",)
EARLY = 0.1  # what the guard's clock may be ahead of the log's, since what it sends has yet to be read

SERVICE_SILENCE = 2.0
CONTROLLER_SILENCE = 1.0
LINE_MARGIN = 2.0
ESTIMATE_SHARE = 1.2
QUEUED_MOVES = 18  # what the guard takes the controller to have, the last one included

# What the guard sends of itself, in either language; a job of the drill has none of these.
OWN = re.compile(r"\$\$|\$#|\$H|M5|M8|M18S[01]|\(\)|")
AFTER_TRIP = re.compile(r"\$\$|\$#|M5|")

Record = collections.namedtuple("Record", "seconds kind text")


@dataclasses.dataclass
class Run:
    """One run: what was done and what the controller wrote down."""

    fault: str
    language: str
    power: str
    job: list  # its lines
    records: list
    injected: float  # when the fault was made
    seen: str = "event"  # how the moment is found at which it could be seen
    pattern: str = ""  # of what the controller says then
    lease_end: float = 0.0
    durations: list = ()  # of the job's lines, as the guard estimates them


@dataclasses.dataclass
class Outcome:
    figure: float = math.nan  # seconds
    twice: int = 0
    skipped: int = 0
    after: int = 0  # lines carried out behind the trip
    problems: list = dataclasses.field(default_factory=list)


def parse(line):
    """A line of the log; its text stays escaped."""
    seconds, kind, text = (line.rstrip("\n").split(" ", 2) + ["", ""])[:3]
    return Record(float(seconds), kind, text)


def escape(data):
    """Bytes as the log writes them."""
    short = {0x0a: "\\n", 0x0d: "\\r", 0x09: "\\t", 0x5c: "\\\\"}
    return "".join(short.get(byte) or (chr(byte) if 0x20 <= byte <= 0x7e else f"\\x{byte:02x}") for byte in data)


def bare(line):
    """As Grbl gets it: without blanks."""
    return line.replace(" ", "")


def taken(records, pattern):
    """The first groups of the job's lines that the controller took, as numbers. A line that is answered by
    "status:1" in place of "ok" was not taken, and comes again."""
    numbers, waiting = [], []
    for record in records:
        found = re.match(pattern, bare(record.text)) if record.kind == "rx" else None
        if found:
            numbers.append(int(found.group(1)))
            waiting.append(numbers[-1])
        elif record.kind == "tx" and waiting and re.match("ok|error|status:1", record.text):
            number = waiting.pop(0)
            if record.text.startswith("status:1"):
                numbers.remove(number)
    return numbers


def is_lit(record):
    return record.kind == "beam" and record.text.startswith("on=1")


def lit_at(records, seconds):
    """Whether the beam was on then, or went off less than 50 ms before, as it does when the head turns."""
    beams = [record for record in records if record.kind == "beam" and record.seconds <= seconds]
    return bool(beams) and (is_lit(beams[-1]) or any(
        is_lit(before) and seconds - after.seconds < 0.05 for before, after in zip(beams, beams[1:])))


def dark_since(records):
    """When the beam went off for good; None while it is on."""
    since = None
    for record in records:
        if record.kind == "beam":
            if is_lit(record):
                since = None
            elif since is None:
                since = record.seconds
    return since


def stands_since(records):
    """When the head came to rest; None while it moves."""
    since = None
    for record in records:
        if record.kind == "beam":
            if record.text.endswith("moving=1"):
                since = None
            elif since is None:
                since = record.seconds
    return since


def find_cut(run):
    """When the guard's first beam off arrived: its reset, or the reset line; behind a job's last line M5.

    Also one before the fault was made: the two clocks are compared no better than a busy machine lets them,
    and with the next one a run would be late that was not.
    """
    for record in run.records:
        reset = record.kind == "byte" and record.text == "\\x18"
        line = record.kind == "gpio" and record.text.endswith("value 0")
        last = run.seen == "end" and record.kind == "rx" and bare(record.text) == "M5"
        if reset or line or last:
            return record.seconds
    return None


def find_answer(run, pattern):
    for record in run.records:
        if record.seconds >= run.injected and record.kind == "tx" and re.search(pattern, record.text):
            return record.seconds
    return None


def find_seen(run, cut):
    """When the fault could be seen; None when the log does not tell."""
    before = [record for record in run.records if record.seconds <= cut]
    if run.seen == "event":
        return run.injected
    if run.seen == "answer":
        return find_answer(run, run.pattern)
    if run.seen in ("unplugged", "plugged"):
        times = [record.seconds for record in before
                 if record.kind == run.seen and record.seconds >= run.injected]
        return times[0] if times else None
    if run.seen == "service silent":
        answers = [record.seconds for record in before if record.kind == "tx" and "ok" in record.text]
        return answers[-1] + SERVICE_SILENCE if answers else None
    if run.seen == "lease":
        return run.lease_end
    if run.seen == "reports":
        return find_unanswered(before)
    if run.seen == "lines":
        return find_line_due(run, before)
    if run.seen == "end":
        return stands_since(before)
    raise ValueError(run.seen)


def find_unanswered(records):
    """A second after the oldest question that no report has followed."""
    asked = None
    for record in records:
        if record.kind == "byte" and record.text == "?" and asked is None:
            asked = record.seconds
        elif record.kind == "tx" and record.text.startswith("<"):
            asked = None
    return None if asked is None else asked + CONTROLLER_SILENCE


def find_line_due(run, records):
    """When the last line is overdue: what the controller has should be done, and two seconds more."""
    due, busy, number = None, 0.0, 0
    for record in records:
        if record.kind == "rx" and not OWN.fullmatch(bare(record.text)) and number < len(run.durations):
            duration = run.durations[number]
            number += 1
            busy = max(record.seconds, busy) + ESTIMATE_SHARE * duration
            if duration > 0:
                queued = [one for one in run.durations[:number] if one > 0][-QUEUED_MOVES:]
                busy = min(busy, record.seconds + ESTIMATE_SHARE * sum(queued))
            due = busy + LINE_MARGIN
    return due


def check_lines(run, outcome):
    """The job's lines came as they stand in the file, each once, none left out."""
    wanted = [bare(line) for line in run.job]
    at = 0
    for record in run.records:
        if record.kind != "rx" or OWN.fullmatch(bare(record.text)):
            continue
        line = bare(record.text)
        if at < len(wanted) and line == wanted[at]:
            at += 1
        elif at > 0 and line == wanted[at - 1]:
            outcome.twice += 1
            outcome.problems.append(f"line {at} came twice: {record.text}")
        elif line in wanted[at:]:
            found = wanted.index(line, at)
            outcome.skipped += found - at
            outcome.problems.append(f"skipped {found - at} lines before line {found + 1}: {record.text}")
            at = found + 1
        else:
            outcome.problems.append(f"not of the job: {record.text}")
    if run.seen == "end" and at < len(wanted):
        outcome.skipped += len(wanted) - at
        outcome.problems.append(f"ended after {at} of {len(wanted)} lines")


def check_after(run, cut, outcome):
    """Nothing is carried out behind the beam off."""
    for record in run.records:
        if record.seconds <= cut:
            continue
        if record.kind == "rx" and not AFTER_TRIP.fullmatch(bare(record.text)):
            outcome.after += 1
            outcome.problems.append(f"carried out behind the trip: {record.text}")
        elif record.kind == "beam" and record.text.endswith("moving=1"):
            outcome.problems.append("moves behind the trip")


def judge(run):
    """The figure and what is wrong."""
    outcome = Outcome()
    run.records.sort(key=lambda record: record.seconds)
    check_lines(run, outcome)
    if run.seen != "end" and not lit_at(run.records, run.injected):
        outcome.problems.append("the beam was not on when the fault was made")
    if run.seen == "end" and any(record.kind == "byte" and record.text == "\\x18" for record in run.records):
        outcome.problems.append("tripped in a job without a fault")
    cut = find_cut(run)
    if cut is None:
        outcome.problems.append("no beam off has arrived")
        return outcome
    check_after(run, cut, outcome)
    dark = dark_since(run.records)
    if dark is None:
        outcome.problems.append("the beam is on")
        return outcome
    seen = find_seen(run, cut)
    if seen is None:
        outcome.problems.append("tripped before the fault could be seen")
        return outcome
    outcome.figure = max(dark, cut) - seen
    if outcome.figure < -EARLY:
        outcome.problems.append(f"{-outcome.figure:.3f} s before its time")
    return outcome


def is_late(fault, figure):
    """Whether this one run alone breaks a bound."""
    return fault not in UNBOUNDED and figure >= WORKER_BOUND.get(fault, POOLED_BOUND["worst"])


def percentile(values, share):
    """Nearest rank."""
    ordered = sorted(values)
    return ordered[max(0, math.ceil(share * len(ordered)) - 1)]


def check_bounds(figures):
    """@param figures  by (fault, language): seconds. What breaks a bound, in words."""
    broken = []
    for language in sorted({key[1] for key in figures}):
        pooled = [value for (fault, of), values in figures.items() for value in values
                  if of == language and fault not in WORKER_BOUND and fault not in UNBOUNDED]
        if not pooled:
            continue
        for name, value in (("p99", percentile(pooled, 0.99)), ("worst", max(pooled))):
            if value >= POOLED_BOUND[name]:
                broken.append(f"{language}: {name} is {value * 1000:.0f} ms, the bound "
                              f"{POOLED_BOUND[name] * 1000:.0f} ms")
    for (fault, language), values in sorted(figures.items()):
        if fault in WORKER_BOUND and max(values) >= WORKER_BOUND[fault]:
            broken.append(f"{language}, {fault}: {max(values):.3f} s, the bound {WORKER_BOUND[fault]} s")
    return broken

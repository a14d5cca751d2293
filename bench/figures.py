"""What the measuring programs share: rows of figures, and counters of a process."""

import glob
import json
import re
import sys
import time


class Table:
    """The rows of a measuring program, printed as one JSON list at its end."""

    def __init__(self):
        self.rows = []

    def add(self, piece, figure, value, unit, floor=None, goal=None, better="less", bound=None,
            gate=True):
        """With a floor the goal is one for the ratio, else for the value itself.

        @param gate  false for a ratio that one preemption may decide: the gate leaves it out
        """
        ratio = value / floor if floor else None
        self.rows.append({"piece": piece, "figure": figure, "value": value, "unit": unit,
                          "floor": floor, "ratio": ratio, "goal": goal, "better": better,
                          "bound": bound, "gate": gate})

    def print(self):
        json.dump(self.rows, sys.stdout, indent=1)
        print()


def cpu_seconds(pid):
    """Processor time of all threads of a process, its children's left out, to the nanosecond."""
    process_clock = (~pid << 3) | 2  # clock_getcpuclockid(3): CPUCLOCK_SCHED of a process
    return time.clock_gettime(process_clock)


def children_cpu_seconds(pid):
    """Processor time of the children that the process has waited for, in ticks of 10 ms."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[13]) + int(fields[14])) / 100  # cutime and cstime, proc(5)


def context_switches(pid):
    """Voluntary and other ones of all threads."""
    counts = [0, 0]
    for path in glob.glob(f"/proc/{pid}/task/*/status"):
        with open(path, encoding="ascii") as file:
            text = file.read()
        counts[0] += int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", text, re.M).group(1))
        counts[1] += int(re.search(r"^nonvoluntary_ctxt_switches:\s+(\d+)", text, re.M).group(1))
    return counts


def resident_mb(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return int(re.search(r"^VmRSS:\s+(\d+)", file.read(), re.M).group(1)) / 1024


def median(values):
    ordered = sorted(values)
    return ordered[len(ordered) // 2]


def percentile(values, percent):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, len(ordered) * percent // 100)]

"""Make each call of service and guard fail, at each place and with each error, and print what came of it.

usage: run.py full|quick [--table FILE] [--workers N] [--call NAME]...
KESTREL_BUILD names the build folder.

A call's first positions lie in the start: each of them fails, with each error, in a process of its
own. The later ones, to the 200th call (3,000th allocation), fail while clients stream and ask:
every STEP-th in a run, and
as many runs as bring every error to every position. Quick: only every STEP-th position, with the
errors in turn, in one run for each call, and one error for each position of the start.

The guard's calls fail at the same two times, while a laser burns that it has to turn off, and later
while it runs job after job. Of its allocations at the start every STEP-th fails (quick: every 100th).

The fault library is loaded before the virtual camera's, so that calls which the camera answers can
fail as well, and leaves out the calls that the camera's library makes itself.
"""

import argparse
import collections
import json
import os
import queue
import re
import subprocess
import sys
import threading
import time

from calls import ALLOCATIONS, AT_WORK, CALLS, FOREVER, GUARD, GUARDING, MEASURING, SERVICE, VISION
import service
from service import harness
import guard

HERE = os.path.dirname(os.path.abspath(__file__))
PRIVATE_HOST = os.path.join(HERE, "..", "support", "private-host")
STEP = 10
SECONDS, QUICK_SECONDS = 20.0, 2.0  # of jobs behind the guard, where a call comes too seldom

# What the service may do by agreement when the call fails at its start: a pattern of its log or
# output, what is not served then ("" for a service that ends), and the words for the table.
AGREED = (
    (r"create accept socket error !!   accept ip:\(null\) port:8329", "",
     'ends, "create accept socket error !!"'),
    (r"accept socket add fd error !!   accept ip:\(null\) port:8329", "",
     'ends, "accept socket add fd error !!"'),
    (r"create accept socket error !!   accept ip:\(null\) port:8001", "log",
     "serves without log viewers"),
    (r"accept socket add fd error !!   accept ip:\(null\) port:8001", "log",
     "serves without log viewers"),
)
# What glibc itself says, and ends with 127, where it has no memory for a library's variables of a thread.
TLS = "cannot allocate memory for thread-local data: ABORT"
# A registration that fails with these counts as done (EPoll::addFd): nobody hears that listener.
UNHEARD = ("ELOOP", "ENOSPC")


class Worker(threading.Thread):
    """Does tasks in a private host of its own."""

    most = 2

    def __init__(self, tasks, results):
        super().__init__()
        self._tasks, self._results = tasks, results
        self._process = subprocess.Popen(
            [PRIVATE_HOST, sys.executable, "-B", os.path.abspath(__file__), "--worker"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.start()

    def run(self):
        while True:
            try:
                task = self._tasks.get_nowait()
            except queue.Empty:
                break
            self._process.stdin.write(json.dumps(task) + "\n")
            self._process.stdin.flush()
            line = self._process.stdout.readline()
            if not line:
                break
            self._results.append((task, json.loads(line)))
            if sys.stderr.isatty():
                print(f"\r{len(self._results)} runs", end="", file=sys.stderr)
        self._process.stdin.close()
        self._process.wait()


def work():
    """The other end of a worker: a task a line, its result a line."""
    answers = os.fdopen(os.dup(1), "w")
    os.dup2(2, 1)
    host = bench = None
    for line in sys.stdin:
        task = json.loads(line)
        if task["program"] == GUARD:
            bench = bench or guard.Bench()
            result = guard.run(bench, task)
        else:
            host = host or service.Host()
            result = service.run(host, task)
        answers.write(json.dumps(result) + "\n")
        answers.flush()
    for each in (host, bench):
        if each is not None:
            each.close()


def do_all(tasks):
    """Results in no order: [(task, result)]."""
    waiting = queue.Queue()
    for task in tasks:
        waiting.put(task)
    results = []
    workers = [Worker(waiting, results) for _ in range(min(Worker.most, len(tasks)))]
    for worker in workers:
        worker.join()
    if len(results) != len(tasks):
        raise SystemExit("a worker ended early")
    return results


def count_start(calls):
    """How often each call comes until the service listens, by name."""
    counts = {}
    for program in sorted({call.program for call in calls}):
        of_program = [call for call in calls if call.program == program]
        plan = ";".join(f"{call.rule}:{FOREVER}:EIO" for call in of_program)
        result = do_all([{"call": "", "position": 0, "program": program, "plan": plan, "until": 0, "load": ""}])[0][1]
        if not result["listens"] or result["failing"]:
            raise SystemExit(f"{program} does not serve undisturbed: {result}")
        counts.update((call.name, count) for call, count in zip(of_program, result["at_start"]))
    return counts


def count_all(calls):
    """How often each call comes at all under its load, its last for at least that often, by name."""
    tasks = [{"call": call.name, "program": call.program, "plan": f"{call.rule}:{FOREVER}:EIO", "until": call.last,
              "last": call.last, "load": call.load, "hurry": call.load == "reopen"}
             for call in calls]
    return {task["call"]: min(result["seen"], task["last"]) for task, result in do_all(tasks)}


def start_tasks(call, count, quick):
    step = 1
    if call.program == GUARD and call.rule in ALLOCATIONS:
        step = 100 if quick else STEP
    for position in range(1, count + 1, step):
        errors = [call.errors[position % len(call.errors)]] if quick else call.errors
        for error in errors:
            yield {"call": call.name, "program": call.program, "phase": "start",
                   "position": position, "errors": [error],
                   "plan": f"{call.rule}:{position}:{error}", "until": 0, "load": ""}


def stream_tasks(call, count, quick):
    """Runs of every STEP-th call; the errors in turn, so that each run meets several."""
    errors = call.errors
    for first in range(count + 1, count + 1 + (1 if quick else STEP)):
        for turn in range(1 if quick else len(errors)):
            turned = errors[turn:] + errors[:turn]
            yield {"call": call.name, "program": call.program, "phase": "stream", "position": first, "errors": turned,
                   "plan": f"{call.rule}:{first}/{STEP}-{call.last}:{','.join(turned)}",
                   "until": call.last, "load": call.load, "hurry": call.load == "reopen"}


def verdict(task, result):
    """What came of it in a few words, and whether it is a failure."""
    if task["program"] == GUARD:
        return guard.verdict(task, result)
    text = result["output"] + result["log"]
    if result["sanitizer"]:
        return "sanitizer: " + result["sanitizer"][:200], True
    if result["bad"]:
        return f"wrong bytes: {result['bad'][0]}", True
    if not result["ended"] and not result["failing"]:
        return "served on" if result["hits"] else "not reached", False
    if task["phase"] == "start":
        for pattern, unserved, words in AGREED:
            agreed = "exit 1" == result["ended"] if not unserved else (
                not result["ended"] and {unserved} == set(result["failing"]))
            if agreed and re.search(pattern, text):
                return words, False
        if "epoll_ctl" == task["call"] and task["errors"][0] in UNHEARD and not result["ended"]:
            return "as agreed, a listener that nobody hears", False
        if task["plan"].split(":")[0] in ALLOCATIONS:
            if result["ended"]:
                return "ends at the start", False
            return "starts without what it was for", False
        if "pthread_create" == task["call"] and not result["ended"]:
            return "as agreed, without the thread and what it serves", False
    if result["ended"] and task["call"] in {call.name for call in MEASURING} and TLS in text:
        return "ends, by the C library: a thread's variables", False
    last = text.strip().splitlines()[-1:] or [""]
    what = result["ended"] or "does not serve: " + ", ".join(
        f"{name} {why}" for name, why in result["failing"].items())
    return f"FAILED {task['plan']}: {what}; {last[0]}", True


def table(calls, at_start, reached, results):
    """Markdown rows, the failures, and the number of failed calls."""
    rows, failures, faults = [], [], 0
    for call in calls:
        starts, later, here, runs = set(), False, 0, collections.Counter()
        for task, result in results:
            if task["call"] != call.name:
                continue
            words, failed = verdict(task, result)
            if failed:
                failures.append(words)
            if failed or result["hits"]:
                runs["FAILED" if failed else words] += 1
            here += result["hits"]
            if result["hits"] and task["phase"] == "start":
                starts.add(task["position"])
            later |= bool(result["hits"]) and task["phase"] == "stream"
        faults += here
        last = reached[call.name]
        outcome = "; ".join(f"{words}: {number}" for words, number in runs.most_common())
        rows.append(
            f"| {call.name} | {f'1 to {max(starts)}' if starts else 'none'} | "
            f"{f'{at_start[call.name] + 1} to {last}' if later else 'none'} | {last or '-'} | "
            f"{len(call.errors)} | {here} | {outcome if last else 'not called'} |")
    head = ["| Call | Failed at the start | Failed later | Reached | Errors | "
            "Failed calls | Runs |", "|---|---|---|---|---|---|---|"]
    return head + rows, failures, faults


def try_service(calls, sanitizer, quick):
    """@return the table's rows, the failures, and the numbers of failed calls and of runs"""
    at_start = count_start(calls)
    for call in calls:
        if call.program == VISION:  # its last ones are counted from the first measurement
            call.last += at_start[call.name]
    reached = {name: max(count, at_start[name]) for name, count in count_all(calls).items()}
    # A sanitizer's wrapper of these hides whether the service or the virtual camera calls, which it
    # does while it is opened.
    tasks = [task for call in calls if call.program == SERVICE
             and not (sanitizer and call.name in ("send", "sendmsg", "recv", "poll"))
             for task in start_tasks(call, at_start[call.name], quick)]
    tasks += [task for call in calls if reached[call.name] > at_start[call.name]
              for task in stream_tasks(call, at_start[call.name], quick)]
    return *table(calls, at_start, reached, do_all(tasks)), len(tasks)


def work_tasks(call, count, quick):
    """As stream_tasks, but each position fails once: a run takes seconds, however quick the guard is."""
    for first in range(count + 1, count + 1 + (1 if quick else STEP)):
        turn = first % len(call.errors)
        errors = call.errors[turn:] + call.errors[:turn]
        last = count + call.last
        yield {"call": call.name, "program": GUARD, "phase": "stream", "position": first, "errors": errors,
               "plan": f"{call.rule}:{first}/{STEP}-{last}:{','.join(errors)}", "until": last,
               "seconds": QUICK_SECONDS if quick else SECONDS}


def try_guard(calls, quick):
    """@return as try_service"""
    Worker.most *= 2  # most of its time a run waits for the arm
    at_start = count_start(calls)
    tasks = [task for call in calls for task in start_tasks(call, at_start[call.name], quick)]
    tasks += [task for call in calls if not quick or call.rule in AT_WORK
              for task in work_tasks(call, at_start[call.name], quick)]
    results = do_all(tasks)
    reached = {call.name: min(at_start[call.name] + call.last, max(
        (result["seen"] for task, result in results if task["call"] == call.name), default=0)) for call in calls}
    return *table(calls, at_start, reached, results), len(tasks)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("form", choices=("full", "quick"))
    parser.add_argument("--table")
    parser.add_argument("--workers", type=int, default=3 * (os.cpu_count() or 1),
                        help="services at once, which mostly wait; three a processor by default")
    parser.add_argument("--call", action="append", help="only this one, e.g. send")
    arguments = parser.parse_args()
    quick = "quick" == arguments.form
    Worker.most = arguments.workers
    sanitizer = harness.sanitizer_of(f"{harness.BUILD}/application/kestrel-server")[0]
    measuring = MEASURING if os.path.exists(service.PLUGIN) else ()
    calls = [call for call in CALLS + measuring + GUARDING if (not arguments.call or call.name in arguments.call)
             and not (sanitizer and call.rule in ALLOCATIONS)]  # those are the sanitizer's own
    if not calls:
        parser.error("no such call")
    if not measuring:
        print("the vision host is left out: its plug-in is not built")

    found = False
    written = []
    for name in ("service", "guard"):
        chosen = [call for call in calls if (call.program == GUARD) == (name == "guard")]
        if not chosen:
            continue
        start = time.monotonic()
        rows, failures, faults, runs = (try_guard(chosen, quick) if name == "guard"
                                        else try_service(chosen, sanitizer, quick))
        minutes = (time.monotonic() - start) / 60
        print("\n".join(rows + failures))
        print(f"\n{faults} calls failed in {runs} runs of the {name}, {minutes:.1f} minutes; "
              f"{len(failures)} runs with a finding\n", flush=True)
        found |= bool(failures)
        written += rows + [""]
    if arguments.table:
        with open(arguments.table, "w", encoding="utf-8") as file:
            file.write("\n".join(written))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(work() if "--worker" in sys.argv else main())

"""One run of the guard with a plan of faults: is the beam off in the end, or does the guard go on rightly?

The judge is the virtual controller, which tells whether the beam is on and which lines it has got.
"""

import contextlib
import os
import re
import select
import signal
import subprocess
import sys
import tempfile
import termios
import time
import tty
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "drill"))

from burning_board import GUARD, Board, Lines, is_running, wait_until
from service import FAULT_LIBRARY, Report, harness
from verdict import taken

COME_UP = 10.0  # seconds, as the others: only ends a failing run
OFF_WITHIN = 3.0
STEP = 5.0
GO_ON = 20.0
LINES = 8  # of a job's moves
FINDING = re.compile(r"ERROR: (Address|Leak)Sanitizer|runtime error:|terminate called|Assertion")

NO_MEMORY = "std::bad_alloc"


class Refused(Exception):
    """The guard does not do now what it was asked for."""


class Bench:
    """The boards of one worker, a language each, which many runs of the guard share."""

    def __init__(self):
        self.boards = {}

    def board(self, task):
        language = ("arm", "grbl")[(zlib.crc32(task["call"].encode()) + task["position"]) % 2]
        if language not in self.boards:
            self.boards[language] = Board(language)
        return self.boards[language]

    def close(self):
        for board in self.boards.values():
            board.close()


def is_lit(board):
    return "on=1" in board.control.ask("beam")


def goes_off(board, within):
    with contextlib.suppress(TimeoutError):
        return bool(wait_until(lambda: not is_lit(board), "", within))
    return False


def light(board):
    """As a guard that was killed has left it: the laser burns in the middle of a move."""
    def burn():
        port = os.open(board.path("port"), os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
        try:
            tty.setraw(port)
            attributes = termios.tcgetattr(port)
            attributes[4:6] = [termios.B115200, termios.B115200]
            termios.tcsetattr(port, termios.TCSANOW, attributes)
            os.write(port, b"\n$X\nM3 S500\nG91\nG1 X-0.5 F5\n")
            wait_until(lambda: is_lit(board), "", 0.5)
        finally:
            os.close(port)
        return True

    def lit():  # what the controller was told before may still reset it
        with contextlib.suppress(TimeoutError, OSError):
            return burn()
        return False
    wait_until(lit, "the laser burns", pause=0.02)


def descriptors(board):
    return len(os.listdir(f"/proc/{board.worker()}/fd"))


class Load:
    """Service and operator of a guard whose calls fail, job after job."""

    def __init__(self, board):
        self.board = board
        self.bad = []
        self.cycles = 0

    def connect(self):
        operator = Lines(self.board.path("socket"))
        operator.socket.settimeout(STEP)
        return operator

    @staticmethod
    def state_until(board, operator, **wanted):
        def holds():
            board.operator = operator
            state = board.ask(do="state")
            return all(state[name] == value for name, value in wanted.items())
        try:
            wait_until(holds, "", STEP, pause=0.01)
        except TimeoutError:
            raise Refused(str(wanted)) from None

    def ask(self, operator, passed=None, **request):
        """Until it is granted: an answer of the controller's may still be due."""
        def granted():
            self.board.operator = operator
            return self.board.ask(passed, **request)["ok"]
        try:
            wait_until(granted, "", STEP, pause=0.01)
        except TimeoutError:
            raise Refused(str(request)) from None

    @staticmethod
    def run_line(terminal, line):
        reply = b"wait\n"
        while reply == b"wait\n":
            os.write(terminal, line.encode() + b"\n\n")
            if not select.select([terminal], [], [], STEP)[0]:
                raise Refused(line)
            reply = os.read(terminal, 64)
            if reply == b"wait\n":
                time.sleep(0.5)
        if reply != b"ok\n":
            raise Refused(f"{line}: {reply!r}")

    def cycle(self):
        """Home, and a job with a pause in it. Raises Refused or an OSError when the guard stops it."""
        board = self.board
        jobs = ["M3 S500", *(f"G1 X-{10 + number / 100:.2f} Y-5 F3000" for number in range(LINES)), "M5"]
        board.read_log()
        board.records = []
        with contextlib.ExitStack() as open_files:
            operator = self.connect()
            open_files.callback(operator.close)
            self.state_until(board, operator, beam_seen_off=True)
            self.ask(operator, do="motion")
            self.ask(operator, do="home")
            self.state_until(board, operator, homed=True)
            terminal = os.open(board.path("ttyACM"), os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
            open_files.callback(os.close, terminal)
            job = open_files.enter_context(tempfile.TemporaryFile())
            job.write("".join(line + "\n" for line in jobs).encode())
            job.flush()
            self.ask(operator, job.fileno(), do="job", lease=10000)
            for number, line in enumerate(jobs):
                self.run_line(terminal, line)
                if number == LINES // 2:
                    self.ask(operator, do="pause")
                    self.state_until(board, operator, paused=True)
                    self.ask(operator, do="resume")
            self.state_until(board, operator, level="dark")

    def once(self):
        """A cycle as far as the guard lets it; behind it the beam is off. @return whether it was whole"""
        whole = False
        with contextlib.suppress(Refused, OSError, ValueError, IndexError):
            self.cycle()
            whole = True
        self.board.operator = None
        self.cycles += 1
        self.judge()
        if self.board.guard.poll() is None and not self.bad:
            self.disturb()
        return whole

    def judge(self):
        if not goes_off(self.board, OFF_WITHIN):
            self.bad.append("the beam is on behind a job")
        self.board.read_log()
        got = taken(self.board.records, r"G1X-1\d\.(\d\d)")
        if got != list(range(len(got))):
            self.bad.append(f"the lines that the controller took: {got}")

    def disturb(self):
        """Between two jobs: a worker anew, a cable pulled."""
        if self.cycles % 3 == 1:
            self.board.guard.send_signal(signal.SIGHUP)
        elif self.cycles % 3 == 2:
            self.board.command("unplug")
            time.sleep(0.05)
            self.board.command("plug")


def come_up(board):
    """@return the operator's connection once the guard has seen the beam off; None when it has ended"""
    end = time.monotonic() + COME_UP
    while board.guard.poll() is None:
        with contextlib.suppress(OSError, ValueError):
            board.operator = Lines(board.path("socket"))
            board.operator.socket.settimeout(STEP)
            while time.monotonic() < end and not board.ask(do="state")["beam_seen_off"]:
                time.sleep(0.005)
            if time.monotonic() < end:
                return board.operator
        if time.monotonic() > end:
            return None
        time.sleep(0.01)
    return None


def stop(board, worker):
    """As the service manager does. @return what is wrong, or ''"""
    board.guard.terminate()
    try:
        board.guard.wait(COME_UP)
        wait_until(lambda: not is_running(worker), "", STEP)
        return ""
    except (subprocess.TimeoutExpired, TimeoutError):
        for process in (board.guard.pid, worker):
            with contextlib.suppress(OSError):
                os.kill(process, signal.SIGKILL)
        board.guard.wait()
        return "it does not end when it is told to"


def how_ended(status):
    return f"signal {signal.Signals(-status).name}" if status < 0 else f"exit {status}"


def finish(board, result, worker):
    """Ends what still runs, and asks the controller for its beam."""
    if board.guard.poll() is None:
        if not goes_off(board, OFF_WITHIN):
            result["bad"].append("the beam is on")
        wrong = stop(board, worker)
        if wrong:
            result["bad"].append(wrong)
        elif board.guard.returncode < 0:
            result["ended"] = how_ended(board.guard.returncode)
    else:
        result["ended"] = how_ended(board.guard.returncode)
        if worker:
            wait_until(lambda: not is_running(worker), "the worker has ended", STEP)
    result["beam"] = "off" if goes_off(board, 1.0) else "on"
    if result["beam"] == "on":  # what the service manager runs behind each end
        subprocess.run([GUARD, "--off", board.path("port")], stderr=subprocess.DEVNULL, check=False)
        result["beam"] = "off by --off" if goes_off(board, 1.0) else "on"
    board.guard = board.operator = None


def work(board, result, report, task):
    """Job after job until the call has come that often; then it must go on rightly."""
    # The least of some: a connection that came too early may not be forgotten yet.
    idle = min((time.sleep(0.02), descriptors(board))[1] for _ in range(5))
    board.operator.close()
    load = Load(board)
    start = time.monotonic()
    while (board.guard.poll() is None and not load.bad and report.seen() < task["until"] and
           time.monotonic() - start < task["seconds"]):
        load.once()
    start = time.monotonic()
    whole = False
    while board.guard.poll() is None and not load.bad and not whole and time.monotonic() - start < GO_ON:
        whole = load.once()
    if board.guard.poll() is None and not load.bad:
        if not whole:
            result["failing"]["job"] = f"not in {GO_ON} s"
        count_left(board, load, idle)
    result["bad"] += load.bad


def count_left(board, load, idle):
    """With a connection, as at first. What came between two jobs may still replace the worker."""
    seen = []

    def idles():
        operator = come_up(board)
        with contextlib.suppress(OSError, IndexError):
            seen.append(descriptors(board))
        if operator is not None:
            operator.close()
        return board.guard.poll() is not None or seen[-1:] == [idle]
    try:
        wait_until(idles, "", STEP, pause=0.1)
    except TimeoutError:
        load.bad.append(f"descriptors: {seen[-1:]}, idle {idle}")


def run(bench, task):
    """Do a task {call, position, plan, until, seconds}; until 0: no load. Returns what came of it."""
    board = bench.board(task)
    handle, path = tempfile.mkstemp(prefix="kestrel-report.")
    os.close(handle)
    report = Report(path)
    sanitizer, library = harness.sanitizer_of(GUARD)
    board.environment = dict(
        os.environ, KESTREL_FAULT=task["plan"], KESTREL_FAULT_PROGRAM="kestrel-guard", KESTREL_FAULT_REPORT=path,
        LD_PRELOAD=":".join(([library] if sanitizer == "asan" else []) + [FAULT_LIBRARY]))
    result = {"listens": False, "bad": [], "failing": {}, "ended": "", "sanitizer": "", "beam": ""}
    board.journal.flush()
    before = os.path.getsize(board.path("journal"))
    worker = 0
    try:
        light(board)
        board.configure(reset_line=False)
        board.launch()
        operator = come_up(board)
        result["listens"] = operator is not None
        result["at_start"] = [report.seen(rule) for rule in range(task["plan"].count(";") + 1)]
        if operator is not None:
            worker = board.worker()
            if is_lit(board):
                result["bad"].append("it calls the beam off that is on")
            if task["until"]:
                work(board, result, report, task)
            operator.close()
        elif board.guard.poll() is None:
            result["failing"]["start"] = f"not in {COME_UP} s"
            with contextlib.suppress(OSError, IndexError):
                worker = board.worker()
        with contextlib.suppress(OSError, IndexError):
            worker = board.worker()
        finish(board, result, worker)
        result["seen"], result["hits"] = report.seen(), report.hits()
        with open(board.path("journal"), encoding="utf-8", errors="replace") as file:
            file.seek(before)
            text = file.read()
        found = FINDING.search(text)
        result["sanitizer"] = text[found.start():][:3000] if found else ""
        result["output"], result["log"] = text[-3000:], ""
    finally:
        os.unlink(path)
    return result


def verdict(task, result):
    """What came of it in a few words, and whether it is a failure."""
    words = ""
    if NO_MEMORY in result["sanitizer"]:  # where nobody can catch it
        # A library's static objects.
        if result["ended"] == "signal SIGABRT" and not result["listens"] and result["beam"] == "off by --off":
            return "aborts before main(), is started again; beam off by `--off`", False
        # The JSON library allocates where it frees; the parent lives on.
        if result["ended"] == "exit 1" and result["beam"] == "off":
            return "its worker aborts, is started again; beam off", False
    if result["sanitizer"]:
        words = result["sanitizer"][:300]
    elif result["bad"]:
        words = result["bad"][0]
    elif result["ended"].startswith("signal"):
        words = result["ended"]
    elif result["beam"] == "on":
        words = f"{result['ended']}, and the beam is on"
    elif result["failing"]:
        words = "does not go on: " + ", ".join(f"{name} {why}" for name, why in result["failing"].items())
    elif not result["ended"]:
        return ("beam off, goes on" if result["hits"] else "not reached"), False
    elif result["ended"] == "exit 0":
        words = "it has ended as if it was told to"
    elif result["beam"] == "off by --off" and task["phase"] != "start":
        words = f"{result['ended']}, and the beam was on until --off"
    else:
        return {"exit 1": "ends, is started again", "exit 2": "refuses to start"}[result["ended"]] + (
            "; beam off" if result["beam"] == "off" else "; beam off by `--off`"), False
    last = result["output"].strip().splitlines()[-1:] or [""]
    return f"FAILED {task['plan']}: {words}; {last[0]}", True

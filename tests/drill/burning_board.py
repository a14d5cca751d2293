"""A board of the drill: a virtual controller, the guard before it, and the service behind the guard."""

import contextlib
import ctypes
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import verdict

BUILD = os.environ.get("KESTREL_BUILD", "")
GUARD = f"{BUILD}/guard/kestrel-guard"
CONTROLLER = f"{BUILD}/simulator/controller/kestrel-controller"
SERVICE = f"{BUILD}/tests/drill/kestrel-drill-service"
MEMORY = "/dev/shm"
DEADLINE = 30.0  # seconds; only ends a failing run

ACCELERATION = 500.0  # mm/s^2, of controller and guard
OPTIONS = {
    # The laser stays on in an alarm: it is the guard that has to turn it off.
    "arm": ["--alarm-keeps-laser"],
    "grbl": ["--language", "grbl"] + [word for setting in (
        "32=1", "22=1", "24=3000", "25=6000", "26=10", "27=1", "110=6000", "111=6000", "112=6000", "120=500", "121=500",
        "122=500", "130=60", "131=20", "132=10") for word in ("--setting", setting)],
}
LANGUAGES = {"arm": "kestrel", "grbl": "grbl"}  # as the guard's configuration names them


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG: a drill that ends leaves nothing behind


def start(words, **options):
    return subprocess.Popen(words, stdin=subprocess.DEVNULL, preexec_fn=die_with_parent, **options)


def wait_until(condition, what, deadline=DEADLINE, pause=0.005):
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise TimeoutError(f"not within {deadline} s: {what}")
        time.sleep(pause)


def is_running(process):
    try:
        with open(f"/proc/{process}/stat", encoding="ascii") as file:
            return file.read().rsplit(")", 1)[1].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):  # the latter when it goes while it is read
        return False


class Lines:
    """The client's end of a Unix socket that answers each line by a line."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(DEADLINE)
        self.socket.connect(path)
        self.input = b""

    def ask(self, line, passed=None):
        if passed is None:
            self.socket.sendall(line.encode() + b"\n")
        else:
            socket.send_fds(self.socket, [line.encode() + b"\n"], [passed])
        while b"\n" not in self.input:
            data = self.socket.recv(65536)
            if not data:
                raise ConnectionError("closed")
            self.input += data
        answer, self.input = self.input.split(b"\n", 1)
        return answer.decode()

    def close(self):
        self.socket.close()


class Board:
    """Used by one process; close() ends everything that it has started."""

    def __init__(self, language):
        self.language = language
        self.environment = None  # of the guard
        # In memory: a disk that is busy stops whoever writes a log, for seconds at times.
        self.folder = tempfile.mkdtemp(prefix="kestrel-drill.", dir=MEMORY if os.path.isdir(MEMORY) else None)
        self.guard = self.service = self.operator = None
        self.worker_id = 0
        self.reset_line = None
        self.lease = 0.0  # seconds; renewed while somebody waits
        self.renewed = 0.0
        self.renewing = True
        self.records = []
        self.controller = start([CONTROLLER, "--node", self.path("port"), "--control", self.path("control"),
                                 "--journal", self.path("wire"), "--gpio", self.path("gpio"), "--boot-ms", "100",
                                 *OPTIONS[language]], stdout=subprocess.PIPE, text=True)
        if self.controller.stdout.readline() != "ready\n":
            raise AssertionError("the virtual controller is not ready")
        self.control = Lines(self.path("control"))  # which listens before it is ready
        self.offset = min(self.measure_offset() for _ in range(20))[1]
        self.wire = open(self.path("wire"), encoding="ascii")
        self.rest = ""
        for file, store in (("export", "106"), ("gpio106/direction", "high")):
            with open(self.path(f"gpio/{file}"), "w", encoding="ascii") as pin:
                pin.write(store)
        self.journal = open(self.path("journal"), "w+", encoding="utf-8")

    def path(self, name):
        return f"{self.folder}/{name}"

    # The controller.

    def measure_offset(self):
        """How long it took, and what the log's seconds lack to this system's clock."""
        before = time.monotonic()
        beam = self.control.ask("beam")
        after = time.monotonic()
        return after - before, (before + after) / 2 - float(beam.rsplit("now=", 1)[1])

    def now(self):
        """In the log's seconds."""
        return time.monotonic() - self.offset

    def command(self, command):
        if self.control.ask(command) != "ok":
            raise AssertionError(command)

    def state(self, field):
        words = dict(word.split("=", 1) for word in self.control.ask("state").split())
        return float(words[field])

    def read_log(self):
        """Take in what the log has more."""
        text = self.rest + self.wire.read()
        *lines, self.rest = text.split("\n")
        self.records += [verdict.parse(line) for line in lines]

    def see(self, condition):
        """Whether the log's records since the run began fulfil a condition; renews the lease."""
        if self.renewing and self.lease and time.monotonic() - self.renewed > self.lease / 3:
            self.renew()
        self.read_log()
        return condition(self.records)

    def wait(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.see(lambda _: True)
            time.sleep(min(0.02, max(0.0, end - time.monotonic())))

    # The guard.

    def start_guard(self, reset_line):
        if self.guard is not None and self.guard.poll() is None and self.reset_line == reset_line:
            return
        self.stop_guard()
        self.configure(reset_line)
        self.operator = wait_until(self.run_guard, "the guard works")
        self.worker_id = self.worker()

    def configure(self, reset_line):
        """For a guard that is not running."""
        line = f'reset_line = "{self.path("gpio/gpio106/value")}"\n' if reset_line else ""
        with open(self.path("guard.toml"), "w", encoding="utf-8") as file:
            file.write(f'[controller]\nport = "{self.path("port")}"\nlanguage = "{LANGUAGES[self.language]}"\n{line}'
                       f'[service]\nlink = "{self.path("ttyACM")}"\n[operator]\nsocket = "{self.path("socket")}"\n'
                       "[limits]\nmin = [-100, -100, -100]\nmax = [100, 100, 100]\nfeed = 6000\npower = 1000\n"
                       f"acceleration = {ACCELERATION}\nrapid_feed = 6000\n")
        self.reset_line = reset_line
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path("socket"))

    def launch(self):
        self.guard = start([GUARD, "--config", self.path("guard.toml"), "--last-port", self.path("last-port")],
                           stdout=self.journal, stderr=self.journal, env=self.environment)

    def run_guard(self):
        """As the service manager does: one that has ended is started again."""
        if self.guard is None or self.guard.poll() is not None:
            self.launch()
        try:
            return Lines(self.path("socket"))
        except OSError:
            return None

    def await_end(self):
        """Of a guard that ends by itself, both processes: the next one wants the port."""
        self.guard.wait(DEADLINE)
        wait_until(lambda: not is_running(self.worker_id), "the worker has ended")
        self.stop_guard()

    def stop_guard(self):
        if self.operator is not None:
            self.operator.close()
            self.operator = None
        if self.guard is not None:
            self.guard.terminate()
            self.guard.wait()
            self.guard = None

    def worker(self):
        with open(f"/proc/{self.guard.pid}/task/{self.guard.pid}/children", encoding="ascii") as file:
            return int(file.read().split()[0])

    def ask(self, passed=None, **request):
        return json.loads(self.operator.ask(json.dumps(request), passed))

    def try_ask(self, passed=None, **request):
        """Until it is granted: a former homing's last answer may still be due."""
        answer = {}

        def granted():
            answer.update(self.ask(passed, **request))
            return answer["ok"]
        try:
            wait_until(granted, "", deadline=5, pause=0.01)
        except TimeoutError:
            raise TimeoutError(f"{request}: {answer}") from None

    def renew(self):
        """The lease's end is counted from before it was asked for."""
        self.renewed = time.monotonic()
        with contextlib.suppress(OSError):
            self.ask(do="lease")

    def release_reset_line(self):
        self.read_log()
        stores = [record.text for record in self.records if record.kind == "gpio"]
        if not stores or not stores[-1].endswith("value 0"):
            return
        if self.guard is not None and self.guard.poll() is None:
            self.ask(do="reset")
        else:
            with open(self.path("gpio/gpio106/value"), "w", encoding="ascii") as pin:
                pin.write("1")
        wait_until(lambda: self.see(lambda records: any(
            record.kind == "gpio" and record.text.endswith("value 1") for record in records[-20:])), "the line is high")

    def home(self):
        """From whatever the last run has left: dark, then motion and homed."""
        def seen_off():
            self.release_reset_line()
            return self.ask(do="state")["beam_seen_off"]

        homing = False

        def homed():
            """Begins anew when a greeting that was on its way has tripped it."""
            nonlocal homing
            state = self.ask(do="state")
            if state["level"] == "dark":
                homing = False
                wait_until(seen_off, "the beam is seen off", pause=0.02)
                self.ask(do="motion")
            elif not homing:
                homing = self.ask(do="home")["ok"]
            else:
                return state["homed"]
            return False
        wait_until(homed, "the arm is homed", pause=0.02)

    # The service.

    def start_job(self, lines, lease):
        """Open the job as the operator, then start the service on it."""
        with open(self.path("tmp.gcode"), "w", encoding="ascii") as file:  # the service's name for it
            file.write("".join(line + "\n" for line in lines))
        self.read_log()
        self.records = []
        with open(self.path("tmp.gcode"), encoding="ascii") as file:
            self.try_ask(file.fileno(), do="job", lease=int(lease * 1000))
        self.lease, self.renewed, self.renewing = lease, time.monotonic(), True
        self.service = start([SERVICE, self.path("ttyACM")], cwd=self.folder, stdout=subprocess.DEVNULL)

    def stop_service(self):
        """Its terminal is replaced: whoever comes next finds a new one."""
        if self.service is None:
            return
        guarded = self.guard is not None and self.guard.poll() is None
        # One that was killed has been noticed.
        former = os.readlink(self.path("ttyACM")) if guarded and self.service.poll() is None else ""
        self.service.kill()
        self.service.wait()
        self.service = None
        if former:
            wait_until(lambda: os.readlink(self.path("ttyACM")) != former, "a new terminal")

    def write_as_service(self, data):
        """Bytes on the service's terminal that are not the service's."""
        terminal = os.open(self.path("ttyACM"), os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
        seconds = self.now()
        os.write(terminal, data)
        os.close(terminal)
        return seconds

    def tell_journal(self, lines):
        self.journal.flush()
        with open(self.path("journal"), encoding="utf-8") as file:
            return file.read().splitlines()[-lines:]

    def close(self):
        if self.service is not None:
            self.service.kill()
            self.service.wait()
        if self.guard is not None:
            for process in (self.guard.pid, self.worker_id):
                if is_running(process):
                    os.kill(process, signal.SIGKILL)
            self.guard.wait()
        self.controller.kill()
        self.controller.wait()
        self.controller.stdout.close()
        for file in (self.wire, self.journal, self.control, self.operator):
            if file is not None:
                file.close()
        shutil.rmtree(self.folder, ignore_errors=True)

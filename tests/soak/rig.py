"""The service under churn, with camera, controller and console, and what is read off it."""

import contextlib
import glob
import http.client
import json
import os
import re
import subprocess
import tempfile
import threading
import time

from controller import Controller
from harness import BUILD, CARD, HTTP_PORT, SOURCE, Camera, Server, wait_until

PINS = "/sys/class/gpio"  # each reset leaves its descriptors open by agreement
PINS_PER_RESET = 4
MOST_FAILURES = 20  # a service that is gone fails every client
PLUGIN = f"{BUILD}/plugin/libframe_process.so"
MEASURE_BOUND = 120.0  # s; two pictures, and three moves that are waited for 20 s each at most
FOCUS = 1.5  # mm; where the arm's laser is sharp
CONSOLE_DEADLINE = 60.0  # s; stopping a job waits 10 s for a reply and 2 s more for "M5"


class Tally:
    """Counts of what was done, and what went wrong; any thread."""

    def __init__(self):
        self._lock = threading.Lock()
        self.counts = {}
        self.failures = []

    def add(self, name, number=1):
        with self._lock:
            self.counts[name] = self.counts.get(name, 0) + number

    def fail(self, text):
        with self._lock:
            if len(self.failures) >= MOST_FAILURES:
                return
            self.failures.append(text)
        print(f"FAILED: {text}", flush=True)


class Rig:
    """Everything that runs; close() ends it and returns how the service ended."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="kestrel-soak.")
        os.makedirs(f"{CARD}/www", exist_ok=True)
        os.makedirs(f"{CARD}/camera", exist_ok=True)
        self.files = self._make_files()
        self.camera = Camera("--keep", "1000")
        # An acknowledgement that is read together with the end of its move would cost a measurement 20
        # seconds: positioning moves, which no job here has, take their time.
        self.controller = Controller(self.folder, "--settle-ms", "300", "--focus-z", str(FOCUS),
                                     "--position", "-5,5,0", "--scene", self.camera.path("scene"))
        self.arm = threading.Lock()  # held by who moves the arm: a job, or a measurement
        self.measures = os.path.exists(PLUGIN)
        if self.measures:
            os.symlink(PLUGIN, f"{self.folder}/libframe_process.so")
        else:
            print("nothing is measured: the vision plug-in is not built", flush=True)
        # A small quarantine, so that freed memory is reused and the resident size settles soon.
        self.server = Server(camera=self.camera, program="kestrel-server-soak", cwd=self.folder,
                             stdin=subprocess.PIPE, limit_files=8192, environment={
                                 "ASAN_OPTIONS": "quarantine_size_mb=8:detect_leaks=1:"
                                                 + os.environ.get("ASAN_OPTIONS", "")})
        self.resets = 1  # by the start-up
        self._console = threading.Lock()
        self._read_to = 0
        wait_until(lambda: "videocapture0" in self.threads(), "its threads run")

    @staticmethod
    def _make_files():
        """Files of the page and a large one, by their names."""
        contents = {"large.png": os.urandom(300000), "empty.txt": b""}
        for path in glob.glob(f"{SOURCE}/www/*"):
            if os.path.isfile(path):
                with open(path, "rb") as file:
                    contents[os.path.basename(path)] = file.read()
        for name, content in contents.items():
            with open(f"{CARD}/www/{name}", "wb") as file:
                file.write(content)
        known = (".html", ".css", ".js", ".txt", ".png", ".jpg", ".ico")
        return {name: content for name, content in contents.items() if name.endswith(known)}

    # The console.

    def console(self, words):
        """Give a command "soak ..." and wait until it is done; returns what was printed."""
        with self._console:
            self.server.process.stdin.write(f"soak {words}\n".encode())
            self.server.process.stdin.flush()
            text = ""
            end = time.monotonic() + CONSOLE_DEADLINE
            while "soak done\n" not in text:
                if time.monotonic() > end:
                    raise AssertionError(f"console: {words!r} is not done in {CONSOLE_DEADLINE} s")
                if not self.server.alive():
                    raise AssertionError(f"the service ended: {self.server.process.returncode}")
                time.sleep(0.01)
                text += self._new_output()
            return text

    def _new_output(self):
        with open(self.server.output_path, "rb") as file:
            file.seek(self._read_to)
            data = file.read()
        self._read_to += len(data)
        return data.decode("utf-8", "replace")

    def state(self):
        """What the program in the service reports: consumers, allocated bytes, state of the print."""
        found = re.search(r"soak state consumers=(-?\d+) allocated=(\d+) print=(\d+)",
                          self.console("state"))
        return {name: int(found.group(number + 1))
                for number, name in enumerate(("consumers", "allocated", "print"))}

    def open_serial(self):
        """Open the controller's port again, which resets the controller."""
        self.resets += 1
        if "soak opened 1" not in self.console("open"):
            raise AssertionError("the serial port does not open")

    # From outside.

    def descriptors(self):
        """The open descriptors by kind; those of the pins, by agreement left open, on their own."""
        kinds = {}
        for target in self.server.descriptors().values():
            kind = re.sub(r"\d+", "N", target.split(":")[0])
            kind = PINS if target.startswith(PINS) else kind
            kinds[kind] = kinds.get(kind, 0) + 1
        return kinds

    def threads(self):
        names = []
        for path in glob.glob(f"/proc/{self.server.process.pid}/task/*/comm"):
            with contextlib.suppress(OSError):
                with open(path, encoding="ascii") as file:
                    names.append(file.read().strip())
        return sorted(names)

    def resident(self):
        return self.server.status("VmRSS")  # kB

    def measure(self):
        """Have the height measured, with the arm's moves. @return the answer; "0.0000" a failure"""
        with contextlib.closing(http.client.HTTPConnection(
                "127.0.0.1", HTTP_PORT, timeout=MEASURE_BOUND)) as client:
            client.request("GET", "/camera?focus=1")
            body = client.getresponse().read()
        found = re.fullmatch(rb'\{"measure":"(-?\d+\.\d{4})"\}', body)
        if not found:
            raise AssertionError(f"measuring: {body!r}")
        return found.group(1).decode()

    def off_focus(self):
        """Millimetres between the arm and its focus."""
        return abs(float(re.search(r" z=(\S+)", self.controller.ctl("state")).group(1)) - FOCUS)

    def printed_lines(self):
        return int(re.search(r"lines=(\d+)", self.controller.ctl("state")).group(1))

    def close(self):
        """End the service in order: a leak check happens then. @return what was wrong, or ''"""
        wrong = ""
        try:
            if self.server.alive():
                self.server.process.stdin.write(b"q\n")
                self.server.process.stdin.flush()
                self.server.wait_ended(60)
            if self.server.process.returncode != 0:
                wrong = f"the service ended with {self.server.process.returncode}"
                wrong += "\n" + self.server.output()[-3000:]
        except (OSError, subprocess.TimeoutExpired) as error:
            wrong = f"the service does not end: {error}"
        with contextlib.suppress(OSError):
            self.server.process.stdin.close()
        try:
            self.server.close()  # raises with a sanitizer's report
        except AssertionError as error:
            wrong = str(error)
        self.controller.close()
        self.camera.close()
        return wrong


class Peaks(threading.Thread):
    """The highest of what can be read beside the churn, looked at four times a second."""

    def __init__(self, rig):
        super().__init__(daemon=True)
        self.rig = rig
        self.highest = dict.fromkeys(
            ("resident", "descriptors", "threads", "consumers", "allocated"), 0)
        self._ended = threading.Event()
        self.start()

    def see(self, name, value):
        self.highest[name] = max(self.highest[name], value)

    def run(self):
        while not self._ended.wait(0.25):
            with contextlib.suppress(OSError, AttributeError):  # the service has gone
                kinds = self.rig.descriptors()
                self.see("resident", self.rig.resident())
                self.see("descriptors", sum(kinds.values()) - kinds.get(PINS, 0))
                self.see("threads", len(self.rig.threads()))

    def end(self):
        self._ended.set()
        self.join()


def save(path, record):
    with open(path, "w", encoding="utf-8") as file:
        json.dump(record, file, indent=1)


def build_name():
    return os.path.basename(BUILD)

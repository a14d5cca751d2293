"""One run of the service with a plan of faults: start it, load it, and see whether it serves on."""

import contextlib
import glob
import mmap
import os
import re
import signal
import socket
import struct
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))

import harness
from calls import VISION
from harness import BUILD, CARD, HTTP_PORT, LOG_PORT, Camera, LiveStream, Server

FAULT_LIBRARY = f"{BUILD}/tests/support/fault/libkestrel_fault_preload.so"
PLUGIN = f"{BUILD}/plugin/libframe_process.so"
HEIGHT = 1.5  # mm; how far out of focus the pictures' spot is
CONTENT = bytes(range(256)) * 40
LONG = "x" * 1500  # what it is copied to has a block of its own of more than 1 KB
START_DEADLINE = 20.0  # seconds, as the others: only ends a failing run
SERVE_DEADLINE = 20.0
RATE = 100  # pictures a second: calls come quicker than the camera's usual 25 would cause them


class Report:
    """The fault library's counts, while the service runs and afterwards."""

    def __init__(self, path):
        with open(path, "wb") as file:
            file.truncate(4096)
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), 4096)

    def seen(self, rule=0):
        return struct.unpack_from("=I", self._map, rule * 8)[0]

    def hits(self, rule=0):
        return struct.unpack_from("=I", self._map, rule * 8 + 4)[0]


class Host:
    """The camera and the card, which many runs of the service share."""

    def __init__(self):
        for folder in ("www", "camera"):
            os.makedirs(f"{CARD}/{folder}", exist_ok=True)
        with open(f"{CARD}/www/f.png", "wb") as file:
            file.write(CONTENT)
        self.folder = tempfile.mkdtemp(prefix="kestrel-vision.")
        os.symlink(PLUGIN, f"{self.folder}/libframe_process.so")
        self.pictures = self._draw_pictures()
        self.camera = Camera("--pictures", self._folder)
        self.camera.ctl(f"fps {RATE}")

    def _draw_pictures(self):
        """A few pictures of the camera's own, to compare what is streamed with."""
        self._folder = tempfile.mkdtemp(prefix="kestrel-pictures.")
        camera = Camera("--keep", "50")
        camera.ctl(f"spot 3 4 {HEIGHT} on")
        server = Server(camera=camera)
        stream = LiveStream()
        pictures = {stream.frame() for _ in range(5)}
        stream.close()
        server.close()
        camera.close()
        for number, picture in enumerate(pictures):
            with open(f"{self._folder}/{number}.jpg", "wb") as file:
                file.write(picture)
        return pictures

    def close(self):
        self.camera.close()


def exchange(request, wanted, timeout=0.7, reset=False):
    """Send a request and read until wanted(answer) holds; raises when it never does."""
    with socket.socket() as client:
        client.settimeout(timeout)
        client.connect(("127.0.0.1", HTTP_PORT))
        client.sendall(request)
        if reset:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return b""
        answer = b""
        while not wanted(answer):
            data = client.recv(65536)
            if not data:
                raise EOFError("closed")
            answer += data
        return answer


def get(path, headers=""):
    return f"GET {path} HTTP/1.1\r\nHost: board\r\n{headers}\r\n".encode()


def body_of(answer):
    """What stands behind an answer's head, once it is there in the length that the head tells."""
    head, _, body = answer.partition(b"\r\n\r\n")
    length = re.search(rb"Content-[Ll]ength: *(\d+)", head)
    return body if length and len(body) >= int(length.group(1)) else None


def measure():
    """Have the height measured: right, or told as a failure. @return whether it was measured"""
    answer = exchange(get("/camera?focus=1"), body_of, timeout=5)
    value = abs(float(re.search(rb'"measure":"(-?\d+\.\d+)"', answer).group(1)))
    if value != 0 and abs(value - HEIGHT) > 0.3:
        raise AssertionError(f"measured {value}")
    return value != 0


def corrected():
    """A corrected snapshot, or the picture as it was: in either case a whole one."""
    picture = body_of(exchange(get("/snap?filename=c.jpg&mode=correction"), body_of, timeout=5))
    if not picture.startswith(b"\xff\xd8") or not picture.endswith(b"\xff\xd9"):
        raise AssertionError(f"not a whole picture, {len(picture)} bytes")


def no_answer(_):
    return False  # until the service closes


REQUESTS = {
    "file": lambda: exchange(get("/f.png"), lambda answer: answer.endswith(CONTENT)),
    "reset": lambda: exchange(b"GE", None, reset=True),  # makes a line for the log
    "camera": lambda: exchange(get("/camera"), lambda a: a.endswith(b"invalid request")),
    "long path": lambda: exchange(get(f"/{LONG}.png?{LONG[:200]}={LONG[:200]}"), no_answer),
    "snap": lambda: exchange(get("/snap?filename=s.jpg"), lambda a: len(a) > 10000),
    "long name": lambda: exchange(get(f"/snap?filename={LONG}"), lambda a: len(a) > 10000),
    "body": lambda: exchange(b"POST /f.png HTTP/1.1\r\nContent-Length: 3000\r\n\r\n" + b"b" * 3000,
                             lambda answer: answer.endswith(CONTENT)),
    "measure": lambda: measure(),  # pylint: disable=unnecessary-lambda
    "corrected": lambda: corrected(),  # pylint: disable=unnecessary-lambda
    "long header": lambda: exchange(get("/f.png", f"Content-Type: {LONG}\r\n"),
                                    lambda answer: answer.endswith(CONTENT)),
}
LOADS = {
    "": [name for name in REQUESTS if name not in ("measure", "corrected")],
    "measure": ["measure", "corrected"],
    "log": ["reset", "reset", "reset", "snap"],
    "reopen": ["file"],
}


class Viewers:
    """A client that streams and one that watches the log, which come again when they are dropped."""

    def __init__(self, pictures):
        self.bad = []
        self._stop = threading.Event()
        self._threads = [threading.Thread(target=self._again, args=(body,))
                         for body in (lambda: self._live(pictures), self._log)]
        for thread in self._threads:
            thread.start()

    def _again(self, body):
        while not self._stop.is_set():
            try:
                body()
            except (OSError, EOFError):
                self._stop.wait(0.02)
            except AssertionError as error:
                self.bad.append(str(error))

    def _live(self, pictures):
        with contextlib.closing(LiveStream()) as stream:
            stream.socket.settimeout(1)
            while not self._stop.is_set():
                if stream.frame() not in pictures:
                    self.bad.append("not a picture of the camera")

    def _log(self):
        with socket.socket() as viewer:
            viewer.settimeout(1)
            viewer.connect(("127.0.0.1", LOG_PORT))
            while not self._stop.is_set():
                with contextlib.suppress(TimeoutError):
                    if not viewer.recv(65536):
                        return

    def stop(self):
        self._stop.set()
        for thread in self._threads:
            thread.join()


def check_live(pictures):
    with contextlib.closing(LiveStream()) as stream:
        stream.socket.settimeout(3)
        for _ in range(3):
            if stream.frame() not in pictures:
                raise AssertionError("not a picture of the camera")


def check_log(_):
    with socket.socket() as viewer:
        viewer.settimeout(0.3)
        viewer.connect(("127.0.0.1", LOG_PORT))
        for _ in range(10):  # it hears lines once its connection is set up
            REQUESTS["reset"]()
            with contextlib.suppress(TimeoutError):
                if viewer.recv(65536):
                    return
        raise EOFError("no line")


def check_measure(_):
    if not measure():
        raise AssertionError("measures nothing")


CHECKS = {
    "live": check_live,
    "file": lambda _: REQUESTS["file"](),
    "log": check_log,
}


def what_fails(server, pictures, program):
    """The checks that do not pass until the deadline, with the reason; none when all do."""
    failing = {}
    checks = {**CHECKS, "measure": check_measure} if program == VISION else CHECKS
    for name, check in checks.items():
        end = time.monotonic() + SERVE_DEADLINE
        while True:
            try:
                check(pictures)
                break
            except (OSError, EOFError, AssertionError) as error:
                if not server.alive() or time.monotonic() > end:
                    failing[name] = repr(error)
                    break
                time.sleep(0.05)
            finally:
                harness.close_connections()
    return failing


def log_text():
    text = ""
    for name in glob.glob("/tmp/usb-camera.log.*"):
        with open(name, encoding="utf-8", errors="replace") as file:
            text += file.read()
    return text


def how_ended(server):
    status = server.process.wait()
    if status < 0:
        return f"signal {signal.Signals(-status).name}"
    return f"exit {status}"


def load(host, server, report, name, until):
    """Ordinary clients and a mix of requests, until the call has come that often."""
    if name == "reopen":
        host.camera.ctl("fail QUERYCAP EIO always")
        host.camera.ctl("fail DQBUF EIO 1")
    viewers = Viewers(host.pictures)
    start = last = time.monotonic()
    most = 0
    number = 0
    kinds = LOADS[name]
    while server.alive() and report.seen() < until:
        try:
            REQUESTS[kinds[number % len(kinds)]]()
        except (OSError, EOFError):
            pass
        except AssertionError as error:
            viewers.bad.append(str(error))
        number += 1
        now = time.monotonic()
        if report.seen() > most:
            most, last = report.seen(), now
        if now - last > 3 or now - start > 60:  # it does not come any more, or too seldom
            break
    viewers.stop()
    if name == "reopen":
        host.camera.ctl("clear")
        host.camera.ctl(f"fps {RATE}")
    return viewers.bad


def run(host, task):
    """Do a task {program, plan, until, load, hurry}; until 0: no load. Returns what came of it."""
    program = task["program"]
    for name in glob.glob("/tmp/usb-camera.log.*"):
        os.unlink(name)
    handle, path = tempfile.mkstemp(prefix="kestrel-report.")
    os.close(handle)
    report = Report(path)
    environment = {"KESTREL_FAULT": task["plan"], "KESTREL_FAULT_PROGRAM": program,
                   "KESTREL_FAULT_EXCEPT": "libkestrel-camera", "KESTREL_FAULT_REPORT": path}
    if task.get("hurry"):
        environment["KESTREL_FAULT_HURRY"] = "100"
    server = Server(camera=host.camera, program=program, environment=environment,
                    preload=(FAULT_LIBRARY,), wait=False,
                    cwd=host.folder if program == VISION else None)
    result = {"listens": False, "bad": [], "failing": {}, "ended": "", "sanitizer": ""}
    try:
        end = time.monotonic() + START_DEADLINE
        while server.alive() and time.monotonic() < end and not result["listens"]:
            result["listens"] = harness.listening(HTTP_PORT)
            time.sleep(0.01)
        result["at_start"] = [report.seen(rule) for rule in range(task["plan"].count(";") + 1)]
        if result["listens"]:
            if task["until"]:
                result["bad"] = load(host, server, report, task["load"], task["until"])
            result["failing"] = what_fails(server, host.pictures, program)
        if not server.alive():
            result["ended"] = how_ended(server)
        result["seen"], result["hits"] = report.seen(), report.hits()
        text = server.output()
        result["output"] = text if len(text) < 9000 else text[:3000] + text[-6000:]
        text = log_text()  # the start and the end
        result["log"] = text if len(text) < 9000 else text[:3000] + text[-6000:]
    finally:
        try:
            server.close()
        except AssertionError as error:
            result["sanitizer"] = str(error)[:3000]
        os.unlink(path)
    return result

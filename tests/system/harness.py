"""The built service on the virtual camera, for tests that drive it from outside.

Run the tests inside tests/support/private-host (ctest does): ports and paths are fixed. ctest sets
KESTREL_BUILD to the build folder of the service. For a service that runs under an emulator,
KESTREL_EMULATOR is the emulator's command line and KESTREL_TOOLS the build folder of the virtual
camera's programs, which stay native.
"""

import contextlib
import http.client
import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

BUILD = os.environ.get("KESTREL_BUILD", "")
TOOLS = os.environ.get("KESTREL_TOOLS", BUILD)
EMULATOR = shlex.split(os.environ.get("KESTREL_EMULATOR", ""))
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
HTTP_PORT = 8329
LOG_PORT = 8001
CARD = "/tmp/run/mountd/mmcblk0p1/kestrel-server"
DEADLINE = 30.0  # seconds; only ends a failing run


def wait_until(condition, what, deadline=DEADLINE):
    """Wait until condition() is true and return its value."""
    end = time.monotonic() + deadline
    pause = 0.01  # grows: most conditions ask a server, which costs both sides processor time
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {deadline} s: {what}")
        time.sleep(pause)
        pause = min(0.05, 1.2 * pause)


def sanitizer_of(binary):
    """'asan', 'tsan' or '' as the binary was linked, and the path of the sanitizer's library."""
    listing = subprocess.run(["ldd", binary], capture_output=True, text=True, check=False).stdout
    for name in ("asan", "tsan"):
        match = re.search(rf"lib{name}\.so\S* => (\S+)", listing)
        if match:
            return name, match.group(1)
    return "", ""


def port_is_open(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def listening(port):
    """True when some process listens on the port; without connecting to it."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        return any(re.search(rf":{port:04X} 0{{8}}:0{{4}} 0A", line) for line in table)


class Camera:
    """The virtual camera's program and its folder."""

    def __init__(self, *arguments):
        self.folder = tempfile.mkdtemp(prefix="kestrel-camera.")
        self.process = subprocess.Popen(
            [f"{TOOLS}/simulator/camera/kestrel-camera", "--dir", self.folder, *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        wait_until(self._answers, "the virtual camera answers")

    def _answers(self):
        if self.process.poll() is not None:
            raise AssertionError("the virtual camera ended")
        return subprocess.run(self._command("state"), capture_output=True, check=False).returncode == 0

    def _command(self, text):
        return [f"{TOOLS}/tools/kestrel-camera-ctl", "--dir", self.folder, *shlex.split(text)]

    def ctl(self, text):
        """Send a command, e.g. "replug"; returns the answer."""
        done = subprocess.run(self._command(text), capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise AssertionError(f"camera refused {text!r}: {done.stdout}{done.stderr}")
        return done.stdout

    def status(self, name):
        """A word of its status, e.g. "1" for plugged."""
        return dict(word.split("=") for word in self.ctl("status").split()[1:])[name]

    def unplug(self):
        """Pull the plug while the camera has all its buffers: with one in its hands the service
        ends by its assertion."""
        self.ctl("unplug after QBUF")
        wait_until(lambda: self.status("plugged") == "0", "the service calls QBUF")

    def path(self, name):
        return os.path.join(self.folder, name)

    def journal(self):
        with open(self.path("journal"), encoding="utf-8") as file:
            return file.read().splitlines()

    def frames(self):
        """The number of each kept frame by its bytes; the camera keeps them with --keep N."""
        frames = {}
        for name in os.listdir(self.path("frames")):
            with contextlib.suppress(FileNotFoundError):
                with open(self.path(f"frames/{name}"), "rb") as file:
                    frames[file.read()] = int(name.split(".")[0])
        return frames

    def close(self):
        self.process.terminate()
        self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)


class Server:
    """The service as a process."""

    def __init__(self, camera=None, program="kestrel-server", arguments=(), stdin=subprocess.DEVNULL,
                 environment=None, wait=True, limit_files=None, cwd=None, preload=()):
        self.binary = f"{BUILD}/application/{program}"
        if not os.path.exists(self.binary):
            self.binary = f"{BUILD}/tests/system/{program}"
        self.sanitizer, library = sanitizer_of(self.binary)
        env = dict(os.environ, **(environment or {}))
        libraries = list(preload)
        if camera is not None:
            env["KESTREL_CAMERA_DIR"] = camera.folder
            libraries.append(f"{BUILD}/simulator/camera/libkestrel-camera.so")
        if libraries and self.sanitizer == "asan":
            libraries.insert(0, library)
        command = EMULATOR + [self.binary]
        if libraries and EMULATOR:  # preloaded by the board's loader, not by the emulator's own
            command = EMULATOR + ["-E", "LD_PRELOAD=" + ":".join(libraries), self.binary]
        elif libraries:
            env["LD_PRELOAD"] = ":".join(libraries)
        if self.sanitizer == "tsan":
            env["TSAN_OPTIONS"] = "exitcode=66:halt_on_error=0:" + env.get("TSAN_OPTIONS", "")

        def limits():
            if limit_files:
                import resource
                resource.setrlimit(resource.RLIMIT_NOFILE, (limit_files, limit_files))

        handle, self.output_path = tempfile.mkstemp(prefix="kestrel-out.")
        self._output = os.fdopen(handle, "wb")
        self.process = subprocess.Popen(command + list(arguments), stdin=stdin, env=env, cwd=cwd,
                                        stdout=self._output, stderr=subprocess.STDOUT,
                                        process_group=0, preexec_fn=limits)
        if wait:
            wait_until(self._is_up, "the service listens")

    def _is_up(self):
        if self.process.poll() is not None:
            raise AssertionError(f"the service ended: {self.process.returncode}\n{self.output()}")
        return listening(HTTP_PORT)

    def output(self):
        with open(self.output_path, "rb") as file:
            return file.read().decode("utf-8", "replace")

    def alive(self):
        return self.process.poll() is None

    def wait_ended(self, deadline=DEADLINE):
        return self.process.wait(deadline)

    def status(self, field):
        """A number of /proc/PID/status, e.g. VmRSS in kB or Threads."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            return int(re.search(rf"^{field}:\s+(\d+)", file.read(), re.M).group(1))

    def descriptors(self):
        """What the service's open descriptors point at."""
        folder = f"/proc/{self.process.pid}/fd"
        targets = {}
        for name in os.listdir(folder):
            with contextlib.suppress(FileNotFoundError):
                targets[int(name)] = os.readlink(f"{folder}/{name}")
        return targets

    def sanitizer_report(self):
        text = self.output()
        start = re.search(r"ERROR: (Address|Leak)Sanitizer|WARNING: ThreadSanitizer|runtime error:",
                          text)
        return text[start.start():] if start else ""

    def close(self):
        """End the service; a sanitizer's finding fails the test."""
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGTERM)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)
                self.process.wait()
        self._output.close()
        report = self.sanitizer_report()
        os.unlink(self.output_path)
        if report:
            raise AssertionError("sanitizer: " + report[:6000])


class Board:
    """Virtual camera and service together: `with Board() as board: ...`"""

    def __init__(self, camera_arguments=("--keep", "2000"), card=True, **server_arguments):
        if card:
            os.makedirs(f"{CARD}/www", exist_ok=True)
            os.makedirs(f"{CARD}/camera", exist_ok=True)
        self.camera = Camera(*camera_arguments)
        try:
            self.server = Server(camera=self.camera, **server_arguments)
        except BaseException:
            self.camera.close()
            raise

    def wait_for_saved(self, name):
        """Wait until the SD card has a whole picture of this name: it is saved once it is answered,
        so a client may have all of it before."""
        def saved():
            with contextlib.suppress(FileNotFoundError):
                with open(f"{CARD}/camera/{name}", "rb") as file:
                    return file.read() in self.camera.frames()
            return False
        wait_until(saved, f"{name} is saved whole")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        close_connections()
        try:
            self.server.close()
        finally:
            self.camera.close()


class BoardTest(unittest.TestCase):
    """Tests that share one board: `self.board`."""

    @classmethod
    def setUpClass(cls):
        cls.board = Board()

    @classmethod
    def tearDownClass(cls):
        cls.board.__exit__()


_connections = []  # closed with the board at the latest


def close_connections():
    while _connections:
        _connections.pop().close()


def unconnected():
    client = socket.socket()
    _connections.append(client)
    return client


def connect(port=HTTP_PORT, receive_buffer=None):
    client = unconnected()
    if receive_buffer is not None:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.settimeout(DEADLINE)
    try:
        client.connect(("127.0.0.1", port))
    except OSError:
        client.close()  # or the kernel would keep trying
        raise
    return client


def request(path, method="GET", timeout=DEADLINE):
    """The raw answer to a request, read until the service or Content-Length ends it."""
    client = http.client.HTTPConnection("127.0.0.1", HTTP_PORT, timeout=timeout)
    client.request(method, path)
    response = client.getresponse()
    body = response.read()
    client.close()
    return response, body


class LiveStream:
    """A client of "/live" that parses the parts byte by byte as they were agreed."""

    HEADER_END = b"\r\n\r\n"
    TRAILER = b"\r\n--boundarydonotcross\r\n"

    def __init__(self, path="/live", receive_buffer=None, client=None):
        """On a connection of its own unless there is a client already."""
        self.socket = client or connect(receive_buffer=receive_buffer)
        self.socket.sendall(f"GET {path} HTTP/1.1\r\nHost: board\r\n\r\n".encode())
        self.buffer = b""
        self.header = None
        self.stamp = None  # of the latest part: X-Timestamp, in seconds

    def _fill(self):
        data = self.socket.recv(65536)
        if not data:
            raise EOFError("the service closed the stream")
        self.buffer += data

    def _until(self, mark):
        while mark not in self.buffer:
            self._fill()
        head, self.buffer = self.buffer.split(mark, 1)
        return head + mark

    def _exactly(self, count):
        while len(self.buffer) < count:
            self._fill()
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def frame(self):
        """The next part's picture; raises when anything but a whole part arrives."""
        if self.header is None:
            self.header = self._until(self.HEADER_END)
        part = self._until(self.HEADER_END)
        match = re.fullmatch(rb"Content-Type: image/jpeg\r\nContent-Length: ([ \d]{8})\r\n"
                             rb"X-Timestamp: ([ \d]{16})\.([ \d]{16})\r\n\r\n", part)
        if not match:
            raise AssertionError(f"not a part header: {part[:200]!r}")
        picture = self._exactly(int(match.group(1)))
        trailer = self._exactly(len(self.TRAILER))
        if trailer != self.TRAILER:
            raise AssertionError(f"not a part's end: {trailer!r}")
        self.stamp = int(match.group(2)) + int(match.group(3)) / 1e6
        return picture

    def close(self):
        self.socket.close()

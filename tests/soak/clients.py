"""Clients of every kind that come, read, stall, send nonsense and vanish, at random."""

import re
import socket
import struct
import threading
import time

from harness import HTTP_PORT, LOG_PORT, LiveStream

TCP_REPAIR = 19  # linux/tcp.h; a socket closed under repair sends its peer nothing
# For a file or a command. The reactor may be held back for 5 s at a time by who does not read, and by a
# measurement: its two pictures wait for an unplugged camera, its three moves rarely for 20 s each.
ANSWER_BOUND = 90.0  # s
SHORT = 0.2  # s; after so long a client looks whether it is to end


class Ended(Exception):
    """The churn ends, or the client has had enough."""


class Broken(Exception):
    """The service answered what it must not."""


def connect(port=HTTP_PORT, receive_buffer=None):
    client = socket.socket()
    if receive_buffer is not None:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.settimeout(ANSWER_BOUND)
    try:
        client.connect(("127.0.0.1", port))
    except OSError:
        client.close()
        raise
    return client


class Reader(LiveStream):
    """A client of "/live" that reads as fast as it can and checks every part."""

    def __init__(self, may_go_on):  # pylint: disable=super-init-not-called
        self.may_go_on = may_go_on  # called while nothing comes; raises to end it
        self.socket = connect()
        self.socket.settimeout(SHORT)
        self.socket.sendall(b"GET /live HTTP/1.1\r\nHost: board\r\n\r\n")
        self.buffer = b""
        self.header = None

    def _fill(self):
        while True:
            try:
                data = self.socket.recv(65536)
            except TimeoutError:
                self.may_go_on()
                continue
            if not data:
                raise Broken("the service closed a stream")
            self.buffer += data
            return

    def frame(self):
        picture = super().frame()
        if not picture.startswith(b"\xff\xd8") or not picture.endswith(b"\xff\xd9"):
            raise Broken(f"not a whole picture, {len(picture)} bytes")
        return picture


def read_answer(client, rest=b"", may_go_on=lambda: None):
    """One answer with its Content-Length: head and body."""
    def more():
        end = time.monotonic() + ANSWER_BOUND
        while True:
            try:
                data = client.recv(65536)
            except TimeoutError:
                may_go_on()
                if time.monotonic() > end:
                    raise Broken("no answer") from None
                continue
            if not data:
                raise Broken(f"closed within an answer, after {len(rest)} bytes")
            return data

    while b"\r\n\r\n" not in rest:
        rest += more()
    head, rest = rest.split(b"\r\n\r\n", 1)
    length = int(re.search(rb"Content-[Ll]ength: *(\d+)", head).group(1))
    while len(rest) < length:
        rest += more()
    return head, rest[:length], rest[length:]


class Client(threading.Thread):
    """One session after the other, each with its own manners, until told to end."""

    deaf = threading.Semaphore(1)  # each holds the reactor back for five seconds

    def __init__(self, rig, tally, chance, stop):
        super().__init__(daemon=True)
        self.rig = rig
        self.tally = tally
        self.chance = chance
        self.stop = stop
        self.ends_at = 0.0

    def run(self):
        kinds = (self.live, self.live, self.live_checked, self.live_checked, self.snap, self.snap,
                 self.file, self.file, self.camera, self.camera, self.deaf_camera, self.log,
                 self.log, self.garbage, self.idle)
        while not self.stop.is_set():
            kind = self.chance.choice(kinds)
            stay = 4.0 * self.chance.random() ** 2 if self.chance.random() < 0.95 else 60.0  # s
            self.ends_at = time.monotonic() + stay
            try:
                kind()
            except Ended:
                pass
            except Exception as error:  # pylint: disable=broad-except
                self.tally.fail(f"client {kind.__name__}: {error!r}")

    # Manners.

    def connect(self, port=HTTP_PORT, receive_buffer=None):
        self.tally.add("connects")
        client = connect(port, receive_buffer)
        client.settimeout(SHORT)
        return client

    def go_on(self):
        if self.stop.is_set() or time.monotonic() > self.ends_at:
            raise Ended

    def leave(self, client):
        """Close it: with FIN, RST, half first, or without a word."""
        manner = self.chance.choice(("fin", "fin", "rst", "half", "silent"))
        try:
            if manner == "rst":
                client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            elif manner == "half":
                client.shutdown(socket.SHUT_WR)
                self.stop.wait(self.chance.uniform(0.0, 0.3))
            elif manner == "silent":
                client.setsockopt(socket.IPPROTO_TCP, TCP_REPAIR, 1)
                self.tally.add("vanished silently")
        except OSError:
            pass  # the service was first
        client.close()

    def use(self, client):
        """Read at full speed, slowly, or not at all; perhaps send more, which adds responders."""
        speed = self.chance.choice(("full", "slow", "stall"))
        more = self.chance.choice((0, 0, 1, 3))
        while True:
            self.go_on()
            if more and self.chance.random() < 0.3:
                client.sendall(b"more")
                more -= 1
            if speed == "stall":
                self.stop.wait(0.1)
                continue
            try:
                if not client.recv(65536 if speed == "full" else 700):
                    return
            except TimeoutError:
                continue
            if speed == "slow":
                self.stop.wait(0.05)

    def rough(self, request, port=HTTP_PORT):
        """A session in which nothing is expected of the answer."""
        client = self.connect(port, self.chance.choice((None, None, 2048, 16384)))
        try:
            client.sendall(request)
            self.use(client)
        except OSError:
            pass  # closed by the service: half a request, bytes that are none
        finally:
            self.leave(client)

    # Kinds.

    def live(self):
        self.rough(b"GET /live HTTP/1.1\r\n\r\n")

    def live_checked(self):
        self.tally.add("connects")
        reader = Reader(self.go_on)
        try:
            while True:
                reader.frame()
                self.tally.add("frames")
                self.go_on()
        finally:
            self.leave(reader.socket)

    def snap(self):
        query = f"?filename={self.chance.randrange(20)}.jpg"
        query += self.chance.choice(("", "&mode=correction"))
        request = f"GET /snap{query} HTTP/1.1\r\n\r\n".encode()
        if self.chance.random() < 0.3:
            self.rough(request)
            return
        client = self.connect()
        try:
            client.sendall(request)
            rest = b""
            for _ in range(self.chance.choice((1, 1, 5))):
                _, picture, rest = read_answer(client, rest, self.go_on)
                if not picture.startswith(b"\xff\xd8") or not picture.endswith(b"\xff\xd9"):
                    raise Broken(f"not a whole snapshot, {len(picture)} bytes")
                self.tally.add("snapshots")
        finally:
            self.leave(client)

    def file(self):
        name = self.chance.choice(sorted(self.rig.files))
        manner = self.chance.random()
        if manner < 0.3:
            path = self.chance.choice((f"/{name}", "/missing.png", "/../../../../etc/passwd", "/",
                                       "/sub/", "/photo.bin", "/" + "x" * 1500 + ".html"))
            self.rough(f"GET {path} HTTP/1.1\r\n\r\n".encode())
            return
        client = self.connect()
        try:
            client.sendall(f"GET /{name} HTTP/1.1\r\n\r\n".encode())
            _, body, _ = read_answer(client)
            if body != self.rig.files[name]:
                raise Broken(f"{name} came with other bytes")
            self.tally.add("files")
        finally:
            self.leave(client)

    def camera(self):
        client = self.connect()
        try:
            for _ in range(self.chance.choice((1, 1, 4))):
                client.sendall(b"GET /camera HTTP/1.1\r\n\r\n")
                _, body, _ = read_answer(client)
                if body != b"invalid request":
                    raise Broken(f"/camera: {body!r}")
                self.tally.add("camera commands")
        finally:
            self.leave(client)

    def deaf_camera(self):
        """Asks on and on and never reads: closed after the five seconds of a direct answer."""
        if self.chance.random() < 0.8 or not self.deaf.acquire(blocking=False):
            return
        client = self.connect(receive_buffer=2048)
        try:
            client.sendall(b"GET /camera HTTP/1.1\r\n\r\n")
            while True:
                self.go_on()
                try:
                    client.sendall(b"x" * 2048)
                except TimeoutError:
                    pass
        except OSError:
            pass
        finally:
            self.leave(client)
            self.deaf.release()

    def log(self):
        if self.chance.random() < 0.5:
            self.rough(self.chance.choice((b"", b"hello\n", self.chance.randbytes(500))), LOG_PORT)
            return
        client = self.connect(LOG_PORT)
        try:
            while True:
                self.go_on()
                try:
                    data = client.recv(65536)
                except TimeoutError:
                    continue
                if not data:
                    raise Broken("the log server closed a viewer")
                self.tally.add("log lines", data.count(b"\n"))
        finally:
            self.leave(client)

    def garbage(self):
        self.tally.add("nonsense sent")
        length = self.chance.randrange(1, 200000)
        self.rough(self.chance.choice((
            self.chance.randbytes(self.chance.randrange(1, 5000)),
            b"GET /li",
            b"GET /live HTTP/1.1\r\nHost: bo",
            b"GET /snap?filename=" + b"A" * 3000 + b" HTTP/1.1\r\n\r\n",
            b"\r\n\r\n\r\n",
            b"POST /index.html HTTP/1.1\r\nContent-Length: 4000000\r\n\r\n" + b"b" * length,
            b"POST /live HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % length + b"b" * length)))

    def idle(self):
        """Connects, perhaps leaves at once, and says nothing."""
        client = self.connect()
        self.stop.wait(self.chance.choice((0.0, 0.0, 1.0)))
        self.leave(client)

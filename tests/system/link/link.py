"""A link with a delay, a rate and losses between the service and its viewers (kestrel-link)."""

import contextlib
import ctypes
import os
import socket
import subprocess
import sys

import harness

PROGRAM = f"{harness.TOOLS}/tests/support/link/kestrel-link"
SERVICE = "10.8.0.1"  # as the far end sees it
CLONE_NEWNET = 0x40000000  # setns(2)


def require():
    """End the program with one line where a link can't be made; for setUpModule."""
    done = subprocess.run([PROGRAM], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          check=False)
    if done.returncode != 0:
        sys.exit(done.stderr.strip())


class Link:
    """`with Link(delay_ms=5, mbit=30): ...`; no loss and no bound unless said."""

    def __init__(self, **options):
        words = [word for name, value in options.items()
                 for word in (f"--{name.replace('_', '-')}", str(value))]
        self.process = subprocess.Popen([PROGRAM, *words], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        if self.process.stdout.readline() != "ready\n":
            raise AssertionError("the link could not be made")
        self.far_namespace = f"/proc/{self.process.pid}/ns/net"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()
        self.process.stdout.close()

    def say(self, word):
        """"cut", "mend" or "count"; returns the answer."""
        self.process.stdin.write(word + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().strip()

    @contextlib.contextmanager
    def far_end(self):
        """Sockets that this thread makes meanwhile are the far end's, and stay so."""
        with open("/proc/thread-self/ns/net", "rb") as here, open(self.far_namespace, "rb") as far:
            enter(far)
            try:
                yield
            finally:
                enter(here)

    def connect(self, port=harness.HTTP_PORT, receive_buffer=None):
        """A connection from the far end to the service."""
        with self.far_end():
            client = harness.unconnected()
        if receive_buffer is not None:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        client.settimeout(harness.DEADLINE)
        client.connect((SERVICE, port))
        return client


def enter(namespace):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.setns(namespace.fileno(), CLONE_NEWNET) != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))

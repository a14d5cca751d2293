#!/usr/bin/env python3
"""Run the emulated machine that scripts/board-memory prepared, and look at the service's memory in it
while three clients outside take pictures.

usage: scripts/lib/board_memory.py FOLDER    inside tests/support/private-host; with tests/system in
                                             PYTHONPATH
"""

import collections
import pathlib
import re
import subprocess
import sys
import threading
import time

from harness import LiveStream

CLIENTS = 3
LOOKS = 60  # while all clients receive
PICTURES = 100  # that each client has to get meanwhile
LIMIT = 4_000_000  # bytes; it has to stay under it
PATIENCE = 900.0  # s, for everything; an emulated machine is slow
LOADER = "/usr/lib/kestrel-server/lib/ld-musl-mipsel-sf.so.1"


class Client(threading.Thread):
    """Takes one picture after the other and counts those that are the camera's, byte for byte."""

    def __init__(self, pictures):
        super().__init__(daemon=True)
        self.pictures = pictures
        self.stream = LiveStream()
        self.stream.socket.settimeout(PATIENCE)
        self.count = 0
        self.failure = None
        self.start()

    def run(self):
        try:
            while self.failure is None:
                if self.stream.frame() in self.pictures:
                    self.count += 1
                else:
                    self.failure = "a picture that is not the camera's"
        except Exception as error:  # pylint: disable=broad-exception-caught
            self.failure = repr(error)


class Looks:
    """Gathers what the machine prints of the service's mappings."""

    def __init__(self):
        self.parts = collections.Counter()
        self.name = None

    def take(self, line):
        """At the end of a look the kilobytes that are resident, by the mapped file; else None."""
        mapping = re.fullmatch(r"[0-9a-f]+-[0-9a-f]+ (?:\S+ +){3}\d+ *(.*)", line)
        if mapping:
            self.name = mapping.group(1) or "anonymous"
            return None
        size = re.fullmatch(r"Rss: +(\d+) kB", line)
        if size:
            self.parts[self.name] += int(size.group(1))
            return None
        if line != "LOOKED":
            return None
        parts, self.parts = self.parts, collections.Counter()
        return parts


def measure(lines, pictures):
    """The looks at the memory from the first at which every client has a picture, and the pictures
    of each client and the seconds between the first and the last of these looks."""
    clients = []
    mappings = Looks()
    looks = []
    first = begin = None
    for line in lines:
        if line.startswith("MACHINE "):
            print(line)
        if line == "READY":
            clients = [Client(pictures) for _ in range(CLIENTS)]
        for client in clients:
            if client.failure:
                raise SystemExit(f"board-memory: a client met {client.failure}")
        counts = [client.count for client in clients]
        seen = mappings.take(line)
        if seen is None or not counts or not all(counts):
            continue
        if first is None:
            first = counts
            begin = time.monotonic()
        looks.append(seen)
        got = [now - before for now, before in zip(counts, first)]
        if len(looks) >= LOOKS and min(got) >= PICTURES:
            return looks, got, time.monotonic() - begin
    raise SystemExit("board-memory: the machine ended, or took too long; its console is in the folder")


def main():
    folder = pathlib.Path(sys.argv[1])
    pictures = {file.read_bytes() for file in (folder / "root/pictures").iterdir()}
    machine = subprocess.Popen(
        ["qemu-system-mipsel", "-M", "malta", "-cpu", "24Kc", "-m", "64",
         "-kernel", folder / "kernel/vmlinuz", "-initrd", folder / "root.gz",
         "-append", "console=ttyS0 rdinit=/init panic=-1 quiet", "-no-reboot",
         "-netdev", "user,id=net,hostfwd=tcp:127.0.0.1:8329-10.0.2.15:8329",
         "-device", "pcnet,netdev=net,romfile=",
         "-vga", "none", "-display", "none", "-monitor", "none", "-serial", "stdio"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, errors="replace")
    patience = threading.Timer(PATIENCE, machine.kill)
    patience.start()

    def lines():
        with open(folder / "console", "w", encoding="utf-8") as console:
            for line in machine.stdout:
                console.write(line)
                console.flush()
                yield line.rstrip()

    try:
        looks, got, seconds = measure(lines(), pictures)
    finally:
        patience.cancel()
        machine.kill()
        machine.wait()

    parts = max(looks, key=lambda seen: seen.total())
    highest = parts.total()
    sizes = sorted(len(picture) for picture in pictures)
    print(f"{CLIENTS} clients got {', '.join(map(str, got))} whole pictures of {sizes[0]} to {sizes[-1]} "
          f"bytes within {seconds:.0f} s and {len(looks)} looks")
    for name, value in parts.most_common():
        print(f"{value:8} kB {name}")
    print(f"resident: {highest} kB at most (of 1024 bytes)")
    if not parts.get(LOADER):
        raise SystemExit("board-memory: the loader is not counted")
    if highest * 1024 >= LIMIT:
        raise SystemExit("board-memory: 4 MB or more")


if __name__ == "__main__":
    main()

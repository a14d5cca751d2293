#!/usr/bin/env python3
"""Run an emulated machine that scripts/board-memory prepared, and look at a program's memory in it: the
service's while three clients outside take pictures, the guard's while a job runs through it.

usage: scripts/lib/board_memory.py FOLDER server|guard    inside tests/support/private-host; with
                                                          tests/system in PYTHONPATH
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
LOOKS = 60  # while all clients receive, and while the job runs
PICTURES = 100  # that each client has to get meanwhile
LINES = 500  # of jobs that have to be acknowledged meanwhile
PATIENCE = 900.0  # s, for everything; an emulated machine is slow
LOADER = "/usr/lib/kestrel-server/lib/ld-musl-mipsel-sf.so.1"
NETWORK = ["-netdev", "user,id=net,hostfwd=tcp:127.0.0.1:8329-10.0.2.15:8329",
           "-device", "pcnet,netdev=net,romfile="]


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


class Viewers:
    """The service's load: clients that take pictures."""

    limit = 3_999_999  # bytes; the goal is to stay below 4 MB
    wanted = PICTURES
    processes = 1
    network = NETWORK

    def __init__(self, folder):
        self.pictures = {file.read_bytes() for file in (folder / "server/pictures").iterdir()}
        self.clients = []

    def hear(self, line):
        if line == "READY":
            self.clients = [Client(self.pictures) for _ in range(CLIENTS)]
        for client in self.clients:
            if client.failure:
                raise SystemExit(f"board-memory: a client met {client.failure}")

    def counts(self):
        return [client.count for client in self.clients]

    def tell(self, got):
        sizes = sorted(len(picture) for picture in self.pictures)
        return (f"{CLIENTS} clients got {', '.join(map(str, got))} whole pictures of {sizes[0]} to "
                f"{sizes[-1]} bytes")


class Job:
    """The guard's load: it runs in the machine and tells how many lines were acknowledged."""

    limit = 2_000_000
    wanted = LINES
    processes = 3  # worker, parent, and who writes the journal
    network = ["-net", "none"]

    def __init__(self, _folder):
        self.lines = 0

    def hear(self, line):
        told = re.fullmatch(r"lines (\d+)", line)
        if told:
            self.lines = int(told.group(1))

    def counts(self):
        return [self.lines]

    @staticmethod
    def tell(got):
        return f"{got[0]} lines of jobs were acknowledged"


class Looks:
    """Gathers what the machine prints of the processes' mappings, in kB. What several of them share
    counts once: each has its part of it (Pss). A single one has all that it maps (Rss)."""

    def __init__(self):
        self.process = self.name = None
        self.whole = collections.Counter()  # Rss by process
        self.mapped = collections.Counter()  # by kind ("R", "P") and mapped file

    def take(self, line):
        """At the end of a look the kilobytes that are resident, by mapped file and by process; else
        None."""
        mapping = re.fullmatch(r"[0-9a-f]+-[0-9a-f]+ (?:\S+ +){3}\d+ *(.*)", line)
        if mapping:
            self.name = mapping.group(1) or "anonymous"
        process = re.fullmatch(r"PROCESS (\d+)", line)
        if process:
            self.process = process.group(1)
        size = re.fullmatch(r"([RP])ss: +(\d+) kB", line)
        if size:
            self.mapped[size.group(1), self.name] += int(size.group(2))
        if size and size.group(1) == "R":
            self.whole[self.process] += int(size.group(2))
        if line != "LOOKED":
            return None
        wanted = "P" if len(self.whole) > 1 else "R"
        parts = collections.Counter(
            {name: value for (kind, name), value in self.mapped.items() if kind == wanted})
        seen = parts, self.whole
        self.whole, self.mapped = collections.Counter(), collections.Counter()
        return seen


def measure(lines, load):
    """The looks at the memory from the first at which the load runs, what it got done from then to the
    last, and the seconds between."""
    mappings = Looks()
    looks = []
    first = begin = None
    for line in lines:
        if line.startswith("MACHINE "):
            print(line)
        load.hear(line)
        counts = load.counts()
        seen = mappings.take(line)
        if seen is None or not counts or not all(counts):
            continue
        if first is None:
            first = counts
            begin = time.monotonic()
        looks.append(seen)
        got = [now - before for now, before in zip(counts, first)]
        if len(looks) >= LOOKS and min(got) >= load.wanted:
            return looks, got, time.monotonic() - begin
    raise SystemExit("board-memory: the machine ended, or took too long; its console is in the folder")


def main():
    folder = pathlib.Path(sys.argv[1])
    program = sys.argv[2]
    load = {"server": Viewers, "guard": Job}[program](folder)
    machine = subprocess.Popen(
        ["qemu-system-mipsel", "-M", "malta", "-cpu", "24Kc", "-m", "64",
         "-kernel", folder / "kernel/vmlinuz", "-initrd", folder / f"{program}.gz",
         "-append", "console=ttyS0 rdinit=/init panic=-1 quiet", "-no-reboot", *load.network,
         "-vga", "none", "-display", "none", "-monitor", "none", "-serial", "stdio"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, errors="replace")
    patience = threading.Timer(PATIENCE, machine.kill)
    patience.start()

    def lines():
        with open(folder / f"{program}.console", "w", encoding="utf-8") as console:
            for line in machine.stdout:
                console.write(line)
                console.flush()
                yield line.rstrip()

    try:
        looks, got, seconds = measure(lines(), load)
    finally:
        patience.cancel()
        machine.kill()
        machine.wait()

    parts, whole = max(looks, key=lambda seen: seen[0].total())
    highest = parts.total()
    print(f"{load.tell(got)} within {seconds:.0f} s and {len(looks)} looks")
    for name, value in parts.most_common():
        print(f"{value:8} kB {name}")
    if len(whole) > 1:
        each = ", ".join(f"{value} kB" for value in whole.values())
        print(f"each process with all that it shares: {each}")
    print(f"resident: {highest} kB at most (of 1024 bytes)")
    if len(whole) != load.processes:
        raise SystemExit(f"board-memory: {len(whole)} processes were seen")
    if not parts.get(LOADER):
        raise SystemExit("board-memory: the loader is not counted")
    if highest * 1024 > load.limit:
        raise SystemExit(f"board-memory: above {load.limit} bytes")


if __name__ == "__main__":
    main()

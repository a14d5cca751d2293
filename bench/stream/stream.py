"""The stream from the virtual camera to many clients, beside its floor (StreamFloor.cpp).

For each number of clients, by turns and five times: the floor that calls three times for a part, the
service, the floor that calls once, the first one with the pause that is agreed after each frame, and
with the agreed copy besides, and the service with one more client that reads slowly, each as a fresh
process on a fresh camera, for a few seconds. Load generator, camera and pictures are the same. The
figures are the medians, deliveries the sums, sizes the largest. Then, one client, the service and the floor that calls
once over the four links; each round's losses are those of its number.

usage: stream.py [links] [CLIENTS...]   all without arguments
"""

import bisect
import collections
import os
import re
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, ".."), os.path.join(HERE, "../../tests/system"),
                os.path.join(HERE, "../../tests/system/link")]
import figures
import harness
import link as links
import pictures

CLIENTS = (1, 8, 32, 64, 128)
RATE = 25         # frames per second
ROUNDS = 5
SECONDS = 3       # measured in each
WARM_UP = 1
SLOW_RATE = 20000  # bytes per second
PAUSE = "copy of each frame, pause after it"
BUFFERS = "send buffer of 35,840 bytes, smaller than a picture"
LINKS = (("2 ms", {"delay_ms": 2}),
         ("5 ms, 30 Mbit/s", {"delay_ms": 5, "mbit": 30}),
         ("10 ms", {"delay_ms": 10}),
         ("5 ms, 1 % loss, 30 Mbit/s", {"delay_ms": 5, "mbit": 30, "loss_percent": 1}))
SHARED = ("16 viewers, 5 ms, 30 Mbit/s", {"delay_ms": 5, "mbit": 30}, 16)
LINK_SECONDS = 6   # measured in each round: of 150 pictures the 99th percentile is no single one
SLACK = 2048      # bytes by which a sample of the slow client may be older than another


class Floor:
    """The floor's process, with the camera's library preloaded as the service has it."""

    def __init__(self, camera, *options):
        environment = dict(os.environ, KESTREL_CAMERA_DIR=camera.folder,
                           LD_PRELOAD=f"{harness.BUILD}/simulator/camera/libkestrel-camera.so")
        self.process = subprocess.Popen(
            [f"{harness.BUILD}/bench/stream/stream-floor", str(harness.HTTP_PORT), *options],
            env=environment)
        harness.wait_until(lambda: harness.listening(harness.HTTP_PORT), "the floor listens")

    def close(self):
        self.process.terminate()
        self.process.wait()


class Load:
    """The load generator."""

    def __init__(self, clients, slow_rate, link=None):
        handle, self.records = tempfile.mkstemp(prefix="kestrel-load.")
        os.close(handle)
        place = ["nsenter", f"--net={link.far_namespace}"] if link else []
        address = links.SERVICE if link else "127.0.0.1"
        self.process = subprocess.Popen(
            [*place, f"{harness.BUILD}/bench/stream/stream-load", address, str(harness.HTTP_PORT),
             str(clients), str(slow_rate), self.records],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.slow_port = None
        for line in self.process.stdout:
            if line.startswith("slow "):
                self.slow_port = int(line.split()[1])
            if line == "ready\n":
                return
        raise AssertionError("the load generator ended")

    def drain(self):
        self.process.stdin.write("drain\n")
        self.process.stdin.flush()

    def finish(self):
        """Parts (client, size, stamp, done, begin, end) and the slow client's reads, in us."""
        self.process.stdin.close()
        if self.process.wait(harness.DEADLINE) != 0:
            raise AssertionError("a stream was not as agreed")
        parts, reads = [], []
        with open(self.records, encoding="ascii") as file:
            for line in file:
                kind, *numbers = line.split()
                (parts if kind == "part" else reads).append(tuple(map(int, numbers)))
        os.unlink(self.records)
        return parts, reads


def tcp_queues(port):
    """Of the slow connection: unacknowledged bytes at the service, unread ones at the client."""
    unsent = unread = 0
    with open("/proc/net/tcp", encoding="ascii") as table:
        for line in table:
            match = re.match(r" *\d+: \w+:(\w+) \w+:(\w+) \w+ (\w+):(\w+)", line)
            if match:
                local, remote, sending, receiving = (int(text, 16) for text in match.groups())
                if remote == port:
                    unsent = sending
                elif local == port:
                    unread = receiving
    return unsent, unread


def most_frames_held(parts, reads, samples):
    """How many frames the service held for its slow client, at most.

    A frame is held from its part header's time stamp until the kernel has taken its last byte; what
    the kernel had taken is what the client had read and what stood in the two sockets.
    """
    read_times = [read[0] for read in reads]
    most = 0
    for monotonic, real, unsent, unread in samples:
        at = bisect.bisect(read_times, monotonic) - 1
        taken = (reads[at][1] if at >= 0 else 0) + unsent + unread
        held = sum(1 for _, _, stamp, _, _, end in parts if stamp <= real and end > taken + SLACK)
        most = max(most, held)
    return most


class Counters:
    """What a process, its load and its camera have used until now."""

    def __init__(self, pid, load, camera):
        self.time = time.monotonic()
        self.cpu = figures.cpu_seconds(pid)
        self.load_cpu = figures.cpu_seconds(load.process.pid)
        self.library = int(camera.ctl("cpu").split("=")[1]) / 1e6
        self.switches = figures.context_switches(pid)


Frame = collections.namedtuple("Frame", "stamp size")  # us; size 0: dropped by the camera


def read_frames(camera):
    """Every frame of the camera, oldest first."""
    frames = []
    with open(camera.path("frames.log"), encoding="ascii") as file:
        for line in file:
            _, _, size, _, _, seconds, *_ = line.split()
            frames.append(Frame(round(float(seconds) * 1e6), 0 if size == "-" else int(size)))
    return frames


class Run:
    """One measurement: a number of clients of the service or of the floor."""

    def __init__(self, folder, clients, slow_rate=0, floor=None):
        camera = harness.Camera("--pictures", folder, "--keep", "1", "--fps", str(RATE))
        program = None
        try:
            program = harness.Server(camera) if floor is None else Floor(camera, *floor)
            self._measure(program.process.pid, camera, Load(clients, slow_rate), clients)
        finally:
            if program:
                program.close()
            camera.close()

    def _measure(self, pid, camera, load, clients):
        time.sleep(WARM_UP)
        before = Counters(pid, load, camera)
        samples = []
        self.resident = 0
        while time.monotonic() < before.time + SECONDS:
            self.resident = max(self.resident, figures.resident_mb(pid))
            if load.slow_port:
                samples.append((time.monotonic() * 1e6, time.time() * 1e6,
                                *tcp_queues(load.slow_port)))
            time.sleep(0.1)
        after = Counters(pid, load, camera)
        if load.slow_port:
            load.drain()
        time.sleep(1)  # the last frames of the window, and what the slow client has in the way
        parts, reads = load.finish()
        self._evaluate(before, after, read_frames(camera), parts, clients)
        self.held = 0
        if load.slow_port:
            slow = [part for part in parts if part[0] == clients]
            self.held = most_frames_held(slow, reads, samples)
            if slow[-1][2] < samples[-1][1]:
                raise AssertionError("the slow client has not caught up")

    def _evaluate(self, before, after, frames, parts, clients):
        stamps_by_size = collections.defaultdict(list)
        for frame in frames:
            stamps_by_size[frame.size].append(frame.stamp)
        start, end = before.time * 1e6, after.time * 1e6
        self.frames = sum(1 for frame in frames if start <= frame.stamp < end)
        self.expected = self.frames * clients
        latencies = []
        in_window = 0
        for client, size, _, done, _, _ in parts:
            in_window += start <= done < end
            stamps = stamps_by_size[size]
            stamp = stamps[bisect.bisect(stamps, done) - 1]  # the latest frame of this size
            if client < clients and start <= stamp < end:
                latencies.append((done - stamp) / 1000)
        self.delivered = len(latencies)
        self.median = figures.median(latencies)
        self.percentile99 = figures.percentile(latencies, 99)
        library = after.library - before.library
        self.cpu = (after.cpu - before.cpu - library) / in_window * 1e6
        self.library = library / self.frames * 1e6
        self.load_cpu = (after.load_cpu - before.load_cpu) / in_window * 1e6
        self.switches = [(b - a) / self.frames for a, b in zip(before.switches, after.switches)]


class Point:
    """All runs of one measurement taken together."""

    def __init__(self, runs):
        def median(name):
            return figures.median([getattr(run, name) for run in runs])
        self.expected = sum(run.expected for run in runs)
        self.delivered = sum(run.delivered for run in runs)
        self.resident = max(run.resident for run in runs)
        self.held = max(run.held for run in runs)
        self.cpu = median("cpu")
        self.load_cpu = median("load_cpu")
        self.both_cpu = figures.median([run.cpu + run.load_cpu for run in runs])
        self.library = median("library")
        self.median = median("median")
        self.percentile99 = median("percentile99")
        self.switches = [figures.median(kind) for kind in zip(*(run.switches for run in runs))]


class LinkRun:
    """One measurement over a link: delay from X-Timestamp, and the delivered rate."""

    def __init__(self, folder, options, seed, floor=None, clients=1):
        camera = harness.Camera("--pictures", folder, "--keep", "1", "--fps", str(RATE))
        program = None
        try:
            with links.Link(queue=100, seed=seed, **options) as link:
                program = harness.Server(camera) if floor is None else Floor(camera, *floor)
                load = Load(clients, 0, link)
                time.sleep(WARM_UP)
                start = time.monotonic()
                time.sleep(LINK_SECONDS)
                end = time.monotonic()
                offset = time.time() - time.monotonic()  # X-Timestamp has the clock of the day
                parts, _ = load.finish()
        finally:
            if program:
                program.close()
            camera.close()
        taken = [part for part in parts if start * 1e6 <= part[3] < end * 1e6]
        delays = [(done - stamp) / 1000 + offset * 1000 for _, _, stamp, done, _, _ in taken]
        self.median = figures.median(delays)
        self.percentile99 = figures.percentile(delays, 99)
        self.rate = len(taken) / (end - start)
        own = [[delay for part, delay in zip(taken, delays) if part[0] == client]
               for client in range(clients)]
        self.least_rate = min(len(each) for each in own) / (end - start)
        self.least_in_time = min(100 * sum(delay <= 1000 for delay in each) / len(each)
                                 for each in own if each)


def measure(folder, clients):
    """The points of the floors (three calls, one, three and a pause, and a copy), the service, and
    the service with a slow client: by name."""
    kinds = {"floor": {"floor": ()}, "service": {}, "one-call": {"floor": ("one-call",)},
             "pauses": {"floor": ("pauses",)}, "agreed": {"floor": ("copies", "pauses")},
             "slow": {"slow_rate": SLOW_RATE}}
    rounds = [[Run(folder, clients, **kind) for kind in kinds.values()] for _ in range(ROUNDS)]
    return {name: Point(runs) for name, runs in zip(kinds, zip(*rounds))}


def add_point(table, clients, points):
    service, floor, one_call = points["service"], points["floor"], points["one-call"]
    piece = f"stream, {clients} client" + ("s" if clients > 1 else "")
    table.add(piece, "delivered frames", service.delivered, f"of {service.expected}",
              goal=service.expected if clients <= 64 else None, better="more")
    table.add(piece, "CPU per delivered frame, beside a floor of three calls", service.cpu, "us",
              floor.cpu, goal=1.0 if clients >= 8 else 1.1, bound=PAUSE)
    table.add(piece, "CPU per delivered frame, beside a floor of one call", service.cpu, "us",
              one_call.cpu, goal=1.25, bound=PAUSE)
    table.add(piece, "CPU per delivered frame, beside a floor that copies and pauses too",
              service.cpu, "us", points["agreed"].cpu)
    table.add(piece, "the agreed pause's CPU per delivered frame, in the floor",
              points["pauses"].cpu - floor.cpu, "us")
    table.add(piece, "CPU per delivered frame, with the load generator's, beside one call",
              service.both_cpu, "us", one_call.both_cpu, bound=PAUSE)
    table.add(piece, "latency, median", service.median, "ms", one_call.median, goal=1.1,
              bound=PAUSE)
    table.add(piece, "latency, 99th percentile", service.percentile99, "ms",
              one_call.percentile99, goal=1.3, bound=PAUSE, gate=False)
    table.add(piece, "context switches per frame, voluntary", service.switches[0], "",
              one_call.switches[0], gate=False)
    table.add(piece, "context switches per frame, others", service.switches[1], "",
              one_call.switches[1], gate=False)
    table.add(piece, "resident memory", service.resident, "MB", goal=8 if clients == 64 else None)
    table.add(piece, "the camera library's CPU per frame, left out above", service.library, "us")
    table.add(piece, "the load generator's CPU per delivered frame", service.load_cpu, "us")


def add_links(table, folder):
    for name, options in LINKS:
        rounds = [(LinkRun(folder, options, seed), LinkRun(folder, options, seed, ("one-call",)))
                  for seed in range(1, ROUNDS + 1)]
        services, floors = zip(*rounds)

        def median(runs, figure):
            return figures.median([getattr(run, figure) for run in runs])

        piece = f"link, {name}"
        table.add(piece, "delay, median", median(services, "median"), "ms",
                  median(floors, "median"), goal=1.1, bound=BUFFERS)
        table.add(piece, "delay, 99th percentile", median(services, "percentile99"), "ms",
                  median(floors, "percentile99"), goal=1.3, bound=BUFFERS, gate=False)
        table.add(piece, "delivered rate", median(services, "rate"), "1/s",
                  median(floors, "rate"), better="more")
    name, options, clients = SHARED
    runs = [LinkRun(folder, options, seed, clients=clients) for seed in range(1, ROUNDS + 1)]
    piece = f"link, {name}"
    table.add(piece, "pictures within 1 s, of the viewer with the fewest",
              figures.median([run.least_in_time for run in runs]), "%", goal=99, better="more",
              bound=BUFFERS)
    table.add(piece, "pictures, of the viewer with the fewest",
              figures.median([run.least_rate for run in runs]), "1/s", goal=2, better="more")
    table.add(piece, "delay, median", figures.median([run.median for run in runs]), "ms")
    table.add(piece, "delay, 99th percentile",
              figures.median([run.percentile99 for run in runs]), "ms")


def add_slow(table, clients, slow, alone):
    """The figures of the others beside a slow client; their floor is the run without it."""
    piece = f"stream, {clients} client{'s' if clients > 1 else ''} and a slow one"
    table.add(piece, "delivered frames, the others", slow.delivered, f"of {slow.expected}",
              goal=slow.expected if clients <= 64 else None, better="more")
    table.add(piece, "CPU per delivered frame, beside without it", slow.cpu, "us", alone.cpu,
              goal=1.25 if clients >= 8 else None)
    table.add(piece, "latency of the others, median, beside without it", slow.median, "ms",
              alone.median, goal=1.25)
    table.add(piece, "frames held for the slow one, at most", slow.held, "", goal=2)


def main():
    words = sys.argv[1:]
    counts = [int(text) for text in words if text != "links"]
    if not words:
        counts = CLIENTS
    folder = tempfile.mkdtemp(prefix="kestrel-pictures.")
    os.makedirs(f"{harness.CARD}/www", exist_ok=True)
    pictures.write(folder)
    table = figures.Table()
    points = {}
    for clients in counts:
        points[clients] = measure(folder, clients)
        add_point(table, clients, points[clients])
        add_slow(table, clients, points[clients]["slow"], points[clients]["service"])
    if len(counts) > 1:
        few, many = min(n for n in counts if n >= 8 or n == max(counts)), max(counts)
        if many > few:
            table.add("stream, fan-out", f"CPU per delivered frame, {many} clients beside {few}",
                      points[many]["service"].cpu / points[few]["service"].cpu, "times",
                      points[many]["floor"].cpu / points[few]["floor"].cpu, goal=1.25)
    if not words or "links" in words:
        links.require()
        add_links(table, folder)
    table.print()


if __name__ == "__main__":
    main()

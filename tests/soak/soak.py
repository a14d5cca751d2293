"""Churn and soak: everything that comes and goes, for as long as wanted, and nothing may be left.

usage: soak.py MINUTES RECORD [--seed N] [--fault memory|descriptor|thread|consumer]

Run it as scripts/soak does: KESTREL_BUILD is the build, inside tests/support/private-host and
kestrel-board-ns. RECORD gets what was measured; report.py makes the table of it. With --fault the
program under test makes a fault of that kind on purpose, once a round: the run must fail.

The program under test, kestrel-server-soak, is the service itself with its console and its serial
port started, which the shipped start-up leaves out: one process then has everything to survive, the
clients' descriptors beside the port's and the camera's, the log of all threads in one file, and the
resident size is that of the whole. With the reference plug-in, where it is built, heights are measured
and snapshots corrected. A measurement holds every other answer back until it is done, so that clients
are given that much longer.

A round is a few seconds of churn and a quiet moment. In a quiet moment the camera and the cable are
plugged, no job prints and no client is connected; descriptors, threads and consumers must then be
those of the idle service, exactly, and each kind of request and a job must still work. Consumers
and allocated bytes are reported by the program itself, on a command of its console.
"""

import argparse
import random
import re
import signal
import threading
import time

from clients import Broken, Client, Reader, connect, read_answer
from devices import CableActor, CameraActor, MeasureActor
from harness import HTTP_PORT, LOG_PORT, wait_until
from rig import PINS, PINS_PER_RESET, Peaks, Rig, Tally, build_name, save
from trend import ALLOCATED_BOUND, RESIDENT_BOUND, check_equal, check_growth

CLIENTS = 12  # at a time
MEASUREMENTS = 4  # at a quiet moment: two lead into focus, and two may be lost to a replugged camera
LEAST_ROUNDS = 8  # however short the run: trends are judged by the last two thirds of them
# The longest that a reader of "/live" may wait while the camera is plugged: the service takes up to
# 3.5 s to open a camera again (a second between two attempts, half a second after the last) and
# direct answers to clients that do not read hold the reactor back for 5 s each, two in a row, and a
# measurement for its moves, which is rarely 20 s for one; the rest is for a busy machine with a
# sanitizer.
LIVE_BOUND = 45.0  # s
QUIET_BOUND = 30.0  # s; a silent client is found by keep-alive after 5 s and two probes


class Churn:
    def __init__(self, minutes, seed, fault):
        self.minutes = minutes
        self.chance = random.Random(seed)
        self.fault = fault
        self.tally = Tally()
        self.rig = Rig()
        self.samples = {}
        self.idle = {}
        self.started = time.monotonic()
        self.peaks = Peaks(self.rig)

    def run(self):
        self.quiet()
        rounds = 0
        # A short run needs its moments to judge a trend by; a longer one has time for clients that
        # stay.
        longest = 3.0 if self.minutes <= 2 else 8.0
        while not self.tally.failures and (
                rounds < LEAST_ROUNDS or time.monotonic() - self.started < self.minutes * 60):
            if self.fault:
                self.rig.console(f"leak {self.fault}")
            seconds = self.chance.uniform(2.0, longest)
            self.churn(30.0 if self.minutes > 2 and rounds % 10 == 9 else seconds)
            self.quiet()
            rounds += 1
        self.tally.add("rounds", rounds)

    # Churn.

    def churn(self, seconds):
        self.rig.console(f"level {self.chance.choice((5, 8))}")
        stop = threading.Event()
        clients = [Client(self.rig, self.tally, self.own_chance(), stop) for _ in range(CLIENTS)]
        camera = CameraActor(self.rig, self.tally, self.own_chance())
        cable = CableActor(self.rig, self.tally, self.own_chance())
        measuring = MeasureActor(self.rig, self.tally, self.own_chance())
        watcher = Watcher(camera, self.tally)
        for thread in (*clients, camera, cable, watcher):
            thread.start()
        if self.rig.measures:
            measuring.start()
        try:
            self.beside(seconds)
            if self.rig.measures:
                measuring.end()  # while the camera still comes back
            camera.end()
            cable.end()
            self.rig.camera.ctl("clear")
            watcher.end()  # after one more picture
        finally:
            stop.set()
        for client in clients:
            client.join()
        if not self.rig.server.alive():
            raise AssertionError(f"the service ended: {self.rig.server.process.returncode}")

    def beside(self, seconds):
        """Beside the churn: log lines; in the end a look at what is highest then."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and self.rig.server.alive():
            self.rig.console("lines 50")
            time.sleep(0.2)
        state = self.rig.state()
        self.peaks.see("consumers", state["consumers"])
        self.peaks.see("allocated", state["allocated"])

    def own_chance(self):
        return random.Random(self.chance.random())

    # Quiet moments.

    def quiet(self):
        self.rig.console("level 5")
        self.check_service()
        self.check_job()
        if self.rig.measures and 0 == len(self.samples.get("threads", ())) % 3:
            self.check_measurement()
        try:
            wait_until(self.is_settled, "descriptors and threads are those of the idle service",
                       QUIET_BOUND)
        except AssertionError as error:  # the samples show it
            print(error, flush=True)
        now = time.monotonic() - self.started
        # The frame that is being handed on, a quarter of the time, is no leak: the least of some.
        state = min((self.rig.state() for _ in range(5)), key=lambda one: one["allocated"])
        kinds = self.rig.descriptors()
        pins = kinds.pop(PINS, 0)
        if pins != PINS_PER_RESET * self.rig.resets:
            self.tally.fail(f"{pins} descriptors of pins after {self.rig.resets} resets")
        if not self.idle:
            self.idle = {"descriptors": sum(kinds.values()), "kinds": kinds, "consumers": 0,
                         "threads": len(self.rig.threads())}
        values = {"descriptors": sum(kinds.values()), "threads": len(self.rig.threads()),
                  "consumers": state["consumers"], "allocated": state["allocated"],
                  "resident": self.rig.resident()}
        for name, value in values.items():
            self.samples.setdefault(name, []).append((now, value))
            self.peaks.see(name, value)
            if name in self.idle and value != self.idle[name]:
                self.tally.fail(f"{name}: {value} at {now:.0f} s, idle is {self.idle[name]}; "
                                f"{kinds} {self.rig.threads()}")
        print(f"{build_name()} {now:6.0f} s  " + "  ".join(f"{n} {v}" for n, v in values.items()),
              flush=True)

    def is_settled(self):
        kinds = self.rig.descriptors()
        kinds.pop(PINS, 0)
        if not self.idle:  # the first moment's own clients are gone
            return not connections()
        return kinds == self.idle["kinds"] and len(self.rig.threads()) == self.idle["threads"]

    def check_service(self):
        """A client of each kind, alone, gets what it asks for."""
        end = time.monotonic() + LIVE_BOUND

        def in_time():
            if time.monotonic() > end:
                raise Broken("no picture at a quiet moment")

        reader = Reader(in_time)
        picture = reader.frame()
        if picture not in self.rig.camera.frames():
            raise Broken("the stream's picture is not the camera's")
        reader.socket.close()
        for path, good in (("/snap", lambda body: body in self.rig.camera.frames()),
                           ("/large.png", lambda body: body == self.rig.files["large.png"]),
                           ("/camera", lambda body: body == b"invalid request")):
            client = connect()
            client.sendall(f"GET {path} HTTP/1.1\r\n\r\n".encode())
            if not good(read_answer(client)[1]):
                raise Broken(f"{path}: wrong answer at a quiet moment")
            client.close()

    def check_job(self):
        """A job prints from its first line to its last."""
        before = self.rig.printed_lines()
        self.rig.console("job 10")
        # The tenth line, and the empty line that ends the job.
        wait_until(lambda: self.rig.printed_lines() >= before + 11, "a job prints undisturbed")
        wait_until(lambda: self.rig.state()["print"] == 1, "a job ends")
        self.rig.console("stop")
        # And the "M5", and the line end that is due behind what a pulled cable cut.
        if self.rig.printed_lines() > before + 13:
            raise Broken("a job printed more than its lines")

    def check_measurement(self):
        """Measurements lead into focus, whatever happened to the arm before."""
        for _ in range(MEASUREMENTS):
            self.rig.measure()
            if self.rig.off_focus() <= 0.1:
                return
        raise Broken(f"{self.rig.off_focus():.2f} mm out of focus after {MEASUREMENTS} measurements")

    # The end.

    def finish(self):
        self.peaks.end()
        ended = self.rig.close()
        if ended:  # the cause of the others
            print(f"FAILED: {ended}", flush=True)
            self.tally.failures.insert(0, ended)
        for name in ("descriptors", "threads", "consumers"):
            self.judge(check_equal(name, self.samples.get(name, []), self.idle.get(name)))
        bound = RESIDENT_BOUND[self.rig.server.sanitizer]
        if self.tally.counts.get("rounds", 0) >= LEAST_ROUNDS or not self.tally.failures:
            self.judge(check_growth("allocated bytes", self.samples.get("allocated", []),
                                    ALLOCATED_BOUND))
            self.judge(check_growth("resident memory, kB", self.samples.get("resident", []), bound))
        return {"build": build_name(), "minutes": (time.monotonic() - self.started) / 60,
                "counts": self.tally.counts, "samples": self.samples,
                "highest": self.peaks.highest, "pins": PINS_PER_RESET * self.rig.resets,
                "failures": self.tally.failures}

    def judge(self, wrong):
        if wrong:
            self.tally.fail(wrong)


def connections():
    """The service's connections for which some process still holds a descriptor."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    return [row for row in rows
            if int(row[1].split(":")[1], 16) in (HTTP_PORT, LOG_PORT)
            and row[3] not in ("0A", "06")]  # listening, waiting for its time


class Watcher(threading.Thread):
    """A well-behaved reader of "/live" through everything that happens to the camera."""

    def __init__(self, camera, tally):
        super().__init__(daemon=True)
        self.camera = camera
        self.tally = tally
        self.last = time.monotonic()
        self.ending = threading.Event()

    def run(self):
        try:
            reader = Reader(self.look)
            last_one = False
            while not last_one:
                last_one = self.ending.is_set()
                reader.frame()
                self.last = time.monotonic()
                self.tally.add("frames")
            reader.socket.close()
        except Exception as error:  # pylint: disable=broad-except
            self.tally.fail(f"reader of /live: {error!r}")

    def look(self):
        steady = self.camera.steady_since
        if steady is not None and time.monotonic() - max(self.last, steady) > LIVE_BOUND:
            raise Broken(f"no picture for {LIVE_BOUND} s with the camera plugged")

    def end(self):
        self.ending.set()
        self.join()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("minutes", type=float)
    parser.add_argument("record")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(10 ** 9))
    parser.add_argument("--fault", choices=("memory", "descriptor", "thread", "consumer"))
    options = parser.parse_args()
    print(f"{build_name()} seed {options.seed}", flush=True)
    signal.signal(signal.SIGTERM, signal.default_int_handler)

    churn = Churn(options.minutes, options.seed, options.fault)
    try:
        churn.run()
    except (Exception, KeyboardInterrupt) as error:  # pylint: disable=broad-except
        churn.tally.fail(re.sub(r"\s+", " ", repr(error)))
    record = churn.finish()
    record["seed"] = options.seed
    save(options.record, record)
    return 1 if record["failures"] else 0


if __name__ == "__main__":
    raise SystemExit(main())

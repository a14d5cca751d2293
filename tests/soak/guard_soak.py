"""The guard under churn: job after job, with faults in between, and nothing may be left.

usage: guard_soak.py MINUTES RECORD [--seed N]

KESTREL_BUILD is the build. Two boards by turns, one for each of the controller's languages: the print
service behind a guard, and the guard before a virtual controller. A round is a homing and a job that
runs to its end, or meets a fault on its way. Behind it comes a quiet moment: the service is gone, the
level dark and the beam off. Descriptors must then be as many as at the first such moment, whatever has
been restarted since, and resident memory must not grow. In the first third of the run worker, parent
and guard are ended and started again; from then on each guard lives on, and its memory is judged.
"""

import argparse
import contextlib
import os
import random
import re
import signal
import socket
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, "..", "drill"), os.path.join(HERE, "..", "system")]

from burning_board import Board, Lines, is_running, wait_until
from harness import sanitizer_of
import burning_board
from rig import Tally, build_name, save
from trend import LEAST_SAMPLES, check_equal, check_growth, last_two_thirds
from verdict import is_lit, taken

# A guard allocates with each request of its operator's and gives it back; its heap and a sanitizer's
# tables reach their height in the first jobs.
RESIDENT_BOUND = {"": 256, "asan": 8192}  # kB
FINDING = re.compile(r"ERROR: (Address|Leak)Sanitizer|runtime error:|terminate called|Assertion")
NONSENSE = (b"", b"x\n", b"{}\n", b'{"do":"job"}\n', b'{"do":"firmware","size":1}\n', b"[" * 3000 + b"\n", b"y" * 5000,
            b'{"do":"state"}\n' * 50, b'{"do":"lease"}\n', b'{"do":"events"}\n')


class Side:
    """A board with its guard's samples."""

    def __init__(self, language, tally, chance):
        self.board = Board(language)
        # A small quarantine, so that freed memory is reused and the resident size settles soon.
        self.board.environment = dict(os.environ, ASAN_OPTIONS="quarantine_size_mb=1:" + os.environ.get(
            "ASAN_OPTIONS", ""))
        self.language = language
        self.tally = tally
        self.chance = chance
        self.descriptors = []  # (seconds, number), of all of this board's guards
        self.resident = []  # of the present one
        self.seen_journal = 0

    # Jobs.

    def job(self, moves):
        """Each line is there once."""
        return ["M3 S500", *(f"G1 X-{10 + 5 * (number % 2)} Y-{1 + number / 1000:.3f} F6000"
                             for number in range(moves)), "M5"]

    def round(self, restart):
        board = self.board
        board.start_guard(False)
        board.home()
        act = self.chance.choice((self.whole, self.whole, self.paused, self.service_killed, self.service_silent,
                                  self.unplugged, self.restarted, self.alarm, self.garbage, self.operator_off,
                                  self.lease_lost, self.strangers))
        lines = self.job(self.chance.randrange(8, 40) if act in (self.whole, self.paused) else 2000)
        board.start_job(lines, 10.0)
        wait_until(lambda: board.see(lambda records: any(map(is_lit, records))), "the beam is on")
        board.wait(self.chance.uniform(0, 0.5))
        act()
        wait_until(lambda: self.state()["level"] == "dark", "the level is dark")
        wait_until(lambda: board.see(lambda records: not is_lit(
            [record for record in records if record.kind == "beam"][-1])), "the beam is off")
        board.lease = 0.0
        board.stop_service()
        self.tally.add(act.__name__.replace("_", " "))
        self.judge_lines(act in (self.whole, self.paused), len(lines) - 2)
        if restart:
            self.chance.choice((self.anew, self.worker_killed, self.parent_killed, self.told_to_end))()
            self.tally.add("guards started again")
            self.resident = []

    def judge_lines(self, whole, moves):
        self.board.read_log()
        got = taken(self.board.records, r"G1X-1[05]Y-1\.(\d{3})")
        self.tally.add("job lines", len(got))
        if got != list(range(len(got))) or (whole and len(got) != min(moves, 1000)):
            self.tally.fail(f"{self.language}: the lines that the controller took: {got}")

    def state(self):
        self.board.see(lambda _: True)  # renews the lease
        return self.board.ask(do="state")

    # What a job meets.

    def whole(self):
        pass

    def paused(self):
        with contextlib.suppress(TimeoutError):
            if not self.board.ask(do="pause")["ok"]:  # behind its last line
                return
            wait_until(lambda: self.state()["paused"] or self.state()["level"] == "dark", "the job pauses")
            self.board.wait(self.chance.uniform(0, 0.5))
            self.board.ask(do="resume")

    def service_killed(self):
        self.board.service.kill()
        self.board.service.wait()  # its terminal has been replaced by now, or will be

    def service_silent(self):
        self.board.service.send_signal(signal.SIGSTOP)

    def unplugged(self):
        self.board.command("unplug")
        self.board.wait(self.chance.uniform(0, 1.0))
        self.board.command("plug")

    def restarted(self):
        self.board.command("restart")

    def alarm(self):
        self.board.command("alarm-now 2")

    def garbage(self):
        self.board.write_as_service(bytes(self.chance.choice(range(128, 256)) for _ in range(20)))

    def operator_off(self):
        self.board.ask(do=self.chance.choice(("off", "stop", "dark")))

    def lease_lost(self):
        """Its owner leaves, who alone could renew it."""
        self.board.operator.close()
        self.board.operator = Lines(self.board.path("socket"))
        self.board.lease = 0.0

    def strangers(self):
        """Other clients of the operator's socket come, talk and leave, as many as there is room for."""
        for _ in range(5):
            clients = []
            for _ in range(self.chance.randrange(1, 10)):
                client = socket.socket(socket.AF_UNIX)
                client.settimeout(burning_board.DEADLINE)
                with contextlib.suppress(OSError):
                    client.connect(self.board.path("socket"))
                    client.sendall(self.chance.choice(NONSENSE))
                clients.append(client)
            self.state()
            for client in clients:
                client.close()
            self.tally.add("strangers", len(clients))
        self.operator_off()

    # Ends.

    def anew(self):
        """With the configuration as it is now."""
        worker = self.board.worker()
        self.board.guard.send_signal(signal.SIGHUP)
        wait_until(lambda: not is_running(worker), "another worker")
        self.board.operator.close()
        self.board.operator = wait_until(self.board.run_guard, "the guard works")

    def worker_killed(self):
        os.kill(self.board.worker(), signal.SIGKILL)
        self.board.await_end()

    def parent_killed(self):
        self.board.worker_id = self.board.worker()
        self.board.guard.kill()
        self.board.await_end()

    def told_to_end(self):
        self.board.stop_guard()

    # Quiet moments.

    def quiet(self, seconds):
        """Nobody but this one operator is there."""
        board = self.board
        board.start_guard(False)
        wait_until(lambda: self.state()["beam_seen_off"], "the beam is seen off")
        idle = self.descriptors[0][1] if self.descriptors else None
        with contextlib.suppress(TimeoutError):  # the sample shows it
            wait_until(lambda: idle in (None, self.count_descriptors()), "", 5)
        self.descriptors.append((seconds, self.count_descriptors()))
        self.resident.append((seconds, sum(map(resident, self.processes()))))
        self.look_for_findings()

    def processes(self):
        return self.board.guard.pid, self.board.worker()

    def count_descriptors(self):
        return sum(len(os.listdir(f"/proc/{process}/fd")) for process in self.processes())

    def look_for_findings(self):
        self.board.journal.flush()
        with open(self.board.path("journal"), encoding="utf-8", errors="replace") as file:
            file.seek(self.seen_journal)
            text = file.read()
            self.seen_journal = file.tell()
        found = FINDING.search(text)
        if found:
            self.tally.fail(text[found.start():][:2000])

    def finish(self, sanitizer):
        """The guard ends in order: a leak check happens then."""
        self.board.stop_service()
        guard = self.board.guard
        self.board.stop_guard()
        if guard is not None and guard.returncode != 0:
            self.tally.fail(f"{self.language}: the guard ended with {guard.returncode}")
        self.look_for_findings()
        for wrong in (check_equal("descriptors", self.descriptors, self.descriptors[0][1] if self.descriptors else 0),
                      check_growth("resident memory, kB", self.resident, RESIDENT_BOUND[sanitizer])):
            if wrong:
                self.tally.fail(f"{self.language}: {wrong}")
        if self.tally.failures:
            print("\n".join(self.board.tell_journal(15)), flush=True)
        self.board.close()


def resident(process):
    with open(f"/proc/{process}/status", encoding="ascii") as file:
        # Without the program's own pages, which come when a line of it runs for the first time.
        return int(re.search(r"^RssAnon:\s+(\d+)", file.read(), re.M).group(1))


def soak(minutes, sides, tally):
    started = time.monotonic()
    rounds = 0
    while not tally.failures and (time.monotonic() - started < minutes * 60 or not all(
            side.resident and len(last_two_thirds(side.resident)) >= LEAST_SAMPLES for side in sides)):
        side = sides[rounds % len(sides)]
        early = time.monotonic() - started < minutes * 20
        side.round(early and rounds >= len(sides) and side.chance.random() < 0.5)
        side.quiet(time.monotonic() - started)
        rounds += 1
        tally.add("rounds")
        print(f"{build_name()} guard {time.monotonic() - started:6.0f} s  {side.language} "
              f"descriptors {side.descriptors[-1][1]}  resident {side.resident[-1][1]}", flush=True)
    return (time.monotonic() - started) / 60


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("minutes", type=float)
    parser.add_argument("record")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(10 ** 9))
    options = parser.parse_args()
    print(f"{build_name()} guard, seed {options.seed}", flush=True)
    signal.signal(signal.SIGTERM, signal.default_int_handler)

    chance = random.Random(options.seed)
    tally = Tally()
    sanitizer = sanitizer_of(burning_board.GUARD)[0]
    sides = [Side(language, tally, random.Random(chance.random())) for language in ("arm", "grbl")]
    minutes = 0.0
    try:
        minutes = soak(options.minutes, sides, tally)
    except (Exception, KeyboardInterrupt) as error:  # pylint: disable=broad-except
        tally.fail(re.sub(r"\s+", " ", repr(error)))
    samples = {f"{name}, {side.language}": values for side in sides
               for name, values in (("descriptors", list(side.descriptors)), ("resident", list(side.resident)))}
    for side in sides:
        side.finish(sanitizer)
    save(options.record, {"build": build_name(), "minutes": minutes, "seed": options.seed, "counts": tally.counts,
                          "samples": samples, "failures": tally.failures})
    return 1 if tally.failures else 0


if __name__ == "__main__":
    raise SystemExit(main())

"""The virtual motion controller, for tests that drive the service from outside.

With KESTREL_GUARD_LANGUAGE ("arm" or "grbl") the guard stands in front of it, and the service finds the
guard's terminal.
"""

import json
import os
import re
import socket
import subprocess

from harness import BUILD, TOOLS, wait_until

GUARDED = os.environ.get("KESTREL_GUARD_LANGUAGE", "")
PORT = "/dev/ttyACM" if GUARDED else "/dev/ttyACM0"  # that the service finds
# Without a pull-off: the service measures heights from where homing leaves the arm, which is its zero.
GRBL = ["--language", "grbl"] + [word for setting in (
    "32=1", "22=1", "24=3000", "25=6000", "26=10", "27=0", "110=6000", "111=6000", "112=6000", "120=500", "121=500",
    "122=500", "130=60", "131=20", "132=10") for word in ("--setting", setting)]


class Controller:
    """The virtual motion controller, or the guard, under the names that the service looks for."""

    def __init__(self, folder, *options):
        self.folder = folder
        self.guard = None
        self.seen = 0  # lines before the service was allowed to move the arm
        node = "/dev/arm" if GUARDED else PORT
        language = GRBL if GUARDED == "grbl" else []
        self.process = subprocess.Popen(
            [f"{TOOLS}/simulator/controller/kestrel-controller", "--node", node,
             "--gpio", "/sys/class/gpio", "--control", f"{folder}/arm", "--journal", f"{folder}/journal",
             *language, *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        if self.process.stdout.readline() != "ready\n":
            raise AssertionError("the virtual controller is not ready")
        if GUARDED:
            self.start_guard(node)

    def start_guard(self, node):
        with open(f"{self.folder}/guard.toml", "w", encoding="utf-8") as file:
            file.write(f'[controller]\nport = "{node}"\nlanguage = "{"grbl" if GUARDED == "grbl" else "kestrel"}"\n'
                       f'[service]\nlink = "{PORT}"\n[operator]\nsocket = "{self.folder}/socket"\n'
                       "[limits]\nmin = [-100, -100, -20]\nmax = [100, 100, 20]\nfeed = 6000\npower = 1000\n"
                       "acceleration = 500\nrapid_feed = 6000\n")
        self.guard = subprocess.Popen(
            [f"{BUILD}/guard/kestrel-guard", "--config", f"{self.folder}/guard.toml", "--last-port",
             f"{self.folder}/last-port"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        self.operator = socket.socket(socket.AF_UNIX)
        wait_until(lambda: 0 == self.operator.connect_ex(f"{self.folder}/socket"), "the guard listens")
        self.answers = self.operator.makefile(encoding="utf-8")

    def ask(self, request):
        self.operator.sendall((json.dumps({"do": request}) + "\n").encode())
        return json.loads(self.answers.readline())

    def allow_moves(self):
        """What the operator does before anybody measures; without the guard nothing."""
        if self.guard is None:
            return
        wait_until(lambda: self.ask("state")["beam_seen_off"], "the beam is seen off")
        if GUARDED == "grbl":  # locked until homed, and a lock refuses the pilot spot as well
            wait_until(lambda: self.ask("unlock")["ok"], "the lock is cleared")
        wait_until(lambda: self.ask("motion")["ok"], "moves are allowed")
        wait_until(lambda: "pilot=1" in self.ctl("state"), "the pilot spot is on")
        self.seen = len(self.all_records("rx"))

    def ctl(self, *words):
        return subprocess.run([f"{TOOLS}/tools/kestrel-controller-ctl",
                               f"{self.folder}/arm", *words],
                              capture_output=True, text=True, check=True).stdout

    def at_line(self, number, *words):
        """Carry out an instruction when that line of the service's comes; before its first one."""
        if self.guard is not None:
            number += int(re.search(r"lines=(\d+)", self.ctl("state")).group(1))
        self.ctl("line", str(number), *words)

    def all_records(self, kind):
        self.ctl("state")  # brings the log up to date
        with open(f"{self.folder}/journal", encoding="ascii") as file:
            lines = [line.rstrip("\n").split(" ", 2) for line in file]
        return [line[2] for line in lines if line[1] == kind]

    def records(self, kind):
        """Lines as the service sends them, without the guard's own."""
        records = self.all_records(kind)
        if self.guard is None or kind != "rx":
            return records
        lines = [in_own_language(text) for text in records[self.seen:] if text not in ("$$", "$#", "")]
        # The guard's own pilot spot is behind homing, the service's behind a move.
        return [line for former, line in zip([""] + lines, lines) if (former, line) != ("$H", "M18 S1")]

    def close(self):
        if self.guard is not None:
            self.guard.terminate()
            self.guard.wait()
            self.answers.close()
            self.operator.close()
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


def in_own_language(line):
    """What the service has sent to make the guard send this."""
    move = re.fullmatch(r"G90G21G53G1([^F]*)(F\d+)", line)
    if move:
        axes = re.sub(r"([XYZ])", r" \1", move.group(1))
        return f"G05{axes} {move.group(2)} "
    return {"M8": "M18 S1", "M9": "M18 S0"}.get(line, line)

"""A second G-code sender that nobody here wrote has to be content with the virtual controller's Grbl.

Its window is drawn on a screen that nobody sees; the test is its pendant, a page that commands it.
"""

import json
import os
import re
import signal
import subprocess
import tempfile
import time
import unittest
import urllib.parse
import urllib.request

BUILD = os.environ["KESTREL_BUILD"]
PORT = 8080
DEADLINE = 120  # seconds; only ends a failing run

CONFIGURATION = """[bCNC]
checkinterval = 0

[Connection]
port = {node}
baud = 115200
controller = GRBL1
openserial = 1
pendant = 1
pendantport = {port}
errorreport = 0
"""


def until(what, condition):
    """Look at a condition until it holds. @return its value"""
    deadline = time.monotonic() + DEADLINE
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"never came: {what}")
        time.sleep(0.02)


class Controller:
    """The virtual controller, with homing and laser mode, and a quick arm."""

    def __init__(self, folder):
        self.node = f"{folder}/ttyACM0"
        self.control = f"{folder}/arm"
        self.journal = f"{folder}/journal"
        settings = ["22=1", "32=1", "24=500", "25=3000", "26=10"]
        for axis in range(3):
            settings += [f"{110 + axis}=6000", f"{120 + axis}=500"]
        options = [word for text in settings for word in ("--setting", text)]
        self.process = subprocess.Popen(
            [f"{BUILD}/simulator/controller/kestrel-controller", "--language", "grbl", "--node", self.node,
             "--control", self.control, "--journal", self.journal, "--speed-up", "3", "--reset-on-open",
             *options],
            stdout=subprocess.PIPE)
        self.process.stdout.readline()

    def ask(self, *words):
        return subprocess.run([f"{BUILD}/tools/kestrel-controller-ctl", self.control, *words], check=True,
                              stdout=subprocess.PIPE, text=True).stdout.strip()

    def field(self, name):
        return float(re.search(rf"(?:^| ){name}=(\S*)", self.ask("state")).group(1))

    def texts(self, kind):
        """The texts of one kind in the journal."""
        self.ask("state")
        with open(self.journal, encoding="latin-1") as file:
            words = [line.rstrip("\n").split(" ", 2) for line in file]
        return [line[2] for line in words if line[1] == kind]

    def close(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class Sender:
    """The sender, and what its pendant says of the controller."""

    def __init__(self, folder, node):
        with open(f"{folder}/.bCNC", "w", encoding="utf-8") as file:
            file.write(CONFIGURATION.format(node=node, port=PORT))
        self.output = open(f"{folder}/output", "wb+")
        self.screen = subprocess.Popen(
            ["Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "1280x1024x24"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.output)
        display = self.screen.stdout.readline().decode().strip()
        # Other installations of Python have not the package's modules.
        self.process = subprocess.Popen(
            ["/usr/bin/bCNC"], cwd=folder, stdin=subprocess.DEVNULL, stdout=self.output,
            stderr=subprocess.STDOUT, start_new_session=True,
            env=dict(os.environ, HOME=folder, PATH="/usr/bin:/bin", DISPLAY=f":{display}"))

    def get(self, path):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{PORT}/{path}", timeout=10) as answer:
                return answer.read().decode()
        except OSError:
            assert self.process.poll() is None, "the sender has ended"
            return ""

    def state(self):
        text = self.get("state")
        return json.loads(text) if text else {}

    def command(self, text):
        self.get("send?" + urllib.parse.urlencode({"cmd": text}, quote_via=urllib.parse.quote))

    def gcode(self, *lines):
        self.get("send?" + urllib.parse.urlencode({"gcode": "\n".join(lines)},
                                                  quote_via=urllib.parse.quote))

    def close(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        self.screen.terminate()
        self.screen.wait()
        self.screen.stdout.close()
        self.output.close()


class Bcnc(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kestrel-bcnc.")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.controller = Controller(self.folder)
        self.addCleanup(self.controller.close)
        self.sender = Sender(self.folder, self.controller.node)
        self.addCleanup(self.sender.close)

    def active(self, name):
        until(f"the state {name}", lambda: self.sender.state().get("state", "").startswith(name))

    def position(self, axis, value):
        until(f"{axis} at {value}",
              lambda: abs(float(self.sender.state().get(f"m{axis}", 1e9)) - value) < 0.001)

    def beam(self, on):
        until("the beam" if on else "the dark", lambda: self.controller.field("laser") == on)

    def is_heard(self):
        self.sender.gcode("G4 P0.01")
        time.sleep(0.2)
        return any(line.startswith("G4") for line in self.controller.texts("rx"))

    def test_connects_homes_jogs_runs_a_file_holds_resumes_and_resets(self):
        try:
            self.drive()
        except BaseException:
            with open(f"{self.folder}/output", "rb") as file:
                print(file.read().decode(errors="replace")[-4000:])
            for kind in ("rx", "byte", "tx"):
                print(kind, *self.controller.texts(kind)[-30:], sep="\n")
            raise

    def drive(self):
        self.active("Alarm")  # locked at power-up
        self.assertEqual(1, len(self.controller.texts("dtr")), "opening the port has reset it")

        self.sender.command("HOME")
        self.active("Idle")
        self.position("x", -1)
        self.assertEqual(1, self.controller.field("homed"))

        self.sender.gcode("$J=G91 X-20 F3000")
        self.position("x", -21)
        self.active("Idle")

        lines = ["G21 G90", "M4 S500", "G1 F3000"]
        lines += [f"X{-30 - i % 2 * 10} Y{-1 - i * 0.4:.1f}" for i in range(100)]
        lines += ["M5", "G0 X-5 Y-5"]
        with open(f"{self.folder}/job.nc", "w", encoding="utf-8") as file:
            file.write("\n".join(lines) + "\n")
        self.sender.command(f"LOAD {self.folder}/job.nc")
        self.sender.command("RUN")
        self.active("Run")
        self.beam(1)

        self.sender.command("PAUSE")
        self.active("Hold")
        self.beam(0)
        self.assertRegex(self.controller.ask("state"), " moving=0 held=1 ")
        self.sender.command("RESUME")
        self.beam(1)

        # Behind a job it holds, resets and unlocks; what it is told meanwhile it drops.
        until("the end of the job", lambda: "\\x18" in self.controller.texts("byte"))
        self.active("Idle")
        until("commands after the job", self.is_heard)
        self.position("x", -5)
        self.position("y", -5)
        self.assertEqual(0, self.controller.field("laser"))
        job = [line for line in self.controller.texts("rx") if re.match(r"(G1)?X-[34]0", line)]
        self.assertEqual([round(-1 - i * 0.4, 1) for i in range(100)],
                         [float(re.search(r"Y(-[0-9.]+)", line).group(1)) for line in job],
                         "each once, in order")
        self.assertEqual([], self.controller.texts("overflow"))
        self.assertEqual([], [text for text in self.controller.texts("tx") if text.startswith("error:")])

        # A reset in motion: dark at once, position lost, locked until told otherwise.
        self.sender.gcode("M3 S500", "G1 X-100 F600")
        self.beam(1)
        self.sender.command("RESET")
        self.active("A")  # "ALARM:3" or "Alarm"
        self.assertEqual(0, self.controller.field("laser"))
        self.assertEqual(0, self.controller.field("homed"))
        self.sender.command("UNLOCK")
        self.active("Idle")


if __name__ == "__main__":
    unittest.main()

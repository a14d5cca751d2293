"""The virtual motion controller, for tests that drive the service from outside."""

import subprocess

from harness import TOOLS


class Controller:
    """The virtual motion controller under the names that the service looks for."""

    def __init__(self, folder, *options):
        self.folder = folder
        self.process = subprocess.Popen(
            [f"{TOOLS}/simulator/controller/kestrel-controller", "--node", "/dev/ttyACM0",
             "--gpio", "/sys/class/gpio", "--control", f"{folder}/arm", "--journal", f"{folder}/journal",
             *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        if self.process.stdout.readline() != "ready\n":
            raise AssertionError("the virtual controller is not ready")

    def ctl(self, *words):
        return subprocess.run([f"{TOOLS}/tools/kestrel-controller-ctl",
                               f"{self.folder}/arm", *words],
                              capture_output=True, text=True, check=True).stdout

    def records(self, kind):
        self.ctl("state")  # brings the log up to date
        with open(f"{self.folder}/journal", encoding="ascii") as file:
            lines = [line.rstrip("\n").split(" ", 2) for line in file]
        return [line[2] for line in lines if line[1] == kind]

    def close(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()

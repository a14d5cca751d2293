"""What main does around the module manager, which a script replaces: its steps and its log."""

import glob
import re
import signal
import socket
import subprocess
import time
import unittest

from harness import LOG_PORT, Server, connect, listening, wait_until

UP = ["initModule", "startModule", "moduleInitialize"]
DOWN = ["moduleUnInitialize", "stopModule", "uninitModule"]


def log_files():
    return sorted(glob.glob("/tmp/usb-camera.log.*"))


def log_text():
    text = b""
    for path in log_files():
        with open(path, "rb") as file:
            text += file.read()
    return text.decode("ascii")


class Scripted(unittest.TestCase):
    def start(self, **results):
        server = Server(program="kestrel-server-scripted", arguments=("first",), wait=False,
                        stdin=subprocess.PIPE, environment=results)
        self.addCleanup(server.close)
        self.addCleanup(server.process.stdin.close)  # comes first
        return server


class Main(Scripted):
    def run_to_the_end(self, **results):
        """The exit status, the steps that were taken, and the whole output."""
        server = self.start(**results)
        server.process.stdin.close()
        status = server.wait_ended()
        output = server.output()
        return status, re.findall(r"^(?:\S+ )?(\w+(?:Module|Initialize|Loop))$", output, re.M), output

    def test_steps_come_in_order(self):
        status, steps, output = self.run_to_the_end()

        self.assertEqual(0, status)
        self.assertEqual(UP + ["systemLoop"] + DOWN, steps)
        self.assertIn("first systemLoop\n", output, "the loop gets the arguments")

    def test_failed_start_is_the_exit_status_at_once(self):
        for code in (1, 2, 3):
            status, steps, _ = self.run_to_the_end(moduleInitialize=str(code))
            self.assertEqual(code, status)
            self.assertEqual(UP, steps)

    def test_failed_going_down_is_ignored(self):
        status, steps, _ = self.run_to_the_end(moduleUnInitialize="1")

        self.assertEqual(0, status)
        self.assertEqual(UP + ["systemLoop"] + DOWN, steps)

    def test_other_failures_are_assertions(self):
        for step, call in (("initModule", "initModule()"), ("startModule", "startModule()"),
                           ("systemLoop", "systemLoop(argv)"), ("stopModule", "stopModule()"),
                           ("uninitModule", "uninitModule()")):
            status, steps, output = self.run_to_the_end(**{step: "1"})

            self.assertEqual(-signal.SIGABRT, status, step)
            self.assertEqual(step, steps[-1])
            self.assertRegex(output, r"main\.cpp:\d+: int main\(int, char\*\*\): Assertion `"
                             + re.escape(f"RET_SUCCESS == pModuleManager->{call}") + "' failed")


class Logging(Scripted):
    def say(self, server, text):
        before = server.output().count("logged\n")
        server.process.stdin.write(text.encode())
        server.process.stdin.flush()
        wait_until(lambda: server.output().count("logged\n") > before, "the lines are logged")

    def test_levels_to_five_go_to_file_and_viewers_only(self):
        server = self.start()
        wait_until(lambda: listening(LOG_PORT), "viewers are waited for on all addresses")
        viewer = connect(LOG_PORT)
        self.addCleanup(viewer.close)
        # The viewer hears what is logged once its connection is set up: a line until it comes.
        viewer.settimeout(0.2)
        first = b""
        while not first:
            self.say(server, "1 1\n")
            try:
                first = viewer.recv(65536)
            except TimeoutError:
                pass
        viewer.settimeout(30)

        for level in range(1, 9):
            self.say(server, f"{level} 1\n")
        self.say(server, "5 1\n")

        names = {1: "fatal", 2: "error", 3: "alert", 4: "crit ", 5: "warn "}
        pattern = re.compile(r"\[(.{5})\] \[\d\d-\d\d \d\d:\d\d:\d\d\] \[\d+\] level (\d)0{992}0\n")
        text = first.decode("ascii")
        while text.count("[warn ]") < 2 or not text.endswith("\n"):
            text += viewer.recv(65536).decode("ascii")
        for heard in (text, log_text()):
            lines = pattern.findall(heard)
            self.assertEqual("", pattern.sub("", heard), "no other line, no other layout")
            self.assertEqual([(names[n], str(n)) for n in (1, 2, 3, 4, 5, 5)], lines[-6:])
        self.assertNotIn("level ", server.output(), "nothing on the console")

    def test_port_of_the_viewers_in_use_is_told_in_the_file(self):
        blocker = socket.create_server(("0.0.0.0", LOG_PORT))
        self.addCleanup(blocker.close)
        server = self.start()

        self.say(server, "1 1\n")

        self.assertIn("] accept socket bind error !!   accept ip:(null) port:8001\n", log_text())

    def test_file_is_changed_at_four_megabytes_and_two_are_kept(self):
        server = self.start()
        wait_until(log_files, "the first file is there")
        for _ in range(3):
            newest = log_files()[-1]
            time.sleep(1.1)  # files are named by the second
            self.say(server, "5 3900\n")  # with their prefixes a little less than 4096 KiB
            self.assertEqual(newest, log_files()[-1])
            self.say(server, "5 200\n")
            self.assertNotEqual(newest, log_files()[-1], "the limit was reached")
            with open(newest, "rb") as file:
                size = len(file.read())
            self.assertGreaterEqual(size, 4096 * 1024)
            self.assertLess(size, 4096 * 1024 + 2000, "the line that reaches the limit is the last")
            self.assertEqual(2, len(log_files()))


if __name__ == "__main__":
    unittest.main()

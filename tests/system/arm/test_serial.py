"""The serial port at the service's start, its cable pulled, and the documented dialogues."""

import glob
import os
import subprocess
import tempfile
import unittest

from controller import GUARDED, PORT, Controller
from harness import BUILD, EMULATOR, SOURCE, Board, LiveStream, Server, request, wait_until


class Start(unittest.TestCase):
    def test_service_that_starts_before_its_controller_waits_for_it(self):
        with tempfile.TemporaryDirectory(prefix="kestrel-arm.") as folder:
            controller = Controller(folder, "--boot-ms", "1500")
            self.addCleanup(controller.close)
            server = Server(program="kestrel-server-arm", cwd=folder)
            self.addCleanup(server.close)

            self.assertIn(f"[{PORT}]", server.output())
            stores = [text for text in controller.records("gpio") if "value" in text]
            self.assertEqual(["gpio106/value 1", "gpio106/value 0", "gpio106/value 1"], stores)
            if GUARDED:  # whose terminal was there all the time
                controller.allow_moves()

    def test_shipped_start_makes_no_print_service(self):
        with Board() as board:
            folder = f"/proc/{board.server.process.pid}/task"
            wait_until(lambda: len(os.listdir(folder)) > 2, "its threads run")
            names = []
            for path in glob.glob(f"{folder}/*/comm"):
                with open(path, encoding="ascii") as file:
                    names.append(file.read().strip())
            self.assertIn("webcamera", names)
            self.assertNotIn("printservice", names)


class PulledCable(unittest.TestCase):
    def test_service_goes_on_answering(self):
        with tempfile.TemporaryDirectory(prefix="kestrel-arm.") as folder:
            os.symlink(f"{os.environ['KESTREL_TEST_PLUGINS']}/libtest_plugin.so",
                       f"{folder}/libframe_process.so")
            controller = Controller(folder)
            self.addCleanup(controller.close)
            with Board(program="kestrel-server-arm", cwd=folder):
                controller.allow_moves()
                controller.at_line(1, "unplug")

                response, _ = request("/camera?focus=1")

                self.assertEqual(200, response.status)
                self.assertEqual(["$H"], controller.records("rx"))
                live = LiveStream()
                self.assertEqual(b"\xff\xd8", live.frame()[:2])
                live.close()


class Transcripts(unittest.TestCase):
    def test_documented_dialogues_run_against_a_controller_at_its_port(self):
        with tempfile.TemporaryDirectory(prefix="kestrel-arm.") as folder:
            controller = Controller(folder, "--speed-up", "1000")
            self.addCleanup(controller.close)
            play = EMULATOR + [f"{BUILD}/tools/kestrel-transcript", "/dev/ttyACM0",
                               f"{SOURCE}/docs/serial.md"]

            every = subprocess.run(play, capture_output=True, text=True, check=False)
            one = subprocess.run(play + ["Laser off"], capture_output=True, text=True, check=False)
            controller.ctl("refuse", "5")
            refused = subprocess.run(play + ["Height"], capture_output=True, text=True, check=False)

        self.assertTrue(every.stdout.endswith("\n6 dialogues, 0 differ\n"), every.stdout)
        self.assertEqual("Laser off: as written\n1 dialogues, 0 differ\n", one.stdout)
        self.assertEqual(0, one.returncode)
        self.assertEqual("Height: differs\nexpected: ok\ncame: error:5\n1 dialogues, 1 differ\n",
                         refused.stdout)
        self.assertEqual(1, refused.returncode)


if __name__ == "__main__":
    unittest.main()

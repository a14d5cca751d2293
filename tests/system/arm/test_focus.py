"""Autofocus in the service's own order: over HTTP, with the arm moving in the camera's picture."""

import os
import re
import shutil
import tempfile
import unittest

from controller import Controller
from harness import Camera, LiveStream, Server, request, wait_until

PLUGIN = os.environ["KESTREL_PLUGIN"]
IN_FOCUS = 0.1 + 1e-9  # mm, and what decimal steps lack in binary


class Focus(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kestrel-focus.")
        self.addCleanup(shutil.rmtree, self.folder)
        os.symlink(PLUGIN, f"{self.folder}/libframe_process.so")
        self.camera = Camera()
        self.addCleanup(self.camera.close)
        self.controller = Controller(self.folder, "--scene", self.camera.path("scene"),
                                     "--position", "-5,5,0")
        self.addCleanup(self.controller.close)
        self.server = Server(camera=self.camera, program="kestrel-server-arm", cwd=self.folder)
        self.addCleanup(self.server.close)
        self.controller.allow_moves()
        live = LiveStream()
        live.frame()
        live.close()

    def measure(self):
        """One measurement: the answer, and the arm's Z after it."""
        # What was drawn before the last change may still be on its way: the camera holds two buffers.
        seen = int(self.camera.status("frame"))
        wait_until(lambda: int(self.camera.status("frame")) > seen + 4, "new pictures are drawn")
        # An acknowledgement that is read together with the end of its move costs twenty seconds.
        _, answer = request("/camera?focus=1", timeout=120)
        self.assertRegex(answer.decode(), r'^\{"measure":"-?\d+\.\d{4}"\}$')
        state = dict(re.findall(r"(\w+)=(\S+)", self.controller.ctl("state")))
        return float(answer.split(b'"')[3]), float(state["z"])

    def put(self, focus):
        """Put a workpiece under the laser on which it is sharp at that height."""
        self.controller.ctl("focus-z", str(focus))

    def test_two_measurements_lead_into_focus_on_either_side(self):
        for focus in (-3, 1.5, -0.5):  # each after the workpiece before
            with self.subTest(focus):
                self.put(focus)
                self.measure()
                for _ in range(3):  # the second one, and two that find it in focus
                    answer, z = self.measure()
                    self.assertAlmostEqual(-z, answer, delta=0.006)  # moves have two decimals
                    self.assertAlmostEqual(focus, z, delta=IN_FOCUS)

    def test_each_measurement_homes_and_looks_from_there(self):
        self.put(-1.5)
        for _ in range(2):
            self.measure()

        lines = self.controller.records("rx")
        self.assertEqual(["$H", "G05 X", "M18 S1", "G05 Z"] * 2, [line[:5].rstrip("-") if
                         line.startswith("G05") else line for line in lines])


if __name__ == "__main__":
    unittest.main()

"""The laser arm in the camera's picture: measuring over HTTP makes it home, move and focus."""

import os
import shutil
import subprocess
import tempfile
import unittest

from controller import Controller
from harness import Camera, LiveStream, Server, request

PLUGIN = os.environ["KESTREL_PLUGIN"]
WIDTH, HEIGHT, PIXELS_PER_MM = 640, 480, 10.0


def spot(picture):
    """Where a JPEG's red spot is, in millimetres, and how many pixels are red; None without one."""
    pixels = subprocess.run(["ffmpeg", "-v", "error", "-f", "mjpeg", "-i", "-", "-f", "rawvideo",
                             "-pix_fmt", "rgb24", "-"], input=picture, capture_output=True,
                            check=True).stdout
    red, green = pixels[0::3], pixels[1::3]
    found = [i for i in range(WIDTH * HEIGHT) if red[i] - green[i] > 25]
    if not found:
        return None
    x = sum(i % WIDTH for i in found) / len(found) - (WIDTH - 1) / 2
    y = sum(i // WIDTH for i in found) / len(found) - (HEIGHT - 1) / 2
    return x / PIXELS_PER_MM, y / PIXELS_PER_MM, len(found)


class Arm(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kestrel-arm.")
        self.addCleanup(shutil.rmtree, self.folder)
        os.symlink(PLUGIN, f"{self.folder}/libframe_process.so")

    def start(self, *options):
        """Camera, controller and service; the spot stands against the arm's position."""
        self.camera = Camera("--keep", "2000")
        self.addCleanup(self.camera.close)
        self.controller = Controller(self.folder, "--scene", self.camera.path("scene"), *options)
        self.addCleanup(self.controller.close)
        self.server = Server(camera=self.camera, program="kestrel-server-arm", cwd=self.folder)
        self.addCleanup(self.server.close)
        self.controller.allow_moves()

    def test_measuring_homes_moves_and_focuses_the_arm(self):
        # The spot is at 12.34 / -7.89 mm in the picture, 1.5 mm out of focus.
        # The arm moves slowly, 1 mm in five frames, so that a stall leaves out little of its way.
        self.start("--position", "-12.34,7.89,0", "--focus-z", "1.5", "--speed-up", "0.1")
        live = LiveStream()
        before_picture = live.frame()
        before = spot(before_picture)
        self.assertAlmostEqual(12.34, before[0], delta=0.1)
        self.assertAlmostEqual(-7.89, before[1], delta=0.1)

        # An acknowledgement that is read together with the end of its move costs twenty seconds.
        _, answer = request("/camera?focus=1", timeout=120)
        # The stream may have stood still meanwhile: the camera's own pictures tell.
        during = self.camera.frames()
        first = during[before_picture]
        while (after_picture := live.frame()) in during:
            pass  # those that were on their way
        for _ in range(4):  # and those that the camera was drawing
            after_picture = live.frame()
        live.close()

        lines = self.controller.records("rx")
        self.assertEqual("$H", lines[0])
        x, y = (float(word[1:]) for word in lines[1].split()[1:3])
        self.assertEqual(f"G05 X{x:.2f} Y{y:.2f} F2000 ", lines[1])
        self.assertAlmostEqual(-12.34, x, delta=0.03)
        self.assertAlmostEqual(7.89, y, delta=0.03)
        self.assertEqual("M18 S1", lines[2])
        z = float(lines[3].split()[1][1:])
        self.assertEqual(f"G05 Z{z:.2f} F1000 ", lines[3])
        self.assertAlmostEqual(1.5, z, delta=0.2)
        self.assertEqual(4, len(lines), lines)
        self.assertRegex(answer.decode(), r'^\{"measure":"-1\.\d{4}"\}$')

        # In the picture: from where it was to the origin and back, sharp in the end.
        way = [picture for picture, number in during.items() if number > first and number % 5 == 0]
        nearest = min(x * x + y * y for x, y, _ in filter(None, map(spot, way)))
        self.assertLess(nearest, 4.0 * 4.0)
        after = spot(after_picture)
        self.assertAlmostEqual(12.34, after[0], delta=0.1)
        self.assertAlmostEqual(-7.89, after[1], delta=0.1)
        self.assertLess(after[2], before[2])


if __name__ == "__main__":
    unittest.main()

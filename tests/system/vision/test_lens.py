"""A lens that distorts: pictures of a chessboard tell it, and the plug-in corrects it over HTTP."""

import glob
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from harness import BUILD, Board, request, wait_until

PLUGIN = os.environ["KESTREL_PLUGIN"]
K1 = "-0.08"
PICTURES = f"{BUILD}/plugin/tests/plugin-pictures"
CALIBRATE = f"{BUILD}/plugin/kestrel-calibrate-lens"
DOCUMENTED = "build/debug/plugin/kestrel-calibrate-lens 9x6 lens.yml boards/*.jpg"


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False)


class Lens(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.boards = tempfile.mkdtemp(prefix="kestrel-boards.")
        cls.addClassCleanup(shutil.rmtree, cls.boards)
        subprocess.run([PICTURES, "boards", K1, cls.boards], check=True)
        cls.names = sorted(glob.glob(f"{cls.boards}/*.jpg"))

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kestrel-lens.")
        self.addCleanup(shutil.rmtree, self.folder)
        os.symlink(PLUGIN, f"{self.folder}/libframe_process.so")
        os.symlink(self.boards, f"{self.folder}/boards")
        os.mkdir(f"{self.folder}/build")
        os.symlink(BUILD, f"{self.folder}/build/debug")
        self.lens = f"{self.folder}/lens.yml"

    def calibrate(self, *names):
        return run(CALIBRATE, "9x6", self.lens, *names)

    def start(self):
        board = Board(camera_arguments=("--keep", "2000", "--distortion", K1),
                      program="kestrel-server-vision", cwd=self.folder)
        self.addCleanup(board.__exit__)
        return board

    def place(self, board, words):
        board.camera.ctl(f"spot {words}")
        seen = int(board.camera.status("frame"))
        wait_until(lambda: int(board.camera.status("frame")) > seen + 4, "new pictures are drawn")

    def lines_off(self, picture):
        """Pixels between the grid's lines and where they truly are: vertical, horizontal."""
        path = f"{self.folder}/picture.jpg"
        with open(path, "wb") as file:
            file.write(picture)
        done = subprocess.run([PICTURES, "lines", path], capture_output=True, text=True, check=True)
        return [float(number) for number in re.findall(r"off (\S+)", done.stdout)]

    def test_calibrated_lens_is_corrected_in_snapshots_and_positions(self):
        done = subprocess.run(DOCUMENTED, shell=True, cwd=self.folder, capture_output=True, text=True,
                              check=False)
        self.assertEqual(0, done.returncode, done.stdout + done.stderr)
        self.assertRegex(done.stdout, r"all: corners off by 0\.[01]\d pixels\n$")
        board = self.start()
        self.place(board, "0 0 0 off")

        _, plain = request("/snap?filename=plain.jpg")
        _, corrected = request("/snap?filename=corrected.jpg&mode=correction")

        self.assertGreater(min(self.lines_off(plain)), 3.0)
        self.assertLess(max(self.lines_off(corrected)), 0.5)
        self.place(board, "24 16 0 on")
        request("/camera?focus=1")
        move = re.search(r"^event move (\S+) (\S+)", board.server.output(), re.M)
        self.assertAlmostEqual(24, float(move.group(1)), delta=0.05)
        self.assertAlmostEqual(16, float(move.group(2)), delta=0.05)

    def test_without_file_nothing_is_corrected(self):
        board = self.start()
        self.place(board, "0 0 0 off")

        _, corrected = request("/snap?filename=corrected.jpg&mode=correction")

        self.assertNotIn(corrected, board.camera.frames())
        self.assertGreater(min(self.lines_off(corrected)), 3.0)

    def test_unusable_file_is_told_and_nothing_is_measured(self):
        with open(self.lens, "w", encoding="ascii") as file:
            file.write("%YAML:1.0\n---\nimage_width: 640\n")
        board = self.start()
        self.place(board, "1 1 0 on")

        _, measured = request("/camera?focus=1")
        _, corrected = request("/snap?filename=corrected.jpg&mode=correction")

        self.assertEqual(b'{"measure":"0.0000"}', measured)
        self.assertIn(corrected, board.camera.frames())
        output = board.server.output()
        self.assertEqual(["event exposure 0 157 on webcamera"],
                         re.findall(r"^event .*", output, re.M))
        self.assertIn("libframe_process.so: ./lens.yml: image_height is not a height in pixels; "
                      "nothing is measured or corrected\n", output)

    def test_calibration_without_enough_boards_writes_no_file(self):
        done = self.calibrate(*self.names[:4])
        self.assertEqual(1, done.returncode)
        self.assertIn("4 pictures show the board: 5 are needed", done.stderr)

        done = run(CALIBRATE, "8x5", self.lens, *self.names)  # not the printed board
        self.assertEqual(1, done.returncode, done.stdout)

        self.assertFalse(os.path.exists(self.lens))

    def test_calibration_refuses_what_is_no_picture(self):
        done = self.calibrate(*self.names, __file__)
        self.assertEqual(1, done.returncode)
        self.assertIn("test_lens.py: not a JPEG picture", done.stderr)

        for words in ((), ("9x6", self.lens), ("9", self.lens, self.names[0]),
                      ("2x6", self.lens, self.names[0]), ("9x6y", self.lens, self.names[0])):
            done = run(CALIBRATE, *words)
            self.assertEqual(2, done.returncode, words)
            self.assertIn("usage: kestrel-calibrate-lens", done.stderr)
        self.assertFalse(os.path.exists(self.lens))


if __name__ == "__main__":
    unittest.main()

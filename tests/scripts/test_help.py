"""Everything that people run describes itself when asked by --help, and does nothing else then."""

import os
import subprocess
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("KESTREL_BUILD", "")
PROGRAMS = ("application/kestrel-server", "simulator/board/kestrel-board-ns",
            "simulator/camera/kestrel-camera", "simulator/controller/kestrel-controller",
            "tools/kestrel-camera-ctl", "tools/kestrel-controller-ctl", "tools/kestrel-transcript",
            "plugin/kestrel-replay-pictures", "station/kestrel-arm", "station/kestrel-station")
WITH_OPENCV = ("plugin/kestrel-calibrate-lens",)  # built where OpenCV is


def scripts():
    folder = f"{SOURCE}/scripts"
    return [name for name in sorted(os.listdir(folder)) if os.path.isfile(f"{folder}/{name}")]


class Help(unittest.TestCase):
    def expect_usage(self, path, name):
        done = subprocess.run([path, "--help"], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=30, check=False)
        self.assertEqual(0, done.returncode, f"{name}: {done.stdout}{done.stderr}")
        self.assertEqual("", done.stderr, name)
        self.assertIn(f"usage: {name}", done.stdout)
        self.assertLess(len(done.stdout.splitlines()), 50, "the usage, and nothing else")

    def test_scripts(self):
        for name in scripts():
            with self.subTest(name):
                self.expect_usage(f"{SOURCE}/scripts/{name}", f"scripts/{name}")

    def test_programs(self):
        built = [path for path in WITH_OPENCV if os.path.exists(f"{BUILD}/{path}")]
        for path in (*PROGRAMS, *built):
            with self.subTest(path):
                self.expect_usage(f"{BUILD}/{path}", os.path.basename(path))


if __name__ == "__main__":
    unittest.main()

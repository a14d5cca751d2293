"""The example plug-in: built as its documentation says, hosted, and given a folder of pictures."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

from harness import BUILD, SOURCE, Board, request, wait_until

BUILD_IT = "cc -shared -fPIC -Iplugin -o libframe_process.so plugin/example/frame_process.c -ljpeg"
REPLAY = "build/debug/plugin/kestrel-replay-pictures ./libframe_process.so pictures"


class ExamplePlugin(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="kestrel-example.")
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        os.symlink(f"{SOURCE}/plugin", f"{cls.folder}/plugin")
        os.mkdir(f"{cls.folder}/build")
        os.symlink(BUILD, f"{cls.folder}/build/debug")
        subprocess.run(BUILD_IT, shell=True, cwd=cls.folder, check=True)
        cls.board = Board(program="kestrel-server-vision", cwd=cls.folder)
        cls.addClassCleanup(cls.board.__exit__)

    def place(self, words):
        self.board.camera.ctl(f"spot {words}")
        seen = int(self.board.camera.status("frame"))
        wait_until(lambda: int(self.board.camera.status("frame")) > seen + 4,
                   "new pictures are drawn")

    def picture(self, words):
        self.place(words)
        return request("/snap?filename=p.jpg")[1]

    def replay(self, pictures, *options):
        """The answer lines for pictures by name."""
        shutil.rmtree(f"{self.folder}/pictures", ignore_errors=True)
        os.mkdir(f"{self.folder}/pictures")
        for name, picture in pictures.items():
            with open(f"{self.folder}/pictures/{name}", "wb") as file:
                file.write(picture)
        program, *arguments = REPLAY.split()
        return subprocess.run([f"{self.folder}/{program}", *options, *arguments], cwd=self.folder,
                              capture_output=True, text=True, check=False)

    def test_host_measures_with_it(self):
        self.place("12.34 -7.89 0 on")

        _, measured = request("/camera?focus=1")
        corrected = request("/snap?filename=c.jpg&mode=correction")[1]

        self.assertEqual(b'{"measure":"0.0000"}', measured)  # heights it leaves to others
        events = re.findall(r"^event (.*)", self.board.server.output(), re.M)
        self.assertEqual(2, len(events), events)
        self.assertEqual("exposure 0 157 on webcamera", events[0])
        move = re.fullmatch(r"move (\S+) (\S+) on webcamera", events[1])
        self.assertAlmostEqual(12.34, float(move.group(1)), delta=0.1)
        self.assertAlmostEqual(-7.89, float(move.group(2)), delta=0.1)
        self.assertIn(corrected, self.board.camera.frames())

    def test_replayed_pictures_tell_what_it_finds(self):
        spot, dark = self.picture("-20 5 0 on"), self.picture("0 0 0 off")
        half = spot[:len(spot) // 2]

        done = self.replay({"1.jpg": spot, "2.jpeg": dark, "3.jpg": half, "4.jpg": b"nothing",
                            "notes.txt": b""})

        self.assertEqual(0, done.returncode, done.stderr)
        lines = done.stdout.splitlines()
        self.assertEqual(4, len(lines), lines)
        found = re.fullmatch(r"1\.jpg: exposure 157 x (\S+) y (\S+) autoFocus failed: 3", lines[0])
        self.assertTrue(found, lines)
        self.assertAlmostEqual(-20, float(found.group(1)), delta=0.1)
        self.assertAlmostEqual(5, float(found.group(2)), delta=0.1)
        self.assertEqual("2.jpeg: exposure 157 findPos failed: 2 autoFocus failed: 3", lines[1])
        self.assertRegex(lines[2], "^3.jpg: exposure 157 ")
        self.assertEqual("4.jpg: not a JPEG picture", lines[3])

    def test_sequence_alternates_as_measurements_do(self):
        spot = self.picture("0 0 0 on")

        done = self.replay({"1.jpg": spot, "2.jpg": spot, "3.jpg": spot}, "--sequence")

        self.assertEqual(["1.jpg: exposure 157 x", "2.jpg: autoFocus failed: 3",
                          "3.jpg: exposure 157 x"],
                         [re.sub(" x .*", " x", line) for line in done.stdout.splitlines()])

    def test_plugin_or_pictures_that_are_not_there_are_told(self):
        done = self.replay({})
        self.assertEqual(1, done.returncode)
        self.assertEqual("pictures holds no file *.jpg\n", done.stderr)

        program = f"{self.folder}/{REPLAY.split()[0]}"
        for plugin, reason in (("./missing.so", "cannot open shared object file"),
                               (f"{BUILD}/simulator/camera/libkestrel-camera.so",
                                "undefined symbol: ")):
            done = subprocess.run([program, plugin, self.folder], capture_output=True, text=True,
                                  check=False)
            self.assertEqual(1, done.returncode)
            self.assertIn(reason, done.stderr)


if __name__ == "__main__":
    unittest.main()

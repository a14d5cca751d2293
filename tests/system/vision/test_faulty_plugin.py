"""A plug-in that is missing, broken, incomplete or failing leaves the service answering."""

import os
import shutil
import tempfile
import unittest

from harness import Board, LiveStream, request

PLUGINS = os.environ["KESTREL_TEST_PLUGINS"]  # folder of the small plug-ins of tests/videoprocess
NAMES = ("init", "uninit", "undistort", "autoFocus", "findPos", "setExposure", "easyFun")


class FaultyPlugin(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kestrel-plugin.")
        self.addCleanup(shutil.rmtree, self.folder)
        self.library = os.path.join(self.folder, "libframe_process.so")

    def use(self, name):
        shutil.copy(os.path.join(PLUGINS, f"lib{name}.so"), self.library)

    def expect_answers(self, corrected, events):
        """
        The live stream runs beside everything else.
        corrected: whether a corrected snapshot is the camera's own picture; None for an empty one.
        """
        with Board(program="kestrel-server-vision", cwd=self.folder) as board:
            live = LiveStream()
            live.frame()

            _, measured = request("/camera?focus=1")
            self.assertEqual(b'{"measure":"0.0000"}', measured)
            _, picture = request("/snap?mode=correction&filename=faulty.jpg")
            if corrected is None:
                self.assertEqual(b"", picture)
            else:
                self.assertIn(picture, board.camera.frames())
            _, plain = request("/snap?filename=plain.jpg")
            self.assertIn(plain, board.camera.frames())

            for _ in range(5):
                self.assertEqual(b"\xff\xd8", live.frame()[:2])
            self.assertEqual(events, board.server.output().count("event "))

    def test_no_library(self):
        self.expect_answers(corrected=True, events=0)

    def test_file_that_is_no_library(self):
        with open(self.library, "w", encoding="ascii") as file:
            file.write("no library\n")
        self.expect_answers(corrected=True, events=0)

    def test_each_name_missing(self):
        for name in NAMES:
            with self.subTest(name):
                self.use(f"test_plugin_without_{name}")
                # The small plug-in's corrected picture is an empty one.
                corrects = NAMES.index(name) > NAMES.index("undistort")
                self.expect_answers(corrected=None if corrects else True,
                                    events=3 if name == "easyFun" else 0)

    def test_every_result_a_failure(self):
        self.use("test_plugin_failing")
        self.expect_answers(corrected=True, events=1)

    def test_focus_alone_a_failure(self):
        self.use("test_plugin_unfocused")
        self.expect_answers(corrected=None, events=2)

    def test_success_with_an_empty_picture(self):
        self.use("test_plugin")
        self.expect_answers(corrected=None, events=3)


if __name__ == "__main__":
    unittest.main()

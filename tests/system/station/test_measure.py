"""Measuring by the operator's interface and by port 8329: who may, when, and what is told; small plug-ins."""

import hashlib
import os
import threading
import time
import unittest

from harness import request as page_request
from harness import wait_until
from test_job import Owner, make_job, upload
from station import Station, request

PLUGINS = os.environ["KESTREL_TEST_PLUGINS"]  # folder of the small plug-ins of tests/videoprocess


class Measuring(unittest.TestCase):
    def start(self, name="test_plugin", **options):
        plugin = f"{PLUGINS}/lib{name}.so" if name else None
        board = Station(plugin=plugin, camera_options=("--keep", "500"), **options)
        self.addCleanup(board.close)
        board.homed()
        board.wait_for(lambda state: state["camera"]["present"], "pictures come")
        board.camera.ctl("journal clear")
        self.since = len(board.records("rx"))
        return board

    def exposures(self, board):
        """What the camera was told of its exposure."""
        return [line for line in board.camera.journal() if "S_EXT_CTRLS" in line]

    def lines(self, board):
        """What the controller was sent since the start, without the guard's questions and the pilot spot."""
        return [line for line in board.records("rx")[self.since:] if line not in ("", "?", "M8")]

    def assertUntouched(self, board):
        self.assertEqual([], self.exposures(board))
        self.assertEqual([], [line for line in self.lines(board) if "$H" in line or "G53" in line])

    def test_tells_what_was_seen_and_on_which_pictures(self):
        board = self.start()
        self.assertEqual("not-found", request("GET", "/measure/pictures/spot").problem)

        measured = request("POST", "/measure", {}, timeout=100).json

        self.assertEqual(("focused", 0, {"x": 0, "y": 0}, 0), tuple(
            measured[key] for key in ("result", "exposure", "spot", "height")))
        frames = board.camera.frames()
        for which in ("spot", "height"):
            picture = request("GET", f"/measure/pictures/{which}")
            self.assertEqual("image/jpeg", picture.headers["Content-Type"])
            self.assertIn(picture.body, frames)
            told = measured[f"{which}_picture"]
            self.assertEqual((len(picture.body), 640, 480, hashlib.sha256(picture.body).hexdigest()),
                             tuple(told[key] for key in ("size", "width", "height", "sha256")))
        self.assertLess(measured["spot_picture"]["camera_time"], measured["height_picture"]["camera_time"])
        self.assertEqual("not-found", request("GET", "/measure/pictures/other").problem)
        self.assertEqual(["$H", "G90G21G53G1X-0.00Y-0.00F2000", "G90G21G53G1Z-0.00F1000"], self.lines(board))
        self.assertEqual(2, len(self.exposures(board)))
        texts = [each["text"] for each in request("GET", "/journal").json["entries"]]
        self.assertIn("measure", texts)
        self.assertIn("measured: focused, spot at 0.00 0.00, height 0.0000, picture "
                      f"{measured['spot_picture']['sha256']}, picture {measured['height_picture']['sha256']}", texts)
        state = board.state()
        self.assertEqual((None, "motion"), (state["activity"], state["guard"]["level"]))
        self.assertIs(True, state["vision"]["present"])

    def test_without_a_spot_nothing_moves(self):
        board = self.start("test_plugin_failing")
        measured = request("POST", "/measure", {}, timeout=100).json
        self.assertEqual(("no-spot", None, None, None), tuple(
            measured[key] for key in ("result", "spot", "height", "height_picture")))
        self.assertEqual(200, request("GET", "/measure/pictures/spot").status)
        self.assertEqual("not-found", request("GET", "/measure/pictures/height").problem)
        self.assertEqual([], self.lines(board))

    def test_without_a_height_the_arm_stays_over_the_spot(self):
        board = self.start("test_plugin_unfocused")
        measured = request("POST", "/measure", {}, timeout=100).json
        self.assertEqual(("no-height", {"x": 0, "y": 0}, None), tuple(
            measured[key] for key in ("result", "spot", "height")))
        self.assertEqual(["$H", "G90G21G53G1X-0.00Y-0.00F2000"], self.lines(board))

    def test_refused_with_a_reason(self):
        board = self.start(None)
        self.assertEqual("no-vision", request("POST", "/measure", {}).problem)
        self.assertEqual("bad-request", request("POST", "/measure", {"focus": 1}).problem)
        board.camera.ctl("freeze")
        board.wait_for(lambda state: not state["camera"]["present"], "pictures end")
        self.assertEqual("no-camera", request("POST", "/measure", {}).problem)
        request("POST", "/level", {"level": "dark"})
        self.assertEqual("level", request("POST", "/measure", {}).problem)
        self.assertUntouched(board)

    def test_move_outside_the_limits_is_told(self):
        self.start(box=((1, 1, -100), (100, 100, 100)), language="arm")
        self.assertEqual("refused", request("POST", "/measure", {}, timeout=100).problem)

    def test_unusable_plugin_is_missing(self):
        board = self.start("test_plugin_without_findPos")
        self.assertIn("vision", [each["what"] for each in board.state()["missing"]])
        self.assertEqual("no-vision", request("POST", "/measure", {}).problem)

    def begin_without_pictures(self, board):
        """A measurement that waits for its next picture. @return its thread, and a list that gets its problem"""
        problems = []
        worker = None
        while worker is None or problems:  # on a busy machine it may come too late, or find a last picture
            problems.clear()
            board.camera.ctl("thaw")
            board.wait_for(lambda state: state["camera"]["present"], "pictures come")
            board.camera.ctl("freeze")  # a picture is still taken for new for 2 s: it waits for the next one
            worker = threading.Thread(target=lambda: problems.append(
                request("POST", "/measure", {}, timeout=200).problem))
            worker.start()
            self.addCleanup(worker.join)
            wait_until(lambda: problems or board.state()["activity"] == "measure", "it measures")
        return worker, problems

    def test_beam_off_ends_it(self):
        board = self.start()
        worker, problems = self.begin_without_pictures(board)
        self.assertEqual("busy", request("POST", "/home", {}).problem)
        self.assertEqual(200, request("POST", "/off", {}).status)
        worker.join()
        self.assertEqual(["stopped"], problems)
        board.camera.ctl("thaw")
        board.wait_for(lambda state: state["activity"] is None, "it has ended")

    def test_camera_that_does_not_come_back_is_told_late_and_keeps_the_arm(self):
        board = self.start()
        begun = time.monotonic()
        worker, problems = self.begin_without_pictures(board)

        worker.join()

        self.assertEqual(["late"], problems)
        self.assertGreaterEqual(time.monotonic() - begun, 90)
        self.assertEqual("measure", board.state()["activity"])
        self.assertEqual("busy", request("POST", "/home", {}).problem)
        board.camera.ctl("thaw")
        board.wait_for(lambda state: state["activity"] is None, "it has ended")
        self.assertEqual(200, request("POST", "/home", {}).status)

    def test_without_login_nothing_is_measured(self):
        board = self.start()
        _, body = page_request("/camera?focus=1")
        self.assertEqual(b'{"measure":"0.0000"}', body)
        self.assertUntouched(board)

    def test_without_login_it_is_measured_where_the_configuration_allows_it(self):
        board = self.start(settings="open_measure = true")
        self.assertIs(True, board.state()["vision"]["open_to_all"])
        request("POST", "/level", {"level": "dark"})
        page_request("/camera?focus=1")
        self.assertUntouched(board)

        request("POST", "/level", {"level": "motion"})
        wait_until(lambda: page_request("/camera?focus=1", timeout=100) and self.exposures(board), "it is measured")

        self.assertEqual(["$H", "G90G21G53G1X-0.00Y-0.00F2000", "G90G21G53G1Z-0.00F1000"],
                         [line for line in self.lines(board) if line != "M5"])

    def test_job_keeps_everybody_from_exposure_and_arm(self):
        board = self.start(settings="open_measure = true")
        upload("circle.gcode", make_job(3000))
        owner = Owner("circle.gcode")
        self.addCleanup(owner.close)
        self.assertEqual(200, owner.answer.status, owner.answer.body)
        begun = board.wait_for(lambda state: state["job"]["line"] >= 20, "it runs")["job"]["line"]

        for _ in range(5):
            self.assertEqual("level", request("POST", "/measure", {}).problem)
            self.assertEqual("level", request("POST", "/home", {}).problem)
            self.assertEqual("level", request("POST", "/move", {"x": 1, "feed": 100}).problem)
            self.assertEqual("level", request("POST", "/jog", {"x": 1, "feed": 100}).problem)
            self.assertEqual(b'{"measure":"0.0000"}', page_request("/camera?focus=1")[1])

        board.wait_for(lambda state: state["job"]["line"] >= begun + 50, "it goes on")
        self.assertUntouched(board)
        self.assertEqual([line.replace(" ", "") for line in make_job(3000)[:50]], self.lines(board)[:50])
        request("POST", "/job/stop", {})


if __name__ == "__main__":
    unittest.main()

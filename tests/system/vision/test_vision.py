"""Measuring over HTTP: what the plug-in finds, against where the virtual camera has the spot."""

import os
import re
import select
import shutil
import tempfile
import unittest

from harness import CARD, Board, connect, request, wait_until

PLUGIN = os.environ["KESTREL_PLUGIN"]


class Vision(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kestrel-vision.")
        self.addCleanup(shutil.rmtree, self.folder)
        os.symlink(PLUGIN, os.path.join(self.folder, "libframe_process.so"))
        self.board = Board(program="kestrel-server-vision", cwd=self.folder)
        self.addCleanup(self.board.__exit__)
        with open(f"{CARD}/www/f.txt", "w", encoding="ascii") as file:
            file.write("text")

    def state(self):
        return dict(re.findall(r"(\w+)=(\S+)", self.board.camera.ctl("state")))

    def place(self, x, y, z, laser="on"):
        """Put the spot somewhere and wait until no older picture is on its way."""
        self.board.camera.ctl(f"spot {x} {y} {z} {laser}")
        seen = int(self.state()["frame"])
        # The camera holds two buffers; each number more is a frame drawn later.
        wait_until(lambda: int(self.state()["frame"]) > seen + 4, "new pictures are drawn")

    def events(self):
        return re.findall(r"^event (.*)$", self.board.server.output(), re.M)

    def measure(self):
        """The answer to a measuring request and the events of it."""
        before = len(self.events())
        response, body = request("/camera?focus=1")
        self.assertEqual(200, response.status)
        match = re.fullmatch(rb'\{"measure":"(-?\d+\.\d{4})"\}', body)
        self.assertTrue(match, body)
        return match.group(1).decode(), self.events()[before:]

    def test_announces_exposure_move_and_measure_from_the_reactor_thread(self):
        self.place(12.34, -7.89, 1.5)

        answer, events = self.measure()

        self.assertEqual(3, len(events), events)
        exposure = re.fullmatch(r"exposure 0 (\d+) on webcamera", events[0])
        self.assertTrue(exposure, events)
        move = re.fullmatch(r"move (\S+) (\S+) on webcamera", events[1])
        self.assertTrue(move, events)
        self.assertEqual(f"measure {answer} on webcamera", events[2])
        state = self.state()
        self.assertEqual((12.34, -7.89), (float(state["xmm"]), float(state["ymm"])))
        self.assertAlmostEqual(12.34, float(move.group(1)), delta=0.03)  # 0.3 pixel
        self.assertAlmostEqual(-7.89, float(move.group(2)), delta=0.03)
        self.assertAlmostEqual(-1.5, float(answer), delta=0.2)

    def test_running_measurement_waits_without_limit_and_holds_the_other_answers_back(self):
        self.place(1, 1, 0)
        self.board.camera.unplug()
        wait_until(lambda: any("STREAMOFF" in line for line in self.board.camera.journal()),
                   "the service has lost the camera")
        clients = []
        for target in ("/camera?focus=1", "/camera", "/f.txt"):
            clients.append(connect())
            clients[-1].sendall(f"GET {target} HTTP/1.1\r\n\r\n".encode())

        readable, _, _ = select.select(clients, [], [], 6)  # the time without answers is the test

        self.assertEqual([], readable)
        self.assertEqual([], self.events())
        self.board.camera.ctl("replug")
        for client, ending in zip(clients, (b'{"measure":"0.0000"}', b"invalid request", b"text")):
            answer = b""
            while not answer.endswith(ending):
                data = client.recv(4096)
                self.assertTrue(data, answer)
                answer += data
        self.assertEqual(["exposure", "move", "measure"],
                         [event.split()[0] for event in self.events()])

    def test_follows_the_spot(self):
        for x, y in ((0, 0), (-20.05, 14.4), (25, 18), (-3.33, -17.77)):
            self.place(x, y, 0)

            answer, events = self.measure()

            move = re.fullmatch(r"move (\S+) (\S+) on webcamera", events[1])
            self.assertAlmostEqual(x, float(move.group(1)), delta=0.03)
            self.assertAlmostEqual(y, float(move.group(2)), delta=0.03)
            self.assertEqual("0.0000", answer)

    def test_workpiece_of_another_height_does_not_turn_the_side_round(self):
        # The spot does not move, as if nobody had carried out the moves: nothing tells the side.
        for z in (1.0, 1.0, 3.0, 3.0, 1.0, 1.0):
            self.place(0, 0, z)

            answer, _ = self.measure()

            self.assertAlmostEqual(-z, float(answer), delta=0.3)

    def test_exposure_reaches_the_camera_before_the_answer(self):
        self.place(1, 1, 0)
        self.measure()
        self.board.camera.ctl("journal clear")

        _, events = self.measure()

        # The first picture was brighter than the plug-in wants it.
        exposure = int(re.fullmatch(r"exposure 0 (\d+) on webcamera", events[0]).group(1))
        self.assertTrue(100 < exposure < 157, exposure)
        calls = [line for line in self.board.camera.journal() if "S_EXT_CTRLS" in line or
                 "S_CTRL" in line]
        self.assertEqual(2, len(calls), calls)
        # V4L2_CID_EXPOSURE_AUTO to manual, then V4L2_CID_EXPOSURE_ABSOLUTE.
        self.assertRegex(calls[0], r"id=0x009a0901 value=1 = 0 ")
        self.assertRegex(calls[1], rf"id=0x009a0902 value={exposure} = 0 ")

    def test_without_a_spot_the_exposure_alone_is_announced(self):
        self.place(0, 0, 0, "off")

        answer, events = self.measure()

        self.assertEqual("0.0000", answer)
        self.assertEqual(1, len(events), events)
        self.assertRegex(events[0], r"^exposure 0 \d+ on webcamera$")
        self.place(2, 3, 0)
        _, events = self.measure()
        self.assertEqual(3, len(events), events)

    def test_corrected_snapshot_is_a_new_picture(self):
        self.place(0, 0, 0)
        _, plain = request("/snap?filename=plain.jpg")
        _, corrected = request("/snap?filename=corrected.jpg&mode=correction")

        frames = self.board.camera.frames()
        self.assertIn(plain, frames)
        self.assertNotIn(corrected, frames)
        self.assertEqual(b"\xff\xd8", corrected[:2])
        self.assertEqual(b"\xff\xd9", corrected[-2:])
        self.assertIn(b"\xff\xc0\x00\x11\x08\x01\xe0\x02\x80\x03", corrected)  # 480 x 640, colour
        self.board.wait_for_saved("corrected.jpg")  # as the camera took it


if __name__ == "__main__":
    unittest.main()

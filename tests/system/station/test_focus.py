"""Measuring by the operator's interface with the reference plug-in: the spot is found, and the arm goes into focus."""

import os
import unittest

from harness import wait_until
from station import Station, request

PLUGIN = os.environ["KESTREL_PLUGIN"]
IN_FOCUS = 0.1 + 1e-9  # mm, and what decimal steps lack in binary


class Focus(unittest.TestCase):
    def test_two_measurements_lead_into_focus(self):
        with Station("arm", plugin=PLUGIN) as board:
            board.homed()
            board.wait_for(lambda state: state["camera"]["present"], "pictures come")
            self.assertEqual(200, request("POST", "/move", {"x": -5, "y": 5, "feed": 3000}).status)
            board.control.ask("focus-z 1.5")
            for _ in range(2):
                # What was drawn before may still be on its way: the camera holds two buffers.
                seen = int(board.camera.status("frame"))
                wait_until(lambda before=seen: int(board.camera.status("frame")) > before + 4, "new pictures are drawn")
                answer = request("POST", "/measure", {}, timeout=100)
                self.assertEqual(200, answer.status, answer.body)
            measured = answer.json
            self.assertEqual("focused", measured["result"])
            self.assertAlmostEqual(5, measured["spot"]["x"], delta=0.05)
            self.assertAlmostEqual(-5, measured["spot"]["y"], delta=0.05)
            self.assertAlmostEqual(-1.5, measured["height"], delta=IN_FOCUS)
            self.assertAlmostEqual(1.5, float(board.controller_state()["z"]), delta=IN_FOCUS)
            self.assertTrue(20 < measured["exposure"] < 400, measured)


if __name__ == "__main__":
    unittest.main()

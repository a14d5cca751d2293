"""A viewer that reads nothing for a minute, as a suspended browser tab, and goes on."""

import time
import unittest

import link
from harness import Board, LiveStream

PAUSE_S = 60


def setUpModule():
    link.require()


class Paused(unittest.TestCase):
    def test_viewer_that_reads_nothing_for_60_s_keeps_its_stream(self):
        with link.Link(delay_ms=5, mbit=30, loss_percent=1) as between, Board() as board:
            viewers = [LiveStream(client=between.connect(receive_buffer=size))
                       for size in (None, 4096, 65536)]
            other = LiveStream(client=between.connect())
            for viewer in viewers:
                viewer.frame()

            resume = time.monotonic() + PAUSE_S
            while time.monotonic() < resume:
                other.frame()

            resumed = time.time()
            for viewer in viewers:
                pictures = [viewer.frame()]
                while viewer.stamp < resumed:
                    pictures.append(viewer.frame())
                produced = board.camera.frames()
                numbers = [produced[picture] for picture in pictures]
                self.assertEqual(sorted(set(numbers)), numbers)
                viewer.close()


if __name__ == "__main__":
    unittest.main()

"""Whole pictures, in order, over links that delay, bound and lose."""

import time
import unittest

import link
from harness import Board, LiveStream


def setUpModule():
    link.require()


class Pictures(unittest.TestCase):
    def check(self, board, pictures):
        """They are the camera's, in order, none twice. Returns their numbers."""
        produced = board.camera.frames()
        numbers = [produced[picture] for picture in pictures]
        self.assertEqual(sorted(set(numbers)), numbers)
        return numbers

    def test_pictures_are_whole_and_in_order(self):
        for options in ({"delay_ms": 2}, {"delay_ms": 5, "mbit": 30}, {"delay_ms": 10},
                        {"delay_ms": 5, "mbit": 30, "loss_percent": 1},
                        {"delay_ms": 5, "mbit": 3, "queue": 20}):
            with self.subTest(options), link.Link(**options) as between, Board() as board:
                stream = LiveStream(client=between.connect())
                numbers = self.check(board, [stream.frame() for _ in range(60)])
                if options.get("mbit") == 3:  # a picture takes 0.12 s: most are left out
                    self.assertGreater(numbers[-1] - numbers[0], 2 * 60)
                stream.close()

    def test_stream_recovers_after_a_second_of_outage(self):
        with link.Link(delay_ms=5, mbit=30) as between, Board() as board:
            stream = LiveStream(client=between.connect())
            before = [stream.frame() for _ in range(25)]

            between.say("cut")
            time.sleep(1)  # the outage is what is tested
            between.say("mend")
            mended = time.time()
            after = [stream.frame()]
            while stream.stamp < mended:
                after.append(stream.frame())
            recovered = time.time() - mended
            late = []
            for _ in range(50):
                after.append(stream.frame())
                late.append(time.time() - stream.stamp)

            self.check(board, before + after)
            self.assertLess(recovered, 5)
            self.assertLess(sorted(late)[25], 0.5, "nothing is left of the delay")
            stream.close()


if __name__ == "__main__":
    unittest.main()

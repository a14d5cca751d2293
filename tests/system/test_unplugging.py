"""A camera that goes and comes back as the kernel's driver lets it, and pictures it says are broken."""

import re
import unittest

from harness import Board, LiveStream, wait_until


class Unplugging(unittest.TestCase):
    def setUp(self):
        self.board = Board()
        self.addCleanup(self.board.__exit__)
        self.camera = self.board.camera
        self.live = LiveStream()
        self.live.frame()

    def calls(self, pattern):
        return [line for line in self.camera.journal() if re.search(pattern, line)]

    def lose_slowly(self):
        """The camera goes while it has both buffers: one in the service's hands would end the service."""
        self.camera.ctl("freeze")

        def has_both():
            with open(self.camera.path("frames.log"), encoding="ascii") as file:
                produced = sum(" dropped " not in line for line in file)
            dequeued = len(self.calls(r" DQBUF .* = 0 "))
            return produced == dequeued and len(self.calls(r" QBUF .* = 0$")) == dequeued + 2

        wait_until(has_both, "the camera has both buffers")
        self.camera.ctl("unplug slowly 200")
        wait_until(lambda: self.calls(r" close = 0$"), "the service closes the camera")
        self.camera.ctl("thaw")

    def expect_new_pictures(self):
        before = set(self.camera.frames())
        wait_until(lambda: self.live.frame() not in before, "new pictures arrive")

    def test_camera_that_hands_out_its_buffers_first_is_opened_again(self):
        self.lose_slowly()

        ends = self.calls(r" DQBUF .* bytesused=0 .* flags=0x12041$| QBUF .* = -1 ENODEV$")
        self.assertEqual(["DQBUF", "QBUF"] * 2, [line.split()[3] for line in ends])
        self.camera.ctl("replug")
        self.expect_new_pictures()

    def test_camera_that_comes_back_under_another_number_is_found_by_its_event(self):
        self.lose_slowly()

        self.camera.ctl("replug video1 event6")

        self.expect_new_pictures()
        self.assertEqual(1, len(self.calls(r" open node=1 .* = 0$")))

    def test_camera_whose_number_alone_has_changed_is_lost_until_its_next_return(self):
        self.lose_slowly()
        self.camera.ctl("journal clear")

        self.camera.ctl("replug video1")

        wait_until(lambda: len(self.calls(r" stat = -1 ENOENT$")) > 2, "the service looks for it")
        self.assertEqual([], self.calls(r" open "))
        self.camera.ctl("unplug")
        self.camera.ctl("replug")
        self.expect_new_pictures()

    def test_broken_pictures_are_not_streamed(self):
        self.camera.ctl("broken 5")

        pictures = {self.live.frame()}
        wait_until(lambda: len(self.calls(r" flags=0x12041$")) == 5, "five are flagged")
        pictures |= {self.live.frame() for _ in range(20)}

        broken = {re.search(r" sequence=(\d+) ", line).group(1)
                  for line in self.calls(r" flags=0x12041$")}
        with open(self.camera.path("frames.log"), encoding="ascii") as file:
            numbers = {int(line.split()[0]) for line in file if line.split()[1] in broken}
        produced = self.camera.frames()
        streamed = {produced[picture] for picture in pictures}
        self.assertEqual(5, len(numbers))
        self.assertEqual(set(), numbers & streamed)
        self.assertGreater(max(streamed), max(numbers))


if __name__ == "__main__":
    unittest.main()

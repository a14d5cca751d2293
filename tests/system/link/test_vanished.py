"""A viewer that vanishes without a word: its machine loses power, or its network."""

import os
import time
import unittest

import link
from harness import CARD, Board, LiveStream, wait_until


def setUpModule():
    link.require()


class Vanished(unittest.TestCase):
    MOST_S = 15

    def sockets(self, board):
        return sum(target.startswith("socket:")
                   for target in board.server.descriptors().values())

    def wait_until_gone(self, board, before, since):
        wait_until(lambda: self.sockets(board) < before, "the connection is gone",
                   self.MOST_S - (time.monotonic() - since))
        with open("/proc/net/tcp", encoding="ascii") as table:  # nor does the kernel keep on
            remote = "0200080A:"
            self.assertEqual([], [line for line in table if line.split()[2].startswith(remote)])

    def test_viewer_that_vanishes_is_gone_within_15_s_and_others_go_on(self):
        with link.Link(delay_ms=5, mbit=30) as between, Board() as board:
            viewer = LiveStream(client=between.connect())
            other = LiveStream()
            viewer.frame()
            other.frame()
            before = self.sockets(board)

            between.say("cut")
            start = time.monotonic()
            while time.monotonic() < start + 5:
                other.frame()
            self.assertEqual(before, self.sockets(board), "an outage of 5 s is no end")
            self.wait_until_gone(board, before, start)

            for _ in range(10):
                other.frame()

    def test_viewer_that_vanishes_while_its_window_is_closed_is_gone_too(self):
        with link.Link(delay_ms=5, mbit=30) as between, Board() as board:
            viewer = LiveStream(client=between.connect(receive_buffer=4096))
            viewer.frame()
            before = self.sockets(board)
            wait_until(lambda: self.window_is_closed(viewer), "its window is closed")

            between.say("cut")

            self.wait_until_gone(board, before, time.monotonic())

    def window_is_closed(self, viewer):
        """The service has been waiting to send, by the kernel's timer of kind 4: a probe."""
        port = viewer.socket.getsockname()[1]
        with open("/proc/net/tcp", encoding="ascii") as table:
            return any(line.split()[2] == f"0200080A:{port:04X}" and
                       line.split()[5].startswith("04:") for line in table)

    def test_downloader_that_vanishes_is_gone_too(self):
        with link.Link(delay_ms=5, mbit=8) as between, Board() as board:
            with open(f"{CARD}/www/f.png", "wb") as file:
                file.write(os.urandom(8000000))
            before = self.sockets(board)
            client = between.connect()
            client.sendall(b"GET /f.png HTTP/1.1\r\nHost: board\r\n\r\n")
            client.recv(65536)
            self.assertEqual(before + 1, self.sockets(board))

            between.say("cut")

            self.wait_until_gone(board, before + 1, time.monotonic())


if __name__ == "__main__":
    unittest.main()

"""The relay with eight boards and 64 viewers while boards come and go at random."""

import os
import random
import unittest

from fleet import Fleet, Relay, Viewer, resident_kilobytes, seconds_until, wait_until

BOARDS = 8
# Of each board.
VIEWERS = ([("", "ffmpeg", "tcp")] * 3 + [("", "ffmpeg", "udp"), ("", "gstreamer", "tcp"), ("", "gstreamer", "udp")] +
           [("/h264", "ffmpeg", "tcp"), ("/h264", "gstreamer", "udp")])
FAULTS = 6
ENDS = 3.0
RETURNS = 5.0
SEED = int(os.environ.get("KESTREL_SEED", "1"))


class EightBoards(unittest.TestCase):
    def setUp(self):
        self.fleet = Fleet(BOARDS, drawn=False, quality=24)
        self.addCleanup(self.fleet.close)
        self.relay = Relay(self.fleet)
        self.addCleanup(self.relay.close)
        self.viewers = {}
        self.addCleanup(lambda: [viewer.close() for those in self.viewers.values() for viewer in those])

    def watch(self, board):
        for viewer in self.viewers.get(board.name, ()):
            viewer.close()
        self.viewers[board.name] = [Viewer(board.name + form, kind, transport) for form, kind, transport in VIEWERS]

    def all_see(self, board, what):
        """All of a board's viewers get new pictures."""
        before = [viewer.pictures() for viewer in self.viewers[board.name]]
        for viewer, old in zip(self.viewers[board.name], before):
            wait_until(lambda viewer=viewer, old=old: viewer.pictures() > old + 5 or viewer.ended(), what, 180)
            self.assertFalse(viewer.ended(), what)

    def connections(self):
        return [board.clients() for board in self.fleet.boards]

    def test_boards_come_and_go_at_random(self):
        chance = random.Random(SEED)
        for board in self.fleet.boards:
            self.watch(board)
        for board in self.fleet.boards:
            self.all_see(board, "64 viewers see their boards")
        self.assertEqual([1] * BOARDS, self.connections())
        wait_until(lambda: sum(self.relay.viewers(board.name, "rtsp") for board in self.fleet.boards)
                   == BOARDS * len(VIEWERS), "64 viewers are counted")
        memory = descriptors = 0

        for number in range(FAULTS):
            board = chance.choice(self.fleet.boards)
            fault, (leave, come_back) = chance.choice(list({
                "cable": (board.pull_cable, board.plug_cable), "service": (board.kill, board.start),
                "camera": (lambda board=board: board.command("freeze"),
                           lambda board=board: board.command("thaw"))}.items()))
            leave()
            ends = seconds_until(lambda board=board: all(viewer.ended() for viewer in self.viewers[board.name]),
                                 f"{board.name} {fault}: its viewers' streams have ended")
            come_back()
            returns = seconds_until(lambda board=board: self.relay.live(board.name), f"{board.name} {fault}: back")
            print(f"{board.name} {fault}: ended after {ends:.2f} s, back after {returns:.2f} s", flush=True)
            self.assertLess(ends, ENDS)
            self.assertLess(returns, RETURNS)
            self.watch(board)
            self.all_see(board, "it is seen again")
            for other in self.fleet.boards:
                self.assertFalse(any(viewer.ended() for viewer in self.viewers[other.name]), other.name)
            wait_until(lambda: self.connections() == [1] * BOARDS, "one connection to each board")
            if number == FAULTS // 2:
                memory, descriptors = resident_kilobytes(self.relay.process.pid), self.descriptors()

        self.assertLess(resident_kilobytes(self.relay.process.pid), memory * 1.25)
        self.assertLess(self.descriptors(), descriptors * 1.1)
        self.assertEqual(0, self.relay.close())

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.relay.process.pid}/fd"))


if __name__ == "__main__":
    unittest.main()

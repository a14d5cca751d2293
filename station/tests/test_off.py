"""kestrel-arm off, straight at the guard: no station answers here."""

import json
import os
import shlex
import socket
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tests/drill"))
from burning_board import Board, wait_until  # noqa: E402

ARM = shlex.split(os.environ["KESTREL_ARM"])
BURNING = ["M3 S500"] + [f"G1 X{10 + i % 2} F300" for i in range(1000)]


def free_port():
    """One that nobody listens on."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def off(path, *options):
    return subprocess.run([*ARM, "off", "--guard", path, "--url", f"http://127.0.0.1:{free_port()}",
                           "--token", "/nowhere", *options],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=False)


class Off(unittest.TestCase):
    def start(self, language):
        board = Board(language)
        self.addCleanup(board.close)
        board.start_guard(reset_line=False)
        board.home()
        return board

    def test_burning_job_ends_dark_in_either_language(self):
        for language in ("arm", "grbl"):
            with self.subTest(language):
                self.expect_dark_after_off(self.start(language))

    def expect_dark_after_off(self, board):
        board.start_job(BURNING, lease=10)
        wait_until(lambda: board.state("laser") == 1, "the beam is on")

        done = off(board.path("socket"))

        self.assertEqual((0, "beam off by the guard, seen off\n", ""),
                         (done.returncode, done.stdout, done.stderr))
        self.assertEqual(0, board.state("laser"))
        self.assertEqual("dark", board.ask(do="state")["level"])

    def test_beam_that_stays_unseen_is_told(self):
        board = self.start("arm")
        board.command("mute")

        done = off(board.path("socket"), "--json")

        self.assertEqual(1, done.returncode, done.stderr)
        self.assertEqual({"taken": True, "by": "guard", "seen_off": False}, json.loads(done.stdout))

    def test_nobody_there_is_told(self):
        done = off("/tmp/kestrel-no-such-socket")

        self.assertEqual((3, ""), (done.returncode, done.stdout))
        self.assertRegex(done.stderr, r"^kestrel-arm: http://127\.0\.0\.1:\d+ cannot be reached\n"
                                      r"kestrel-arm: /tmp/kestrel-no-such-socket: No such file or directory\n$")

    def test_silent_guard_is_not_waited_for_for_long(self):
        path = f"/tmp/kestrel-silent-{os.getpid()}"
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
            self.addCleanup(os.unlink, path)
            listener.listen()

            done = off(path, "--json")

        self.assertEqual(3, done.returncode)
        self.assertEqual({"taken": False, "by": None, "seen_off": False}, json.loads(done.stdout))
        self.assertRegex(done.stderr, "(Connection|Operation) timed out")  # as the C library calls it


if __name__ == "__main__":
    unittest.main()

"""Names with shell text, from a client or found in a folder: no shell ever reads them."""

import glob
import os
import time
import unittest

from harness import Board, connect

# Each leaves a mark when a shell reads it; without a slash, which no file's name has.
SHELL_TEXT = ["%d;id>$(printf${IFS}'%%b'${IFS}'\\057tmp\\057')mark", "%d;touch${IFS}mark;",
              "%d$(touch${IFS}mark)", "%d`touch${IFS}mark`", "%d|touch mark", "%d\ntouch mark\n",
              "%d&touch mark&"]


class ShellText(unittest.TestCase):
    def setUp(self):
        for path in glob.glob("/tmp/mark*") + glob.glob("/tmp/usb-camera.log*"):
            os.unlink(path)

    def restart(self):
        """Restart the service, in /tmp, where a mark would land: its log comes first."""
        time.sleep(1.1)  # files are named by the second
        with Board(cwd="/tmp"):
            pass

    def assert_no_mark(self):
        self.assertEqual([], glob.glob("/tmp/mark*"))

    def snap(self, name):
        client = connect()
        client.sendall(b"GET /snap?filename=" + name + b" HTTP/1.0\r\n\r\n")
        self.assertIn(b"Filename: " + name + b"\r\n", client.recv(65536))
        client.close()

    def test_names_found_beside_the_log_are_removed_unread(self):
        for number, text in enumerate(SHELL_TEXT):
            path = "/tmp/usb-camera.log." + text % number
            with open(path, "w", encoding="ascii"):
                pass
            os.utime(path, (1000000000, 1000000000))

        self.restart()
        self.restart()

        self.assert_no_mark()
        self.assertEqual(2, len(glob.glob("/tmp/usb-camera.log*")))

    def test_names_of_snapshots_are_not_run_by_a_restart(self):
        with Board(cwd="/tmp"):
            for number, text in enumerate(SHELL_TEXT):
                name = ("../../../../../usb-camera.log." + text % number).encode()
                if b" " not in name and b"&" not in name and b"\n" not in name:
                    self.snap(name)
        for _ in range(3):
            self.restart()

        self.assert_no_mark()

    def test_names_of_snapshots_are_used_as_they_stand(self):
        with Board(cwd="/tmp") as board:
            self.snap(b"$(touch${IFS}mark);`id`|'\"")

            board.wait_for_saved("$(touch${IFS}mark);`id`|'\"")
        self.restart()

        self.assert_no_mark()


if __name__ == "__main__":
    unittest.main()

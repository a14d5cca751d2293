"""The device that joins two hosts is made where it is missing, or it is told that it cannot be."""

import os
import subprocess
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
MADE = """
mount -n -t tmpfs none /dev/net
scripts/lib/tun || exit
scripts/lib/tun && stat -c '%F %t:%T %a' /dev/net/tun
"""
REFUSED = """
mount -n -t tmpfs -o ro none /dev/net
scripts/lib/tun
"""


def run(script):
    return subprocess.run(("tests/support/private-host", "sh", "-c", script), cwd=ROOT, capture_output=True,
                          text=True, check=False)


class Tun(unittest.TestCase):
    def test_missing_node_is_made_once(self):
        done = run(MADE)
        if os.geteuid() == 0:
            self.assertEqual((0, "character special file a:c8 666\n"), (done.returncode, done.stdout), done.stderr)
        else:  # no node is made in a namespace of a user's
            self.assertEqual(1, done.returncode, done.stdout)

    def test_node_that_cannot_be_made_is_told(self):
        done = run(REFUSED)
        self.assertEqual(1, done.returncode)
        self.assertEqual("scripts/lib/tun: /dev/net/tun is missing; start the container with --device /dev/net/tun",
                         done.stderr.splitlines()[-1])


if __name__ == "__main__":
    unittest.main()

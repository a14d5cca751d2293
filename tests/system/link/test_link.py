"""The link itself: its delay, its rate, its cut, and what it does on its own."""

import socket
import threading
import time
import unittest

import link


def setUpModule():
    link.require()


def pair(test, between):
    """A connected near and far socket."""
    listener = socket.create_server((link.SERVICE, 8000))
    far = between.connect(8000)
    near, _ = listener.accept()
    listener.close()
    test.addCleanup(near.close)
    test.addCleanup(far.close)
    near.settimeout(30)
    near.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    far.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return near, far


def transfer(near, far, count):
    sender = threading.Thread(target=near.sendall, args=(bytes(count),))
    sender.start()
    while count > 0:
        count -= len(far.recv(min(count, 65536)))
    sender.join()


class Links(unittest.TestCase):
    def test_answer_takes_twice_the_delay(self):
        with link.Link(delay_ms=20) as between:
            near, far = pair(self, between)
            shortest = 60
            for _ in range(10):
                start = time.monotonic()
                far.sendall(b"?")
                near.sendall(near.recv(1))
                far.recv(1)
                shortest = min(shortest, time.monotonic() - start)
            self.assertGreaterEqual(shortest, 0.040)
            self.assertLess(shortest, 0.060)

    def test_nothing_is_faster_than_the_rate(self):
        with link.Link(mbit=8) as between:
            near, far = pair(self, between)
            start = time.monotonic()
            transfer(near, far, 1000000)
            self.assertGreaterEqual(time.monotonic() - start, 1.0)

    def test_losses_are_repaired_and_counted(self):
        with link.Link(delay_ms=1, loss_percent=5, seed=3) as between:
            near, far = pair(self, between)
            transfer(near, far, 1000000)
            words = between.say("count").split()
            self.assertEqual(["arrived", "overflowed", "lost"], words[::2])
            self.assertGreater(int(words[1]), 600)
            self.assertEqual("0", words[3])
            self.assertGreater(int(words[5]), 10)

    def test_cut_link_carries_nothing_until_it_is_mended(self):
        with link.Link() as between:
            near, far = pair(self, between)
            self.assertEqual("done", between.say("cut"))
            near.sendall(b"x")
            far.settimeout(0.5)
            with self.assertRaises(TimeoutError):
                far.recv(1)
            self.assertEqual("done", between.say("mend"))
            far.settimeout(30)
            self.assertEqual(b"x", far.recv(1))

    def test_packets_have_1500_bytes_at_most(self):
        with link.Link() as between:
            near, far = pair(self, between)
            for end in (near, far):
                most = end.getsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG)
                self.assertEqual(1500 - 20 - 20 - 12, most)  # without IP, TCP and its time stamps


if __name__ == "__main__":
    unittest.main()

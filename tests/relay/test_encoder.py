"""The encoder when it fails, and between a loss of the pictures and their return."""

import sys
import unittest

from fleet import PACKAGE, make_picture, wait_until

sys.path.insert(0, PACKAGE)
from kestrel_relay.encoder import Encoder  # noqa: E402
from kestrel_relay.feed import Feed  # noqa: E402
from kestrel_relay.gst import Gst  # noqa: E402


TOO_WIDE = "20000x16"  # for H.264, which ends at 16384


class Sink:
    """Takes what a feed hands on."""

    def __init__(self):
        self.count = 0
        self.ended = False

    def set_property(self, *_):
        """Its form is of no interest."""

    def emit(self, name, *_):
        self.count += name == "push-buffer"
        self.ended |= name == "end-of-stream"


class EncoderTest(unittest.TestCase):
    def setUp(self):
        self.pictures = Feed()
        self.encoder = Encoder("north", self.pictures, 500)
        self.addCleanup(self.encoder.end)

    def push(self, size):
        width, height = size.split("x")
        caps = Gst.Caps.from_string(f"image/jpeg,width={width},height={height}")
        self.pictures.push(Gst.Buffer.new_wrapped(make_picture(size)), caps)

    def use(self, user):
        sink = Sink()
        self.encoder.feed.add(sink)
        self.encoder.use(user)
        return sink

    def watch(self, user):
        """A user's sink, once it has got pictures."""
        sink = self.use(user)

        def encoded():
            self.push("640x480")
            return sink.count > 20
        wait_until(encoded, f"the {user} gets pictures")
        return sink

    def fail_encoder(self):
        def failed():
            self.push(TOO_WIDE)
            return self.encoder.look()
        wait_until(failed, "it has failed")


class EncoderAfterLoss(EncoderTest):
    def test_user_that_never_left_keeps_no_other_waiting(self):
        for user in ("first", "second"):
            self.watch(user)
            self.pictures.end()
            self.encoder.end()


class EncoderAfterFailure(EncoderTest):
    def test_users_are_ended_and_the_next_one_gets_pictures(self):
        sink = self.watch("first")
        self.assertFalse(self.encoder.look())

        with self.assertLogs(level="ERROR") as log:
            self.fail_encoder()

        self.assertEqual(["ERROR:root:north: the encoder has failed: Can not initialize x264 encoder."], log.output)
        self.assertTrue(sink.ended)
        self.assertFalse(self.encoder.running)
        self.watch("second")

    def test_failure_that_comes_again_is_logged_once(self):
        with self.assertLogs(level="ERROR") as log:
            for user in ("first", "second"):
                self.use(user)
                self.fail_encoder()
            self.assertEqual(1, len(log.output))
            self.watch("third")
            self.fail_encoder()
        self.assertEqual(2, len(log.output))


if __name__ == "__main__":
    unittest.main()

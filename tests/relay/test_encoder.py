"""The encoder between a loss of the pictures and their return."""

import subprocess
import sys
import unittest

from fleet import PACKAGE, wait_until

sys.path.insert(0, PACKAGE)
from kestrel_relay.encoder import Encoder  # noqa: E402
from kestrel_relay.feed import Feed  # noqa: E402
from kestrel_relay.gst import Gst  # noqa: E402


class Sink:
    """Takes what a feed hands on."""

    def __init__(self):
        self.count = 0

    def set_property(self, *_):
        """Its form is of no interest."""

    def emit(self, name, *_):
        self.count += name == "push-buffer"


class EncoderAfterLoss(unittest.TestCase):
    def test_user_that_never_left_keeps_no_other_waiting(self):
        jpeg = subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=640x480", "-frames:v", "1",
                               "-pix_fmt", "yuvj420p", "-f", "mjpeg", "-"], capture_output=True, check=True).stdout
        caps = Gst.Caps.from_string("image/jpeg,width=640,height=480")
        pictures = Feed()
        encoder = Encoder(pictures, 500)
        self.addCleanup(encoder.end)

        for user in ("first", "second"):
            sink = Sink()
            encoder.feed.add(sink)
            encoder.use(user)

            def encoded(sink=sink):
                pictures.push(Gst.Buffer.new_wrapped(jpeg), caps)
                return sink.count > 20
            wait_until(encoded, f"the {user} gets pictures")
            pictures.end()
            encoder.end()


if __name__ == "__main__":
    unittest.main()

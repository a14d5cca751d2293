"""H.264 of a board's pictures, while somebody wants it."""

import threading

from .feed import Failures, Feed, Pipeline, picture_of
from .gst import Gst, GstVideo

# Baseline, which every browser and phone decodes. A viewer that joins waits for a key frame, at most two seconds
# at 25 pictures a second, unless one is asked for.
ENCODE = ("jpegdec ! videoconvert ! video/x-raw,format=I420 ! "
          "x264enc name=encoder tune=zerolatency speed-preset=ultrafast threads=1 bitrate={} key-int-max=50 ! "
          "video/x-h264,profile=constrained-baseline ! h264parse config-interval=-1 ! "
          "video/x-h264,stream-format=byte-stream,alignment=au ! "
          "appsink name=encoded sync=false emit-signals=true max-buffers=30 drop=true")


class Encoder:
    """Encodes while it has users; any thread may call."""

    def __init__(self, name, pictures, kilobits):
        self.feed = Feed()
        self._failures = Failures(f"{name}: the encoder")
        self._pictures = pictures
        self._text = ENCODE.format(kilobits)
        self._lock = threading.Lock()  # guards the two below
        self._users = set()
        self._pipeline = None

    def use(self, user):
        """Encode for one more; the next picture is a key frame."""
        with self._lock:
            self._users.add(user)
            if self._pipeline is None:
                self._pipeline = Pipeline(self._pictures, self._text)
                self._pipeline.element("encoded").connect("new-sample", self._encoded)
            else:
                self._ask_key_frame()

    def release(self, user):
        """One who is none any more is no error."""
        with self._lock:
            self._users.discard(user)
            pipeline = None
            if not self._users:
                pipeline, self._pipeline = self._pipeline, None
        if pipeline:
            pipeline.close()

    def look(self):
        """Whether it has failed, which ends it; to be called now and then. The next user gets a new one."""
        with self._lock:
            failed = self._pipeline is not None and self._failures.look(self._pipeline)
        if failed:
            self.end()
        return failed

    def end(self):
        """The pictures have ended, and with them what the pipeline can take: whoever still was a user is none.
        A viewer's session may outlive its connection, and would keep the next one without pictures."""
        with self._lock:
            self.feed.end()
            self._users.clear()
            pipeline, self._pipeline = self._pipeline, None
        if pipeline:
            pipeline.close()

    def key_frame(self):
        """Have the next picture encoded so that a viewer can begin with it."""
        with self._lock:
            if self._pipeline:
                self._ask_key_frame()

    @property
    def running(self):
        return self._pipeline is not None

    def _ask_key_frame(self):
        event = GstVideo.video_event_new_upstream_force_key_unit(Gst.CLOCK_TIME_NONE, True, 0)
        self._pipeline.element("encoder").send_event(event)

    def _encoded(self, sink):
        sample = sink.emit("pull-sample")
        if sample is None:
            return Gst.FlowReturn.EOS
        self._failures.forget()
        self.feed.push(picture_of(sample), sample.get_caps())
        return Gst.FlowReturn.OK

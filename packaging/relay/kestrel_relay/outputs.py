"""What leaves beside RTSP: the multipart stream for nginx, and RTP for Janus."""

import threading
import time

from .feed import Pipeline
from .gst import Gio

# Each part begins with its boundary, the first one too. A viewer that cannot keep up skips to the newest whole
# picture.
MULTIPART = ("multipartmux boundary=boundarydonotcross ! multisocketsink name=viewers sync=false "
             "sync-method=next-keyframe recover-policy=keyframe units-max=12 units-soft-max=6")
RTP = "rtph264pay pt=96 config-interval=-1 aggregate-mode=zero-latency ! udpsink host=127.0.0.1 port={} sync=false"
WANTED = 5.0  # seconds for which a page that has asked is taken to watch


class Multipart:
    """A board's stream for any number of sockets. The pipeline runs while there are some."""

    def __init__(self, feed):
        self._feed = feed
        self._lock = threading.Lock()  # guards the pipeline's coming and going
        self._pipeline = None

    def add(self, descriptor):
        """Send the stream to a connected socket from now on; it becomes the stream's own."""
        with self._lock:
            if self._pipeline is None:
                self._pipeline = Pipeline(self._feed, MULTIPART)
            viewer = Gio.Socket.new_from_fd(descriptor)
            self._pipeline.element("viewers").emit("add", viewer)

    def viewers(self):
        with self._lock:
            return self._pipeline.element("viewers").get_property("num-handles") if self._pipeline else 0

    def end(self):
        """Close all of them."""
        self._close(lambda: True)

    def look(self):
        """Close the pipeline when nobody is left; to be called now and then."""
        self._close(lambda: self._pipeline.element("viewers").get_property("num-handles") == 0)

    def _close(self, condition):
        with self._lock:
            if self._pipeline is not None and condition():
                self._pipeline.element("viewers").emit("clear")
                self._pipeline.close()
                self._pipeline = None


class ForJanus:
    """A board's H.264 for Janus, while a page says that it watches."""

    def __init__(self, encoder, port):
        self._encoder = encoder
        self._text = RTP.format(port)
        self._lock = threading.Lock()  # guards the two below
        self._asked = {}  # monotonic time by page
        self._pipeline = None

    def want(self, page):
        """A page watches; it says so again within WANTED seconds."""
        with self._lock:
            new = page not in self._asked
            self._asked[page] = time.monotonic()
            if self._pipeline is None:
                self._pipeline = Pipeline(self._encoder.feed, self._text, 30)
                self._encoder.use(self)
            elif new:
                self._encoder.key_frame()

    def viewers(self):
        with self._lock:
            self._forget()
            return len(self._asked)

    def look(self):
        """Stop when nobody watches; to be called now and then."""
        with self._lock:
            self._forget()
            if self._asked or self._pipeline is None:
                return
            pipeline, self._pipeline = self._pipeline, None
        self._encoder.release(self)
        pipeline.close()

    def end(self):
        """The pictures have ended, and with them what the pipeline can take."""
        with self._lock:
            pipeline, self._pipeline = self._pipeline, None
        if pipeline:
            self._encoder.release(self)
            pipeline.close()

    def _forget(self):
        now = time.monotonic()
        self._asked = {page: asked for page, asked in self._asked.items() if now - asked < WANTED}

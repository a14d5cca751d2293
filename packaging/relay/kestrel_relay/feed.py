"""Hands each picture of a board to all that want it."""

import logging
import threading

from .gst import Gst

# What a feed pushes into: it stamps the pictures with their arrival, and drops old ones when what follows
# cannot keep up.
SOURCE = ("appsrc name=source is-live=true do-timestamp=true format=time max-bytes=0 max-buffers={} "
          "leaky-type=downstream")


class Feed:
    """Pictures of one board in one form, for any number of pipelines that begin with SOURCE.

    Any thread may call; push() must come from one at a time.
    """

    def __init__(self):
        self._lock = threading.Lock()  # guards the two below
        self._sources = []
        self._caps = None

    def push(self, buffer, caps):
        with self._lock:
            if self._caps is None or not caps.is_equal(self._caps):
                self._caps = caps
                for source in self._sources:
                    source.set_property("caps", caps)
            sources = list(self._sources)
        for source in sources:
            source.emit("push-buffer", buffer)

    def add(self, source):
        with self._lock:
            if self._caps is not None:
                source.set_property("caps", self._caps)
            self._sources.append(source)

    def remove(self, source):
        """What has been removed already is no error."""
        with self._lock:
            if source in self._sources:
                self._sources.remove(source)

    def end(self):
        """Tell all that there is nothing more to come, and forget them."""
        with self._lock:
            sources, self._sources = self._sources, []
        for source in sources:
            source.emit("end-of-stream")


def picture_of(sample):
    """A sample's bytes without its time: each pipeline stamps them by its own clock. Copies none."""
    whole = sample.get_buffer()
    return whole.copy_region(Gst.BufferCopyFlags.MEMORY | Gst.BufferCopyFlags.FLAGS, 0, whole.get_size())


class Pipeline:
    """A pipeline that takes a feed's pictures from construction until close()."""

    def __init__(self, feed, text, depth=3):
        self.pipeline = Gst.parse_launch(SOURCE.format(depth) + " ! " + text)
        self._feed = feed
        self._source = self.pipeline.get_by_name("source")
        self.pipeline.set_state(Gst.State.PLAYING)
        feed.add(self._source)

    def element(self, name):
        return self.pipeline.get_by_name(name)

    def over(self):
        """None while pictures get through; then the text of what has failed, or "" after the feed's end."""
        message = self.pipeline.get_bus().pop_filtered(Gst.MessageType.EOS | Gst.MessageType.ERROR)
        if message is None:
            return None
        return message.parse_error()[0].message if message.type == Gst.MessageType.ERROR else ""

    def finish(self, seconds):
        """Let what was taken reach the end, for instance a file, then close."""
        self._feed.remove(self._source)
        self._source.emit("end-of-stream")
        self.pipeline.get_bus().timed_pop_filtered(
            int(seconds * Gst.SECOND), Gst.MessageType.EOS | Gst.MessageType.ERROR)
        self.close()

    def close(self):
        self._feed.remove(self._source)
        self.pipeline.set_state(Gst.State.NULL)


class Failures:
    """Logs the failures of somebody's pipelines; one that comes again and again only once."""

    def __init__(self, what):
        self._what = what
        self._said = None

    def look(self, pipeline):
        """Whether it is over; to be called now and then. Never waits."""
        error = pipeline.over()
        if error:
            self.say(error)
        return error is not None

    def say(self, error):
        if error != self._said:
            self._said = error
            logging.error("%s has failed: %s", self._what, error)

    def forget(self):
        """It works: the next failure is another."""
        self._said = None

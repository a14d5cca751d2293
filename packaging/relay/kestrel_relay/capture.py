"""The one connection to a board."""

import logging
import socket
import threading
import time

from .feed import picture_of
from .gst import Gst

STALE = 2.0  # seconds; an older picture is not live, as on the board's page
SILENCE = 3.0  # seconds without a picture before another connection: one to a lost board is silent, too
CONNECT = 2.0  # seconds for a connection
RETRY = 1.0  # seconds between a refused or closed connection and the next
LOOK = 0.2  # seconds between two looks at the time

REQUEST = b"GET /live HTTP/1.1\r\nHost: kestrel-board\r\n\r\n"
# The stream's heads and boundaries are left out by jpegparse, which finds the pictures by their markers.
PICTURES = "fdsrc name=board blocksize=65536 ! jpegparse ! appsink name=pictures sync=false max-buffers=2 drop=true"


class Capture:
    """Keeps one connection to a board, from start() to stop(), and feeds its pictures.

    `changed(live)` is called from a thread of the capture's: with True at the first picture after none, with
    False once the last one is STALE seconds old. Looking for that has a thread of its own, since an attempt to
    connect may take longer than a picture stays live.
    """

    def __init__(self, board, feed, changed):
        self.board = board
        self.connections = 0
        self.pictures = 0
        self.bytes = 0
        self.last = None  # monotonic time of the last picture
        self.live = False
        self._feed = feed
        self._changed = changed
        self._quit = threading.Event()
        self._said = None  # the last failure, which is logged when it changes
        self._threads = [threading.Thread(target=self._run, name=f"capture-{board.name}", daemon=True),
                         threading.Thread(target=self._watch, name=f"watch-{board.name}", daemon=True)]

    def start(self):
        for thread in self._threads:
            thread.start()

    def stop(self):
        self._quit.set()
        for thread in self._threads:
            thread.join()

    def age(self):
        """Seconds since the last picture came; None before the first."""
        return None if self.last is None else time.monotonic() - self.last

    def _run(self):
        while not self._quit.is_set():
            wait = RETRY
            try:
                with socket.create_connection((self.board.host, self.board.port), CONNECT) as client:
                    client.settimeout(None)
                    client.sendall(REQUEST)
                    self.connections += 1
                    wait = self._take(client)
            except OSError as error:
                self._say(str(error))
            self._quit.wait(wait)

    def _watch(self):
        while not self._quit.wait(LOOK):
            self._look()

    def _take(self, client):
        """Feed the connection's pictures until it ends or is silent; returns the seconds to wait then."""
        begun = time.monotonic()
        pipeline = Gst.parse_launch(PICTURES)
        pipeline.get_by_name("board").set_property("fd", client.fileno())
        pictures = pipeline.get_by_name("pictures")
        pictures.set_property("emit-signals", True)
        pictures.connect("new-sample", self._picture)
        bus = pipeline.get_bus()
        pipeline.set_state(Gst.State.PLAYING)
        try:
            while not self._quit.is_set():
                message = bus.timed_pop_filtered(int(LOOK * Gst.SECOND),
                                                 Gst.MessageType.EOS | Gst.MessageType.ERROR)
                if message is not None:
                    self._say("it closed the connection" if message.type == Gst.MessageType.EOS
                              else message.parse_error()[0].message)
                    return RETRY
                if time.monotonic() - max(begun, self.last or begun) > SILENCE:
                    self._say("no picture comes")
                    return 0
            return 0
        finally:
            pipeline.set_state(Gst.State.NULL)

    def _picture(self, sink):
        sample = sink.emit("pull-sample")
        if sample is None:
            return Gst.FlowReturn.EOS
        picture = picture_of(sample)
        self.pictures += 1
        self.bytes += picture.get_size()
        self.last = time.monotonic()
        self._feed.push(picture, sample.get_caps())
        return Gst.FlowReturn.OK

    def _look(self):
        age = self.age()
        live = age is not None and age < STALE
        if live != self.live:
            self.live = live
            if live:
                self._said = None
                logging.info("%s: pictures come", self.board.name)
            else:
                logging.warning("%s: no picture for %.0f s", self.board.name, STALE)
            self._changed(live)

    def _say(self, text):
        if text != self._said:
            self._said = text
            logging.warning("%s: %s", self.board.name, text)

"""A board with all that is done with its pictures, and all boards together."""

import threading

from .capture import Capture
from .encoder import Encoder
from .feed import Feed
from .gst import GLib
from .mounts import Mounts
from .outputs import ForJanus, Multipart
from .recorder import CleanUp, Recorder

LOOK = 1000  # ms between two looks at what nobody uses any more


class Relayed:
    """One board."""

    def __init__(self, board, config, mounts):
        self.board = board
        self.pictures = Feed()
        self.encoder = Encoder(board.name, self.pictures, config.h264_kilobits)
        self.multipart = Multipart(self.pictures)
        self.for_janus = ForJanus(self.encoder, config.janus_media_from + board.number)
        self.recorder = self._recorder(config.recording)
        self.capture = Capture(board, self.pictures, self._changed)
        self._mounts = mounts
        self._lock = threading.Lock()  # guards what begins and ends with the pictures

    def _recorder(self, rule):
        if self.board.name not in rule.boards:
            return None
        if rule.pictures == "h264":
            return Recorder(self.board.name, self.encoder.feed, self.encoder, rule)
        return Recorder(self.board.name, self.pictures, None, rule)

    @property
    def live(self):
        return self.capture.live

    def stop(self):
        self.capture.stop()
        if self.recorder:
            self.recorder.stop()

    def viewers(self):
        """By kind."""
        return {"rtsp": self._mounts.viewers(self.board.name), "http": self.multipart.viewers(),
                "webrtc": self.for_janus.viewers()}

    def watch_live(self, descriptor):
        """False when there are no pictures; else the socket is taken."""
        with self._lock:
            if self.live:
                self.multipart.add(descriptor)
            return self.live

    def watch_by_janus(self, page):
        with self._lock:
            if self.live:
                self.for_janus.want(page)

    def look(self):
        with self._lock:
            self.multipart.look()
            self.for_janus.look()
            if self.encoder.look():
                self.for_janus.end()
                self._mounts.renew_h264(self.board.name, self.encoder)
        if self.recorder and self.live:
            self.recorder.look()

    def _changed(self, live):
        """Called by the capture: nobody is to keep an old picture."""
        with self._lock:
            if live:
                self._mounts.open(self.board.name, self.pictures, self.encoder)
            else:
                self.multipart.end()
                self.pictures.end()
                self.encoder.end()
                self.for_janus.end()
                self._mounts.close(self.board.name)
        if self.recorder:
            # May take its time for the end of a file.
            if live:
                self.recorder.start()
            else:
                self.recorder.stop()


class Relay:
    """All boards, the RTSP server and the clean-up."""

    def __init__(self, config):
        self.mounts = Mounts(config)
        self.clean_up = CleanUp(config.recording)
        self.boards = {board.name: Relayed(board, config, self.mounts) for board in config.boards}

    def start(self):
        for each in self.boards.values():
            each.capture.start()
        self.clean_up.start()
        GLib.timeout_add(LOOK, self._look)

    def stop(self):
        for each in self.boards.values():
            each.stop()
        self.clean_up.stop()

    def _look(self):
        for each in self.boards.values():
            each.look()
        return True

"""Recording in segments, and the rule by which they go."""

import logging
import os
import re
import shutil
import threading
import time

from .feed import Failures, Pipeline

TEXT = {"jpeg": "splitmuxsink name=files muxer=matroskamux async-finalize=false max-size-time={}",
        "h264": "h264parse ! splitmuxsink name=files muxer=matroskamux async-finalize=false max-size-time={}"}
NAME = "%Y-%m-%dT%H-%M-%SZ"
SUFFIX = ".mkv"
OURS = re.compile(r"\d{4}-\d\d-\d\dT\d\d-\d\d-\d\dZ(\.\d+)?\.mkv")
FINISH = 5.0  # seconds for the last file's end
STILL = 30.0  # seconds; a file of a picture that stands still may grow as seldom, since it is written in blocks
GIGABYTE = 10**9


class Growth:
    """Whether what a pipeline writes grows. To be asked now and then, by one at a time."""

    def __init__(self):
        self.path = None  # of the file, once it has a name
        self._seen = None  # path and size when last asked
        self._time = None  # monotonic, when they were seen to change

    def seen(self):
        """Looks at the file, which a broken disk may make wait."""
        path = self.path
        size = size_of(path)
        now = time.monotonic()
        # The first file counts from its first byte; the next ones follow one that has grown.
        if (path, size) != self._seen and (size or self._time is not None):
            self._time = now
        self._seen = path, size
        return self._time is not None and now - self._time < STILL


class Recorder:
    """Records a board while its pictures come: a new file after each gap and after so many minutes.

    start() and stop() are called from the board's capture thread, look() from any.
    """

    def __init__(self, name, feed, encoder, rule):
        self.folder = os.path.join(rule.folder, name)
        self.begun = 0  # files
        self._failures = Failures(f"{name}: the recording")
        self._feed = feed
        self._encoder = encoder  # None when the JPEG is recorded as it is
        self._text = TEXT[rule.pictures].format(int(rule.minutes * 60 * 10**9))
        self._lock = threading.Lock()  # guards the next three
        self._wanted = False  # from start() to stop()
        self._pipeline = None
        self._opened = 0  # monotonic time
        self._growth = Growth()  # of the pipeline
        self._asking = threading.Lock()  # for writing()

    def writing(self):
        """Whether a file grows. Looks at it, which a broken disk may make wait; any thread but start()'s and
        look()'s."""
        with self._asking:
            return self._growth.seen()

    def start(self):
        with self._lock:
            self._wanted = True
            self._open()

    def stop(self):
        """What has come is in a whole file afterwards. Blocks until it is, at most FINISH seconds."""
        with self._lock:
            self._wanted = False
            if self._pipeline:
                self._pipeline.finish(FINISH)
                self._forget()

    def look(self):
        """Begin anew where a pipeline has failed, for instance on a full disk, or its encoder; to be called now and
        then. Never waits."""
        if not self._lock.acquire(blocking=False):
            return
        try:
            if self._pipeline and self._failures.look(self._pipeline):
                self._pipeline.close()
                self._remove_empty()
                self._forget()
            elif self._pipeline and time.monotonic() - self._opened > STILL:
                self._failures.forget()
            if self._wanted and not self._pipeline:
                self._open()
        finally:
            self._lock.release()

    def _open(self):
        try:
            os.makedirs(self.folder, exist_ok=True)
        except OSError as error:
            self._failures.say(error)
            return
        self._opened = time.monotonic()
        self._pipeline = Pipeline(self._feed, self._text, 60)
        self._pipeline.element("files").connect("format-location", self._next)
        if self._encoder:
            self._encoder.use(self)

    def _remove_empty(self):
        """Each attempt on a full disk leaves a file."""
        path = self._growth.path
        if path and not size_of(path):
            try:
                os.unlink(path)
            except OSError as error:
                self._failures.say(error)

    def _forget(self):
        self._pipeline = None
        self._growth = Growth()
        if self._encoder:
            self._encoder.release(self)

    def _next(self, _sink, _number):
        self.begun += 1
        self._growth.path = unused(os.path.join(self.folder, time.strftime(NAME, time.gmtime())))
        return self._growth.path


def size_of(path):
    """0 also where there is none."""
    try:
        return os.path.getsize(path) if path else 0
    except OSError:
        return 0


def unused(path):
    """The path with the suffix, and with a number if there is such a file: none is written over."""
    name = path + SUFFIX
    number = 2
    while os.path.exists(name):
        name = f"{path}.{number}{SUFFIX}"
        number += 1
    return name


def segments(folder):
    """(time of the last change, bytes, path) of all recordings, the oldest first; other files are none of ours."""
    found = []
    for place, _, names in os.walk(folder):
        for name in names:
            path = os.path.join(place, name)
            if OURS.fullmatch(name) and not os.path.islink(path):
                try:
                    state = os.stat(path)
                except FileNotFoundError:
                    continue
                found.append((state.st_mtime, state.st_size, path))
    return sorted(found)


def to_remove(found, rule, now, free):
    """The paths that the rule gives up: too old, or the oldest of what is too much for all or for the disk.

    What was written to within the last minute may still be open, and stays.
    """
    total = sum(size for _, size, _ in found)
    gone = []
    for changed, size, path in found:
        if changed > now - 60:
            break
        if (changed < now - rule.keep_days * 86400 or total > rule.keep_gigabytes * GIGABYTE
                or free < rule.keep_free_gigabytes * GIGABYTE):
            gone.append(path)
            total -= size
            free += size
    return gone


class CleanUp:
    """Applies the rule once a minute, from start() on, in a thread of its own."""

    def __init__(self, rule):
        self.bytes = 0
        self.files = 0
        self.removed = 0
        self._rule = rule
        self._quit = threading.Event()
        self._thread = threading.Thread(target=self._run, name="clean-up", daemon=True)

    def start(self):
        self._thread.start()

    def stop(self):
        self._quit.set()
        self._thread.join()

    def once(self):
        if not os.path.isdir(self._rule.folder):
            return
        found = segments(self._rule.folder)
        for path in to_remove(found, self._rule, time.time(), shutil.disk_usage(self._rule.folder).free):
            try:
                os.unlink(path)
                self.removed += 1
            except OSError as error:
                logging.error("%s", error)
        left = segments(self._rule.folder)
        self.bytes = sum(size for _, size, _ in left)
        self.files = len(left)

    def _run(self):
        while True:
            self.once()
            if self._quit.wait(60):
                return

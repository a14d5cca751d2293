"""nginx and Janus in front of the relay: password, multipart stream, the page in Chromium."""

import contextlib
import os
import subprocess
import time
import unittest

from fleet import PACKAGE, PASSWORD, SOURCE, USER, Fleet, Janus, Relay, Web, authorization, run, wait_until

BOUNDARY = b"--boundarydonotcross\r\n"
PAGES = ("/", "/index.html", "/page.js", "/janus.js", "/style.css", "/state", "/state/board-1", "/live/board-1",
         "/metrics", "/janus")


class Parts:
    """Reads a multipart stream as a player does: from boundary to boundary, by length."""

    def __init__(self, response):
        self._response = response

    def picture(self):
        line = self._response.readline()
        while line == b"\r\n":
            line = self._response.readline()
        if line != BOUNDARY:
            raise AssertionError(f"no boundary: {line[:100]!r}")
        header = {}
        while line := self._response.readline().strip():
            name, _, value = line.decode().partition(":")
            header[name.lower()] = value.strip()
        assert header["content-type"].startswith("image/jpeg"), header
        return self._response.read(int(header["content-length"]))


class InFront(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.fleet = Fleet(1)
        cls.addClassCleanup(cls.fleet.close)
        cls.board = cls.fleet.boards[0]
        cls.relay = Relay(cls.fleet)
        cls.addClassCleanup(cls.relay.close)
        cls.janus = Janus(cls.relay)
        cls.addClassCleanup(cls.janus.close)
        cls.web = Web(cls.fleet)
        cls.addClassCleanup(cls.web.close)

    def test_nothing_is_answered_without_the_password(self):
        for target in PAGES:
            for headers in ({}, authorization(USER, "geheim")):
                self.assertEqual(401, self.web.status(target, headers), target)

    def test_page_and_all_its_files(self):
        for name in os.listdir(f"{PACKAGE}/www"):
            connection, response = self.web.open(f"/{name}")
            with contextlib.closing(connection), open(f"{PACKAGE}/www/{name}", "rb") as file:
                self.assertEqual((200, file.read()), (response.status, response.read()), name)

    def test_other_sites_pages_are_refused(self):
        for more in ({"Sec-Fetch-Site": "cross-site"}, {"Origin": "https://evil.example"}):
            for target in PAGES[2:]:
                self.assertEqual(403, self.web.status(target, authorization() | more), target)

    def test_anything_else_is_not_there(self):
        for target in ("/tls.key", "/users", "/live/nobody", "/state/nobody", "/janus/admin", "/admin",
                       "/index.html/", "/live/board-1/"):
            self.assertEqual(404, self.web.status(target), target)
        self.assertEqual(400, self.web.status("/../users"))
        for target in ("/state", "/live/board-1"):
            self.assertEqual(403, self.web.status(target, method="DELETE"), target)

    def test_stream_begins_with_its_boundary_and_holds_the_cameras_bytes(self):
        connection, response = self.web.open("/live/board-1")
        with contextlib.closing(connection):
            self.assertEqual("multipart/x-mixed-replace;boundary=boundarydonotcross",
                             response.getheader("Content-Type"))
            parts = Parts(response)
            pictures = [parts.picture() for _ in range(25)]

        self.assertEqual(25, len(set(pictures)))
        kept = self.board.frames()
        self.assertEqual([], [len(picture) for picture in pictures if picture not in kept])

    def test_player_opens_the_stream_without_an_option(self):
        shown = run("ffprobe", "-v", "error", "-headers", f"Authorization: {authorization()['Authorization']}\r\n",
                    "-show_entries", "stream=codec_name,width,height", "-of", "csv=p=0",
                    "https://127.0.0.1/live/board-1")
        self.assertEqual("mjpeg,640,480\n", shown)

    def test_slow_viewer_gets_whole_new_pictures(self):
        connection, response = self.web.open("/live/board-1")
        with contextlib.closing(connection):
            parts = Parts(response)
            parts.picture()
            time.sleep(5)  # it does not read: far more than all buffers hold comes meanwhile
            pictures = [parts.picture() for _ in range(120)]

        kept = self.board.frames()
        self.assertEqual([], [len(picture) for picture in pictures if picture not in kept])
        numbers = [kept[picture] for picture in pictures]
        self.assertEqual(numbers, sorted(set(numbers)))
        left_out = max(new - old for old, new in zip(numbers, numbers[1:]))
        self.assertGreater(left_out, 75)  # of the 125 that came meanwhile

    def test_stream_ends_with_the_pictures(self):
        connection, response = self.web.open("/live/board-1")
        with contextlib.closing(connection):
            parts = Parts(response)
            parts.picture()
            self.board.command("freeze")
            self.addCleanup(self.relay.wait_live, "board-1")
            self.addCleanup(self.board.command, "thaw")
            begun = time.monotonic()
            while response.read(65536):
                pass
            self.assertLess(time.monotonic() - begun, 3.0)

        self.assertEqual(503, self.web.status("/live/board-1"))

    def test_stream_counts_while_somebody_watches(self):
        connection, response = self.web.open("/live/board-1")
        with contextlib.closing(connection):
            Parts(response).picture()
            self.assertEqual(1, self.relay.viewers("board-1", "http"))
            self.assertEqual(1, self.board.clients())

        wait_until(lambda: self.relay.viewers("board-1", "http") == 0, "it has gone")

    def test_page_in_chromium(self):
        """page.test.js says what it shows; it has the board frozen and thawed by the files that it makes."""
        folder = f"{self.fleet.folder}/chromium"
        os.makedirs(folder)
        environment = dict(os.environ, KESTREL_ANSWERS=folder, KESTREL_USER=USER, KESTREL_PASSWORD=PASSWORD)
        with open(f"{folder}/output", "wb") as output:
            page = subprocess.Popen(["node", "--test", "--test-reporter=spec", "page.test.js"], env=environment,
                                    cwd=f"{SOURCE}/tests/relay", stdin=subprocess.DEVNULL, stdout=output,
                                    stderr=subprocess.STDOUT)
        commands = {"freeze": lambda: self.board.command("freeze"), "thaw": lambda: self.board.command("thaw"),
                    "janus-off": self._stop_janus, "janus-on": self._start_janus}
        while page.poll() is None:
            for name, command in commands.items():
                if os.path.exists(f"{folder}/{name}"):
                    command()
                    os.unlink(f"{folder}/{name}")
            time.sleep(0.02)  # between two looks for a file
        with open(f"{folder}/output", encoding="utf-8") as file:
            said = file.read()
        print(said)
        self.assertEqual(0, page.returncode, said)
        self.assertRegex(said, r"tests 4\n")

    def _stop_janus(self):
        self.janus.close()

    def _start_janus(self):
        type(self).janus = Janus(self.relay)
        self.addClassCleanup(self.janus.close)


if __name__ == "__main__":
    unittest.main()

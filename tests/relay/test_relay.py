"""The relay on two boards: pictures, one connection, what ends and what comes back."""

import contextlib
import re
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import unittest
from types import SimpleNamespace

from fleet import RELAY, RTSP, WEB, Fleet, Relay, Viewer, make_picture, run, seconds_until, wait_until

NAMES = ("board-1", "board-2")
COUNT = 'kestrel_relay_pictures_total{board="board-1"}'
# From the moment that a board is gone; the last picture is at most a few hundredths older.
ENDS = 3.0
RETURNS = 5.0


class RelayOnTwoBoards(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.fleet = Fleet(2)
        cls.addClassCleanup(cls.fleet.close)
        cls.relay = Relay(cls.fleet)
        cls.addClassCleanup(cls.relay.close)
        cls.board = cls.fleet.boards[0]

    def viewers(self, *wanted):
        """Viewers (path, kind, transport) that show pictures."""
        viewers = []
        for each in wanted:
            viewer = Viewer(*each)
            self.addCleanup(viewer.close)
            viewers.append(viewer)
        for viewer in viewers:
            wait_until(lambda viewer=viewer: viewer.pictures() >= 10 or viewer.ended(), "pictures come")
            self.assertFalse(viewer.ended())
        return viewers

    def test_every_viewer_sees_its_board_over_one_connection(self):
        self.viewers(("board-1", "ffmpeg", "tcp"), ("board-1", "gstreamer", "udp"), ("board-1/h264", "ffmpeg", "udp"),
                     ("board-1/h264", "gstreamer", "tcp"))

        self.assertEqual([1, 1], [board.clients() for board in self.fleet.boards])
        self.assertEqual(4, self.relay.viewers("board-1", "rtsp"))
        self.assertEqual(0, self.relay.viewers("board-2", "rtsp"))

    def test_forms_are_as_documented(self):
        for path, codec in (("board-2", "mjpeg"), ("board-2/h264", "h264")):
            shown = run("ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
                        "stream=codec_name,width,height", "-of", "csv=p=0", f"{RTSP}/{path}")
            self.assertEqual(f"{codec},640,480\n", shown)

    def test_nothing_is_encoded_while_nobody_wants_it(self):
        encoding = 'kestrel_relay_encoding{board="board-2"}'
        wait_until(lambda: self.relay.metrics()[encoding] == 0, "the encoder has stopped")
        viewer = self.viewers(("board-2/h264", "ffmpeg", "tcp"))[0]
        self.assertEqual(1, self.relay.metrics()[encoding])

        viewer.close()

        wait_until(lambda: self.relay.metrics()[encoding] == 0, "the encoder has stopped")

    def lose(self, leave, come_back):
        """All kinds of viewers while the first board is lost and comes back."""
        viewers = self.viewers(("board-1", "ffmpeg", "tcp"), ("board-1", "ffmpeg", "udp"),
                               ("board-1", "gstreamer", "tcp"), ("board-1/h264", "ffmpeg", "tcp"))
        other = self.viewers(("board-2", "ffmpeg", "tcp"))[0]

        leave()
        ends = seconds_until(lambda: all(viewer.ended() for viewer in viewers), "all viewers' streams have ended")
        refused = subprocess.run(["ffprobe", "-v", "error", f"{RTSP}/board-1"], capture_output=True, check=False)
        come_back()
        returns = seconds_until(lambda: self.relay.live("board-1"), "the board is live again")

        self.assertLess(ends, ENDS)
        self.assertNotEqual(0, refused.returncode)
        self.assertIn(b"404", refused.stderr)
        self.assertLess(returns, RETURNS)
        self.viewers(("board-1", "ffmpeg", "tcp"), ("board-1/h264", "ffmpeg", "tcp"))
        wait_until(lambda: self.board.clients() == 1, "the board has one connection")
        self.assertFalse(other.ended())
        return viewers

    def test_cable_pulled_and_plugged_in(self):
        self.lose(self.board.pull_cable, self.board.plug_cable)

    def test_service_killed_and_started(self):
        self.lose(self.board.kill, self.board.start)

    def test_power_lost_and_back(self):
        self.lose(self.board.lose_power, self.board.power)

    def test_camera_frozen_and_thawed(self):
        self.lose(lambda: self.board.command("freeze"), lambda: self.board.command("thaw"))

    def test_viewer_over_udp_is_told_too(self):
        viewer = self.viewers(("board-1", "gstreamer", "udp"))[0]

        self.board.command("freeze")
        self.addCleanup(self.board.command, "thaw")

        self.assertLess(seconds_until(viewer.ended, "its stream has ended"), ENDS)

    def test_long_loss_is_no_longer_to_return_from(self):
        """Connections are tried as often after a long time as at first."""
        self.board.pull_cable()
        self.relay.wait_live("board-1", False)
        time.sleep(15)  # the loss itself
        self.board.plug_cable()

        self.assertLess(seconds_until(lambda: self.relay.live("board-1"), "live again"), RETURNS)


class ChangingBoard:
    """A board that sends one picture over and over, and has one connection."""

    def __init__(self):
        self.picture = make_picture("640x480")
        self._listener = socket.create_server(("127.0.0.1", 8329))
        self._quit = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def close(self):
        self._quit.set()
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()

    def _run(self):
        while not self._quit.is_set():
            with contextlib.suppress(OSError):  # the listener's end, or the relay's
                client, _ = self._listener.accept()
                with client:
                    client.recv(4096)
                    client.sendall(b"HTTP/1.0 200 OK\r\n"
                                   b"Content-Type: multipart/x-mixed-replace;boundary=boundarydonotcross\r\n\r\n")
                    while not self._quit.wait(1 / 25):
                        client.sendall(b"Content-Type: image/jpeg\r\nContent-Length: %d\r\n\r\n%b"
                                       b"\r\n--boundarydonotcross\r\n" % (len(self.picture), self.picture))


def stay(path):
    """A connection that plays and would never leave by itself."""
    client = socket.create_connection(("127.0.0.1", 8554), 30)
    with client.makefile("rb") as answers:
        session = ""
        for number, (method, url, more) in enumerate((
                ("DESCRIBE", f"{RTSP}/{path}", "Accept: application/sdp\r\n"),
                ("SETUP", f"{RTSP}/{path}/stream=0", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"),
                ("PLAY", f"{RTSP}/{path}/", ""))):
            client.sendall(f"{method} {url} RTSP/1.0\r\nCSeq: {number}\r\n{session}{more}\r\n".encode())
            head = "".join(iter(lambda: answers.readline().decode(), "\r\n"))
            assert head.startswith("RTSP/1.0 200 "), head
            length = re.search(r"^Content-Length: (\d+)", head, re.M)
            answers.read(int(length.group(1)) if length else 0)
            found = re.search(r"^Session: ([^;\r]+)", head, re.M)
            session = f"Session: {found.group(1)}\r\n" if found else ""
    return client


class EncoderThatFails(unittest.TestCase):
    def test_its_viewers_are_ended_and_the_next_ones_see_pictures(self):
        board = ChangingBoard()
        self.addCleanup(board.close)
        folder = tempfile.mkdtemp(prefix="kestrel-relay.")
        self.addCleanup(shutil.rmtree, folder)
        relay = Relay(SimpleNamespace(folder=folder, boards=[SimpleNamespace(name="board-1", address="127.0.0.1")]))
        self.addCleanup(relay.close)
        viewer = Viewer("board-1/h264")
        self.addCleanup(viewer.close)
        wait_until(lambda: viewer.pictures() >= 10, "pictures come")
        staying = stay("board-1/h264")
        self.addCleanup(staying.close)

        board.picture = make_picture("20000x16")  # too wide for H.264
        ends = seconds_until(viewer.ended, "its stream has ended")
        board.picture = make_picture("640x480")
        come = relay.metrics()[COUNT]
        wait_until(lambda: relay.metrics()[COUNT] > come + 3, "the wide ones have passed")
        after = Viewer("board-1/h264")
        self.addCleanup(after.close)

        self.assertLess(ends, ENDS)
        while staying.recv(65536):  # until it is closed
            pass
        wait_until(lambda: after.pictures() >= 25, "pictures come again")
        self.assertEqual(1, relay.viewers("board-1", "rtsp"))
        with open(f"{folder}/relay.out", encoding="utf-8") as file:
            self.assertEqual(1, file.read().count("board-1: the encoder has failed: "))


class Sampling(unittest.TestCase):
    def test_one_that_rtp_cannot_carry_leaves_the_other_forms(self):
        fleet = Fleet(1, drawn=False, sampling="yuvj444p")
        self.addCleanup(fleet.close)
        relay = Relay(fleet)
        self.addCleanup(relay.close)

        refused = subprocess.run(["ffprobe", "-v", "error", f"{RTSP}/board-1"], capture_output=True, check=False)
        shown = run("ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries", "stream=codec_name", "-of",
                    "csv=p=0", f"{RTSP}/board-1/h264")
        live = run("ffprobe", "-v", "error", "-show_entries", "stream=codec_name,pix_fmt", "-of", "csv=p=0",
                   f"http://{WEB}/live/board-1")

        self.assertIn(b"503", refused.stderr)
        self.assertEqual("h264\n", shown)
        self.assertEqual("mjpeg,yuvj444p\n", live)


class Password(unittest.TestCase):
    """RTSP on all addresses, which takes a user."""

    def test_only_the_user_gets_in(self):
        fleet = Fleet(1)
        self.addCleanup(fleet.close)
        relay = Relay(fleet, '[rtsp]\naddress = "0.0.0.0"\nuser = "lena"\npassword = "geheim"\n')
        self.addCleanup(relay.close)
        boards_side = RTSP.replace("127.0.0.1", "10.77.1.1")

        for path in ("board-1", "board-1/h264"):
            self.assertEqual("mjpeg" if path == "board-1" else "h264", self.codec(
                boards_side.replace("//", "//lena:geheim@") + f"/{path}"))
            for who in ("", "lena:falsch@", "otto:geheim@"):
                self.assertIn("401 Unauthorized", self.codec(boards_side.replace("//", f"//{who}") + f"/{path}"))

    def codec(self, url):
        done = subprocess.run(["ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
                               "stream=codec_name", "-of", "csv=p=0", url], capture_output=True, text=True, check=False)
        return done.stdout.strip() or done.stderr


class CommandLine(unittest.TestCase):
    def test_help(self):
        self.assertIn("COMMAND", run(RELAY, "--help"))

    def test_configuration_is_checked(self):
        for text, said in (('[boards]\nNORTH = "a"', "boards.NORTH"), ('[boards]\na = "b:99999"', "boards.a"),
                           ("[bords]", "bords"), ('[recording]\nboards = ["a"]', "the name a"),
                           ('[rtsp]\naddress = "0.0.0.0"', "rtsp.user"), ('[rtsp]\nport = "x"', "rtsp.port"),
                           ('[boards]\na = "c"\nb = "c:8329"', "boards.b: a has this address"),
                           ('[recording]\nminutes = 0', "recording.minutes"), ('[rtsp]\nuser = "a"', "belong")):
            done = subprocess.run([RELAY, "--config", "/dev/stdin", "check"], input=text, capture_output=True,
                                  text=True, check=False)
            self.assertEqual(2, done.returncode, text)
            self.assertIn(said, done.stderr, text)

    def test_boards_are_listed(self):
        text = '[boards]\nnorth = "192.168.1.11"\nsix = "[fe80::1]:81"\n'
        self.assertEqual("north 192.168.1.11 8329\nsix fe80::1 81\n",
                         run(RELAY, "--config", "/dev/stdin", "check", input=text))


if __name__ == "__main__":
    unittest.main()

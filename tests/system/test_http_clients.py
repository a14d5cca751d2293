"""The clients that docs/http.md lists, run with the very commands that stand there."""

import json
import os
import re
import subprocess
import tempfile
import time
import unittest

from harness import SOURCE, BoardTest, LiveStream, connect

COMMAND_LIMIT = 60  # seconds; only ends a failing run


def document():
    with open(os.path.join(SOURCE, "docs", "http.md"), encoding="utf-8") as file:
        return file.read().replace("HOST", "127.0.0.1")


def documented(client, wanted):
    """The command of the client's row that contains the wanted text."""
    rows = re.findall(rf"^\| {client} \| `([^`]+)` \|", document(), re.M)
    commands = [command for command in rows if wanted in command]
    assert len(commands) == 1, f"{client} {wanted}: {rows}"
    return commands[0]


class Clients(BoardTest):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="kestrel-clients.")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def run_documented(self, client, wanted, status=0):
        return self.run_shell(documented(client, wanted), status)

    def run_shell(self, command, status=0):
        environment = {k: v for k, v in os.environ.items() if not k.lower().endswith("_proxy")}
        done = subprocess.run(command, shell=True, cwd=self.folder, env=environment, check=False,
                              capture_output=True, stdin=subprocess.DEVNULL, timeout=COMMAND_LIMIT)
        self.assertEqual(status, done.returncode, f"{command}\n{done.stderr.decode()}")
        return done.stdout

    def content(self, name):
        with open(os.path.join(self.folder, name), "rb") as file:
            return file.read()

    def assert_is_frame(self, picture):
        self.assertIn(picture, self.board.camera.frames())

    def test_every_row_of_the_table_is_run_here_or_by_the_browser(self):
        table = document().split("## Clients")[1].split("```python", 1)[0]
        clients = re.findall(r"^\| ([^|]+?) \| (?!Command|---)", table, re.M)

        self.assertEqual(["Chromium, Firefox", "WebKitGTK", "curl", "curl", "curl", "wget", "wget", "ffmpeg",
                          "Python's urllib"], clients)
        page = re.search(r"^\| Chromium, Firefox \| `http://127\.0\.0\.1:8329(/\S+)`", table, re.M).group(1)
        tests = os.path.join(SOURCE, "tests", "browser", "page.test.js")
        with open(tests, encoding="utf-8") as file:
            self.assertIn("${HTTP_PORT}" + page, file.read())

    def test_curl_takes_a_snapshot_that_is_also_saved(self):
        self.run_documented("curl", "/snap")

        self.assert_is_frame(self.content("photo.jpg"))
        self.board.wait_for_saved("photo.jpg")

    def test_curl_measures(self):
        self.assertEqual(b'{"measure":"0.0000"}', self.run_documented("curl", "/camera"))

    def test_curl_records_the_stream_until_its_time_limit(self):
        self.run_documented("curl", "--max-time 3", status=28)

        stream = self.content("stream.bin")
        self.assertTrue(stream.startswith(b"Content-Type: image/jpeg\r\n"), "no boundary in front")
        parts = stream.split(LiveStream.TRAILER)[:-1]
        self.assertGreater(len(parts), 1)
        for part in parts:
            self.assert_is_frame(part.split(LiveStream.HEADER_END, 1)[1])

    def test_wget_takes_a_snapshot(self):
        self.run_documented("wget", "/snap")

        self.assert_is_frame(self.content("photo.jpg"))

    def test_wget_measures(self):
        self.run_documented("wget", "/camera")

        self.assertEqual({"measure": "0.0000"}, json.loads(self.content("measure.json")))

    def test_ffmpeg_takes_a_picture(self):
        self.run_documented("ffmpeg", "-f mjpeg")

        shown = self.run_shell("ffprobe -v error -show_entries stream=codec_name,width,height -of csv=p=0 now.jpg")
        self.assertEqual(b"mjpeg,640,480\n", shown)

    def test_ffmpeg_refuses_the_stream_without_being_told_the_format(self):
        command = documented("ffmpeg", "-f mjpeg").replace("-f mjpeg ", "")

        done = subprocess.run(command, shell=True, cwd=self.folder, check=False,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=COMMAND_LIMIT)

        self.assertNotEqual(0, done.returncode)
        self.assertIn(b"Invalid data found", done.stderr)
        self.assertFalse(os.path.exists(os.path.join(self.folder, "now.jpg")))

    def test_recording_holds_the_pictures_alone_and_keeps_time(self):
        recipe = re.search(r"### Recording\n+```sh\n(.*?)```", document(), re.S).group(1)
        start = time.monotonic()
        recording = subprocess.Popen(recipe, shell=True, cwd=self.folder, stdin=subprocess.DEVNULL)
        time.sleep(3)  # of the ten seconds that it records
        self.board.camera.ctl("freeze")
        time.sleep(3)
        self.board.camera.ctl("thaw")
        self.assertEqual(0, recording.wait(COMMAND_LIMIT))
        lasted = time.monotonic() - start
        kept = self.board.camera.frames()

        self.run_shell("ffmpeg -loglevel quiet -i video.mkv -c copy -f image2 stored-%05d.jpg")
        stored = [name for name in os.listdir(self.folder) if name.startswith("stored-")]
        self.assertGreater(len(stored), 25)
        foreign = [name for name in stored if self.content(name) not in kept]
        self.assertEqual([], foreign)
        film = float(self.run_shell("ffprobe -v error -show_entries format=duration -of csv=p=0 video.mkv"))
        self.assertGreater(film, 6)  # the gap of three seconds is in it
        self.assertLess(film, lasted + 1)

    def test_connection_stays_open_behind_an_answer(self):
        client = connect()
        client.sendall(b"GET /camera?focus=1 HTTP/1.1\r\n\r\n")
        answer = b""
        while not answer.endswith(b'\r\n\r\n{"measure":"0.0000"}'):
            answer += client.recv(4096)

        client.settimeout(1)

        with self.assertRaises(TimeoutError):
            client.recv(1)

    def test_urllib_reads_the_stream(self):
        program = re.search(r"```python\n(.*?)```", document(), re.S).group(1)
        with open(os.path.join(self.folder, "program.py"), "w", encoding="utf-8") as file:
            file.write(program)

        self.run_shell("python3 program.py")

        for number in range(25):
            self.assert_is_frame(self.content(f"picture-{number}.jpg"))

    def test_urllib_takes_a_snapshot(self):
        statement = re.search(r"`(urlopen\([^`]*\.read\(\))`", document()).group(1)

        picture = self.run_shell("python3 -c 'import sys; from urllib.request import urlopen; "
                                 f"sys.stdout.buffer.write({statement})'")

        self.assert_is_frame(picture)

    def test_each_method_is_answered_as_get(self):
        for method in ("GET", "HEAD", "POST", "PUT", "DELETE"):
            client = connect()
            client.sendall(f"{method} /camera?focus=1 HTTP/1.1\r\n\r\n".encode())
            answer = b""
            while not answer.endswith(b'\r\n\r\n{"measure":"0.0000"}'):
                data = client.recv(4096)
                self.assertTrue(data, f"{method}: {answer}")
                answer += data
            client.close()

    def test_file_name_is_taken_as_it_stands(self):
        self.run_shell("curl -s -o x.jpg 'http://127.0.0.1:8329/snap?filename=a%20b+c.jpg'")

        self.board.wait_for_saved("a%20b+c.jpg")


if __name__ == "__main__":
    unittest.main()

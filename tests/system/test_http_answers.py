"""Every answer of the service byte for byte, over the wire, and what closes a connection instead."""

import os
import re
import shutil
import time
import unittest

from harness import CARD, Board, BoardTest, LiveStream, connect, wait_until

NO_CACHE = (b"Cache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, "
            b"max-age=0\r\n")


def read_until(client, end):
    data = b""
    while not data.endswith(end):
        byte = client.recv(1)
        if not byte:
            raise EOFError(f"closed after {data!r}")
        data += byte
    return data


def read_exactly(client, count):
    data = b""
    while len(data) < count:
        more = client.recv(count - len(data))
        if not more:
            raise EOFError(f"closed after {len(data)} of {count} bytes")
        data += more
    return data


def read_answer(client):
    """Head and body of one answer with a Content-Length."""
    head = read_until(client, b"\r\n\r\n")
    length = int(re.search(rb"Content-Length: (\d+)", head).group(1))
    return head, read_exactly(client, length)


def get(target, version="HTTP/1.1"):
    client = connect()
    client.sendall(f"GET {target} {version}\r\nHost: board\r\n\r\n".encode())
    return client


def closed_without_an_answer(client):
    try:
        return client.recv(1) == b""
    except ConnectionResetError:
        return True


class Answers(BoardTest):
    def setUp(self):
        for name in ("www", "camera"):
            shutil.rmtree(f"{CARD}/{name}", ignore_errors=True)
            os.makedirs(f"{CARD}/{name}", exist_ok=True)  # a late snapshot may keep it

    def tearDown(self):
        self.assertTrue(self.board.server.alive())

    def write(self, name, content):
        with open(f"{CARD}/www/{name}", "wb") as file:
            file.write(content)

    def test_live_header(self):
        head = read_until(get("/live?stream=3"), b"\r\n\r\n")
        self.assertEqual(
            b"HTTP/1.0 200 OK\r\n"
            b"Connection: close\r\n"
            b"Server: MJPG-Streamer/0.2\r\n"
            + NO_CACHE +
            b"Pragma: no-cache\r\n"
            b"Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
            b"Content-Type: multipart/x-mixed-replace;boundary=boundarydonotcross\r\n"
            b"\r\n", head)

    def test_live_part(self):
        client = get("/live")
        read_until(client, b"\r\n\r\n")
        part = read_until(client, b"\r\n\r\n")
        self.assertEqual(b"Content-Type: image/jpeg\r\nContent-Length: ", part[:42])
        length = part[42:50]
        self.assertEqual(b"\r\nX-Timestamp: ", part[50:65])
        seconds, point, microseconds = part[65:81], part[81:82], part[82:98]
        self.assertEqual((b".", b"\r\n\r\n"), (point, part[98:]))
        self.assertEqual(length, b"%8d" % int(length))
        self.assertEqual(seconds, b"%16d" % int(seconds))
        self.assertEqual(microseconds, b"%16d" % int(microseconds))
        self.assertAlmostEqual(time.time(), int(seconds), delta=60)
        self.assertLess(int(microseconds), 1000000)
        self.assertIn(read_exactly(client, int(length)), self.board.camera.frames())
        self.assertEqual(b"\r\n--boundarydonotcross\r\nContent-Type: ", read_exactly(client, 38))

    def test_snap(self):
        client = get("/snap?filename=a.jpg&stream=2")
        head, picture = read_answer(client)
        length = re.search(rb"\r\nContent-Length: (\d+)\r\n", head).group(1)
        self.assertEqual(len(picture), int(length))
        seconds, microseconds = re.search(rb"\r\nX-Timestamp: (\d+)\.(\d{6})\r\n", head).groups()
        self.assertAlmostEqual(time.time(), int(seconds), delta=60)
        self.assertEqual(
            b"HTTP/1.0 200 OK\r\n"
            b"Connection: close\r\n"
            b"Server: MJPG-Streamer/0.2\r\n"
            + NO_CACHE +
            b"Pragma: no-cache\r\n"
            b"Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
            b"Content-type: image/jpeg\r\n"
            b"Content-Length: " + length + b"\r\n"
            b"X-Timestamp: " + seconds + b"." + microseconds + b"\r\n"
            b"Filename: a.jpg\r\n"
            b"\r\n", head)
        client.close()
        frames = self.board.camera.frames()
        self.assertIn(picture, frames)
        self.board.wait_for_saved("a.jpg")

    def test_snap_answers_on_until_the_client_closes(self):
        client = get("/snap")
        pictures = [read_answer(client)[1] for _ in range(5)]
        frames = self.board.camera.frames()
        numbers = [frames[picture] for picture in pictures]
        self.assertEqual(sorted(set(numbers)), numbers)
        client.close()
        self.board.wait_for_saved("photo.jpg")

    def test_snap_without_a_file_name_is_photo(self):
        for query in ("", "?filename=", "?mode=correction", "?filename"):
            client = get("/snap" + query)
            self.assertIn(b"\r\nFilename: photo.jpg\r\n\r\n", read_answer(client)[0])
            client.close()

    def test_snap_corrected_without_a_plug_in_is_the_picture_itself(self):
        client = get("/snap?mode=correction&filename=c.jpg")
        self.assertIn(read_answer(client)[1], self.board.camera.frames())

    def test_long_file_name_is_answered_whole(self):
        name = "n" * 1500
        client = get("/snap?filename=" + name)
        head, picture = read_answer(client)
        self.assertTrue(head.endswith(b"\r\nFilename: " + name.encode() + b"\r\n\r\n"))
        self.assertIn(picture, self.board.camera.frames())
        self.assertEqual([], os.listdir(f"{CARD}/camera"))

    def test_camera(self):
        self.assertEqual(
            (b"HTTP/1.1 200 OK\r\n"
             b"Connection: close\r\n"
             b"Server: MJPG-Streamer/0.2\r\n"
             + NO_CACHE +
             b"Pragma: no-cache\r\n"
             b"Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
             b"Content-type: text/plain\r\n"
             b"Content-Length: 20\r\n"
             b"\r\n", b'{"measure":"0.0000"}'), read_answer(get("/camera?focus=1")))

    def test_camera_without_focus_is_200_and_invalid(self):
        for query in ("", "?focus", "?focus=", "?other=1"):
            head, body = read_answer(get("/camera" + query))
            self.assertTrue(head.startswith(b"HTTP/1.1 200 OK\r\n"))
            self.assertIn(b"\r\nContent-Length: 15\r\n", head)
            self.assertEqual(b"invalid request", body)

    def test_file(self):
        content = bytes(range(256)) * 1000
        self.write("picture.png", content)
        self.assertEqual(
            (b"HTTP/1.0 200 OK\r\n"
             b"Connection: close\r\n"
             + NO_CACHE +
             b"Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
             b"Content-type: image/png\r\n"
             b"Server: MJPG-Streamer\r\n"
             b"Content-Length: 256000\r\n"
             b"Cache-Control: no-cachePragma: no-cache\r\n"
             b"\r\n", content), read_answer(get("/picture.png?any=query")))

    def test_each_content_type(self):
        for extension, kind in ((".html", "text/html"), (".htm", "text/html"),
                                (".css", "text/css"), (".js", "text/javascript"),
                                (".txt", "text/plain"), (".jpg", "image/jpeg"),
                                (".jpeg", "image/jpeg"), (".png", "image/png"),
                                (".ico", "image/x-icon")):
            self.write("f" + extension, b"x")
            head, body = read_answer(get("/f" + extension))
            self.assertIn(f"\r\nContent-type: {kind}\r\n".encode(), head)
            self.assertEqual(b"x", body)

    def test_refused_paths_close_the_connection(self):
        self.write("f.HTML", b"x")
        self.write("f", b"x")
        self.write("f.svg", b"x")
        os.makedirs(f"{CARD}/www/a.b")
        self.write("a.b/c", b"x")
        os.mkfifo(f"{CARD}/www/pipe.txt")
        os.makedirs(f"{CARD}/www/folder.txt")
        with open(f"{CARD}/www/large.txt", "wb") as file:
            file.truncate(1 << 31)
        for target in ("/", "/f", "/f.HTML", "/f.svg", "/a.b/c", "/missing.html", "/pipe.txt",
                       "/folder.txt", "/large.txt", "/LIVE", "/Snap", "/live/"):
            self.assertTrue(closed_without_an_answer(get(target)), target)

    def test_file_that_cannot_be_read_whole_is_a_header_and_a_close(self):
        os.symlink("/sys/devices/system/cpu/online", f"{CARD}/www/short.txt")
        client = get("/short.txt")
        head = read_until(client, b"\r\n\r\n")
        self.assertIn(b"\r\nContent-Length: 4096\r\n", head)
        self.assertTrue(closed_without_an_answer(client))

    def test_bad_input_closes_without_an_answer(self):
        for data in (b"\r\n", b"garbage\r\n\r\n", b"\0" * 3000, bytes(range(256)) * 8,
                     b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", b"GET  HTTP/1.1\r\n\r\n",
                     b"GET /live HTTP/7.7.7\r\n\r\n",
                     b"POST /live HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
                     b"GET http://board HTTP/1.1\r\n\r\n"):
            client = connect()
            client.sendall(data)
            self.assertTrue(closed_without_an_answer(client), data[:40])

    def test_huge_content_length_waits_or_closes_and_harms_nobody(self):
        waiting = []
        for length in (b"2147483647", b"4294967295", b"99999999999"):
            client = connect()
            client.sendall(b"POST /live HTTP/1.1\r\nContent-Length: " + length + b"\r\n\r\nbody")
            waiting.append(client)
        LiveStream().frame()
        for client in waiting:
            client.setblocking(False)
            try:
                self.assertEqual(b"", client.recv(1), "no answer before the body")
            except BlockingIOError:
                pass

    def test_first_read_alone_is_parsed(self):
        for first in (b"G", b"GET /li"):
            client = connect()
            client.sendall(first)
            self.assertTrue(closed_without_an_answer(client), first)

        client = connect()
        client.sendall(b"GET /camera?foc")
        self.assertEqual(b"invalid request", read_answer(client)[1])
        client.sendall(b"us=1 HTTP/1.1\r\n\r\n")
        self.assertEqual(b"invalid request", read_answer(client)[1], "routed again as it was")

    def test_one_megabyte_of_headers_routes_for_each_read(self):
        client = connect()
        client.sendall(b"GET /camera?focus=1 HTTP/1.1\r\nX: " + b"x" * 20000)
        answers = [read_answer(client)[1] for _ in range(9)]  # 20034 bytes are ten reads of 2048
        self.assertEqual({b'{"measure":"0.0000"}'}, set(answers))
        client.close()
        client = connect()
        client.sendall(b"GET /live HTTP/1.1\r\nX: " + b"x" * (1 << 20))
        self.assertTrue(read_until(client, b"\r\n\r\n").startswith(b"HTTP/1.0 200 OK\r\n"))
        client.close()
        LiveStream().frame()

    def test_pipelined_requests_in_one_read_answer_the_last_alone(self):
        client = connect()
        client.sendall(b"GET /live HTTP/1.1\r\n\r\nGET /camera?focus=1 HTTP/1.1\r\n\r\n")
        self.assertEqual(b'{"measure":"0.0000"}', read_answer(client)[1])

    def test_two_clients_are_independent(self):
        half = connect()
        half.sendall(b"POST /camera?focus=1 HTTP/1.1\r\nContent-Length: 2\r\n\r\na")
        live = LiveStream()
        live.frame()
        half.sendall(b"b")
        self.assertEqual(b'{"measure":"0.0000"}', read_answer(half)[1])
        live.frame()


class Leaving(unittest.TestCase):
    def test_clients_that_leave_without_a_request_are_removed(self):
        with Board() as board:
            def sockets():
                return sum(target.startswith("socket:")
                           for target in board.server.descriptors().values())
            before = sockets()
            clients = [connect() for _ in range(5)]
            wait_until(lambda: sockets() == before + 5, "all are accepted")
            for client in clients:
                client.close()
            wait_until(lambda: sockets() == before, "all are removed")


if __name__ == "__main__":
    unittest.main()

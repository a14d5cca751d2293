"""The operator's interface under requests that were damaged at random: none gets past the token, none ends it."""

import json
import os
import random
import re
import socket
import unittest

from harness import wait_until
from station import PORT, TOKEN, Station, request

REQUESTS = int(os.environ.get("KESTREL_FUZZ_REQUESTS", "3000"))
HEAD = f"Host: 127.0.0.1:{PORT}\r\nAuthorization: Bearer {TOKEN}\r\n"
PIECES = (b"\r\n", b"\n", b"\0", b"\xff", b"%00", b"%2e%2e/", b"../", b"//", b"?", b"&name=", b"{}", b"[" * 200,
          b'{"a":' * 100, b"Content-Length: 5\r\n", b"Transfer-Encoding: chunked\r\n", b"Expect: 100-continue\r\n",
          b"Origin: http://evil.example\r\n", b"Host: evil.example\r\n", b"Range: bytes=0-\r\n", b"-1",
          b"99999999999999999999", b"1e999", b"GET", b"POST ", b" ", b"\r\n\r\n", b"Authorization: Bearer x\r\n")


def post(path, body, kind="application/json"):
    return (f"POST {path} HTTP/1.1\r\n{HEAD}Content-Type: {kind}\r\nContent-Length: {len(body)}\r\n\r\n{body}").encode()


def get(path):
    return f"GET {path} HTTP/1.1\r\n{HEAD}\r\n".encode()


FILE = "G21\nG90\nG0 X1\nM5\n"
SEEDS = [get("/state"), get("/journal?after=1&limit=10"), get("/metrics"), get("/jobs"), get("/jobs/a.gcode"),
         get("/jobs/a.gcode/picture"), get("/jobs/a.gcode/file"), get("/measure/pictures/spot"), get("/healthz"),
         post("/off", "{}"), post("/level", '{"level":"motion"}'), post("/move", '{"x":1,"y":-2.5,"feed":600}'),
         post("/jog", '{"z":0.1,"feed":60}'), post("/measure", "{}"),
         post("/job/lease", '{"lease":"' + "0" * 32 + '"}'),
         post("/jobs/a.gcode/start", '{"unattended":true,"line":3}'), post("/jobs/a.gcode/check", "{}"),
         post("/jobs?name=a.gcode&replace=true", FILE, "application/octet-stream"),
         post("/firmware?size=18&sha256=" + "0" * 64, FILE, "application/octet-stream"),
         f"OPTIONS /off HTTP/1.1\r\nHost: 127.0.0.1:{PORT}\r\nOrigin: http://127.0.0.1:8329\r\n\r\n".encode()]


def damage(chance, text):
    """The text with one to four things done to it."""
    for _ in range(chance.randint(1, 4)):
        begin = chance.randrange(len(text) + 1)
        end = min(len(text), begin + chance.randint(1, 40))
        piece = chance.choice((chance.choice(PIECES), bytes([chance.randrange(256)]), text[begin:end], b""))
        text = chance.choice((text[:begin] + piece + text[begin:], text[:begin] + piece + text[end:],
                              text[:begin] + piece + text[begin + len(piece):], text[:begin]))
    return text


def exchange(text):
    """All that comes back until the end."""
    with socket.create_connection(("127.0.0.1", PORT), timeout=60) as client:
        answer = b""
        try:
            client.sendall(text)
            client.shutdown(socket.SHUT_WR)
            while more := client.recv(65536):
                answer += more
        except ConnectionError:
            pass  # it has been closed with some of the request unread
        return answer


class Fuzz(unittest.TestCase):
    def descriptors(self, board):
        return len(os.listdir(f"/proc/{board.station.pid}/fd"))

    def check(self, sent, answer):
        head, _, body = answer.partition(b"\r\n\r\n")
        status = re.match(rb"HTTP/1\.1 (\d{3}) ", head)
        self.assertTrue(status, (sent, answer[:300]))
        number = int(status.group(1))
        if 200 <= number < 300 and not re.match(rb"\s*(GET /healthz|OPTIONS)\b", sent):
            self.assertIn(TOKEN.encode(), sent)
        if number >= 400 and b"application/problem+json" in head:
            document = json.loads(body[:int(re.search(rb"Content-Length: (\d+)", head).group(1))])
            self.assertEqual(number, document["status"], (sent, answer))

    def test_damaged_requests_are_answered_or_closed(self):
        chance = random.Random(18)
        with Station(camera=False, guard=False, controller=False) as board:
            self.assertEqual(201, request("POST", "/jobs?name=a.gcode", FILE.encode()).status)
            before = self.descriptors(board)
            answered = 0
            for number in range(REQUESTS):
                sent = damage(chance, chance.choice(SEEDS))
                answer = exchange(sent)
                if answer:
                    answered += 1
                    self.check(sent, answer)
                self.assertIsNone(board.station.poll(), (number, sent))
            self.assertGreater(answered, REQUESTS // 4)
            self.assertEqual("no-guard", request("POST", "/off", {}).problem)
            wait_until(lambda: self.descriptors(board) <= before, "no descriptor is left")

    def test_no_other_token_is_taken(self):
        chance = random.Random(8330)
        with Station(camera=False, guard=False, controller=False):
            for _ in range(300):
                token = damage(chance, TOKEN.encode()).decode("latin-1").replace("\r", "").replace("\n", "").strip()
                if token == TOKEN:
                    continue
                answer = exchange(f"GET /state HTTP/1.1\r\nHost: 127.0.0.1:{PORT}\r\n"
                                  f"Authorization: Bearer {token}\r\n\r\n".encode("latin-1"))
                status = answer.split(b" ", 2)[1] if answer else b"closed"
                self.assertIn(status, (b"401", b"400", b"413", b"closed"), token)


if __name__ == "__main__":
    unittest.main()

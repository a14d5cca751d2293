"""The operator's interface: who may ask, what is refused, and what no number of clients can keep from the beam."""

import json
import os
import re
import socket
import time
import unittest

from harness import wait_until
from station import API, COMMON, PORT, TOKEN, Events, Station, find_operation, request

HEAD = f"Host: 127.0.0.1:{PORT}\r\nAuthorization: Bearer {TOKEN}\r\n"


def send(text):
    """A raw request; the socket."""
    client = socket.create_connection(("127.0.0.1", PORT), timeout=30)
    client.sendall(text.encode())
    return client


def receive(client, data=b""):
    """All of an answer up to the connection's end, or to what Content-Length tells; and what came behind it."""
    while True:
        head, mark, body = data.partition(b"\r\n\r\n")
        length = re.search(rb"Content-Length: (\d+)", head)
        if mark and length and len(body) >= int(length.group(1)):
            return head.decode(), body[:int(length.group(1))], body[int(length.group(1)):]
        more = client.recv(65536)
        if not more:
            return head.decode(), body, b""
        data += more


class Alone(unittest.TestCase):
    """Without guard, controller, plug-in and camera."""

    @classmethod
    def setUpClass(cls):
        cls.board = Station(camera=False, guard=False, controller=False)

    @classmethod
    def tearDownClass(cls):
        cls.board.close()

    def test_it_works_and_tells_what_is_missing(self):
        state = request("GET", "/state").json

        self.assertEqual({"guard", "camera", "vision"}, {each["what"] for each in state["missing"]})
        self.assertIs(False, state["guard"]["present"])
        self.assertIsNone(state["guard"]["level"])
        self.assertEqual("no-guard", request("POST", "/off", {}).problem)
        self.assertEqual("no-guard", request("POST", "/home", {}).problem)

    def test_health_needs_no_token(self):
        self.assertEqual({"status": "ok"}, request("GET", "/healthz", token="").json)

    def test_token_is_asked_for(self):
        for token in ("", TOKEN[:-1], TOKEN + "0", "f" * len(TOKEN)):
            with self.subTest(token):
                answer = request("GET", "/state", token=token)
                self.assertEqual((401, "unauthorized"), (answer.status, answer.problem))
                self.assertEqual("Bearer", answer.headers["WWW-Authenticate"])
        for header in (f"Basic {TOKEN}", TOKEN, f"Bearer  {TOKEN}"):
            with self.subTest(header):
                self.assertEqual(401, request("GET", "/state", headers={"Authorization": header}).status)

    def test_other_hosts_are_refused(self):
        for host in ("evil.example", "evil.example:8330", "127.0.0.1.evil.example", "8.8.8.8", "", "[::2]:8330"):
            with self.subTest(host):
                answer = request("GET", "/healthz", headers={"Host": host or " "})
                self.assertEqual((403, "host"), (answer.status, answer.problem))
        for host in ("localhost", "LOCALHOST:8330", "127.0.0.1", "arm.example:443", "[::1]:8330"):
            with self.subTest(host):
                self.assertEqual(200, request("GET", "/state", headers={"Host": host}).status)

    def test_pages_of_others_are_refused(self):
        for origin in ("http://evil.example", "null", "http://127.0.0.1", "http://127.0.0.1:80",
                       "https://127.0.0.1:8330",
                       "http://localhost:8330", "http://127.0.0.1:8330.evil.example", "https://arm.example:8330"):
            with self.subTest(origin):
                answer = request("POST", "/off", {}, headers={"Origin": origin})
                self.assertEqual((403, "origin"), (answer.status, answer.problem))
                self.assertIsNone(answer.headers["Access-Control-Allow-Origin"])
        for origin in ("http://127.0.0.1:8329", "http://127.0.0.1:8330", "https://arm.example"):
            with self.subTest(origin):
                answer = request("GET", "/state", headers={"Origin": origin})
                self.assertEqual(200, answer.status)
                self.assertEqual(origin, answer.headers["Access-Control-Allow-Origin"])

    def test_browser_may_ask_beforehand(self):
        client = send(f"OPTIONS /off HTTP/1.1\r\nHost: 127.0.0.1:{PORT}\r\nOrigin: http://127.0.0.1:8329\r\n\r\n")

        head, _ = receive_head(client)

        self.assertIn(" 204 ", head)
        self.assertIn("Access-Control-Allow-Origin: http://127.0.0.1:8329", head)
        self.assertIn("Access-Control-Allow-Headers: Authorization, Content-Type, Last-Event-ID", head)
        client.close()

    def test_changes_are_json_objects(self):
        for body, headers, problem in (
                (b"{}", {"Content-Type": "text/plain"}, "media-type"),
                (b"{}", {"Content-Type": "application/x-www-form-urlencoded"}, "media-type"),
                (b"", {"Content-Type": "application/json"}, "bad-request"),
                (b"[]", {"Content-Type": "application/json"}, "bad-request"),
                (b"{", {"Content-Type": "application/json"}, "bad-request"),
                (b'{"level":"job"}', {"Content-Type": "application/json"}, "bad-request"),
                (b'{"level":"dark","more":1}', {"Content-Type": "application/json"}, "bad-request")):
            with self.subTest(body=body, headers=headers):
                answer = request("POST", "/level", body, headers=headers)
                self.assertEqual(problem, answer.problem)

    def test_unknown_paths_and_methods(self):
        for method, path, problem in (("GET", "/nothing", "not-found"), ("GET", "/state/", "not-found"),
                                      ("GET", "/", "not-found"), ("GET", "/off", "method"),
                                      ("POST", "/state", "method"), ("DELETE", "/state", "method")):
            with self.subTest(path=path):
                answer = request(method, path, {} if method == "POST" else None)
                self.assertEqual(problem, answer.problem)
        self.assertEqual("POST", request("GET", "/off").headers["Allow"])

    def test_description_lists_what_exists(self):
        for template, item in API["paths"].items():
            path = re.sub(r"\{\w+\}", "none", template)
            for method, operation in item.items():
                with self.subTest(path=path, method=method):
                    if path == "/events":
                        continue  # its answer does not end; every test of events asks for it
                    answer = request(method.upper(), path, {} if method == "post" else None)
                    missing = answer.problem == "not-found" and answer.json["detail"] == f"There is no {path}."
                    self.assertEqual(operation.get("x-planned", False), missing or answer.status == 405)

    def test_bounds(self):
        for text, status in (
                ("GET /healthz HTTP/1.1\r\n" + HEAD + f"X: {'x' * 8192}\r\n\r\n", 413),
                ("POST /level HTTP/1.1\r\n" + HEAD + "Content-Type: application/json\r\n\r\n", 411),
                ("POST /level HTTP/1.1\r\n" + HEAD + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 411),
                ("POST /level HTTP/1.1\r\n" + HEAD + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}", 411),
                ("POST /level HTTP/1.1\r\n" + HEAD + "Content-Length: -1\r\n\r\n", 411),
                ("POST /level HTTP/1.1\r\n" + HEAD + "Content-Length: 65537\r\n\r\n", 413),
                ("NONSENSE\r\n\r\n", 400)):
            with self.subTest(text[:40]):
                client = send(text)
                head, body, _ = receive(client)
                self.assertIn(f" {status} ", head.splitlines()[0])
                self.assertEqual(status, json.loads(body)["status"])
                client.close()

    def test_requests_follow_each_other_on_a_connection(self):
        both = "".join(f"POST /level HTTP/1.1\r\n{HEAD}Content-Type: application/json\r\nContent-Length: 16\r\n\r\n"
                       '{"level":"dark"}' for _ in range(2))
        client = send(both)
        rest = b""
        for _ in range(2):
            head, _, rest = receive(client, rest)
            self.assertIn(" 503 ", head.splitlines()[0])
        client.close()

    def test_every_beginning_of_a_request_is_waited_for(self):
        text = f"POST /level HTTP/1.1\r\n{HEAD}Content-Type: application/json\r\nContent-Length: 2\r\n\r\n" "{}"
        clients = [(send(text[:cut]), cut) for cut in range(1, len(text), 7)]
        for client, cut in clients:
            client.sendall(text[cut:].encode())
        for client, _ in clients:
            head, _, _ = receive(client)
            self.assertIn(" 400 ", head.splitlines()[0])
            client.close()

    def test_half_a_request_is_given_up(self):
        begun = time.monotonic()
        client = send("GET /healthz HTTP/1.1\r\nHost:")

        self.assertEqual(b"", client.recv(1))

        self.assertGreater(time.monotonic() - begun, 4)
        self.assertLess(time.monotonic() - begun, 15)
        client.close()


def receive_head(client):
    data = b""
    while b"\r\n\r\n" not in data:
        more = client.recv(65536)
        if not more:
            break
        data += more
    return data.decode(), b""


class Names(unittest.TestCase):
    def test_problems_of_the_description_are_those_of_the_program(self):
        listed = set(COMMON)
        for item in API["paths"].values():
            for operation in item.values():
                listed |= set(operation["x-problems"])
        source = os.path.join(os.path.dirname(__file__), "../../../station/http/ApiProblem.cpp")
        with open(source, encoding="utf-8") as file:
            known = set(re.findall(r'^    \{"([a-z-]+)", \d', file.read(), re.M))
        self.assertEqual(listed, known)
        self.assertIsNone(find_operation("GET", "/nothing"))


class Crowd(unittest.TestCase):
    def test_beam_off_is_answered_beside_a_crowd(self):
        with Station() as board:
            board.ready()
            watchers = [Events() for _ in range(50)]
            for watcher in watchers:
                self.assertEqual("state", watcher.next()[0])
            clients = [send("") for _ in range(200)]
            clients += [send(f"POST /off HTTP/1.1\r\n{HEAD}Content-Type: application/json\r\nContent-Len")
                        for _ in range(50)]
            seconds = []
            for _ in range(10):
                self.assertEqual(200, request("POST", "/level", {"level": "motion"}).status)
                begun = time.monotonic()
                answer = request("POST", "/off", {})
                seconds.append(time.monotonic() - begun)
                self.assertEqual(200, answer.status)
                board.wait_for(lambda state: state["guard"]["level"] == "dark" and state["guard"]["beam_seen_off"],
                               "the beam is off")
            print("beam off beside the crowd, ms:", [round(1000 * each, 1) for each in sorted(seconds)])
            self.assertLess(sorted(seconds)[len(seconds) // 2], 0.1)
            for watcher in watchers:
                watcher.until(lambda name, data: name == "journal" and data["text"] == "beam off")
                watcher.close()
            for client in clients:
                client.close()

    def test_every_watcher_is_told_where_as_many_watch_as_may(self):
        with Station(camera=False) as board:
            board.ready()
            watchers = [Events() for _ in range(64)]
            levels = [watcher.until(lambda name, data: name == "state")["guard"]["level"] for watcher in watchers]
            self.assertEqual(["dark"] * 64, levels)

            self.assertEqual(200, request("POST", "/level", {"level": "motion"}).status)
            for watcher in watchers:
                watcher.until(lambda name, data: name == "state" and data["guard"]["level"] == "motion")
            self.assertEqual(200, request("POST", "/off", {}).status)
            ids = [watcher.until(lambda name, data: name == "journal" and data["text"] == "beam off")["id"]
                   for watcher in watchers]

            self.assertEqual(1, len(set(ids)))
            for watcher in watchers:
                watcher.close()

    def test_more_connections_than_there_is_room_for(self):
        with Station(camera=False, guard=False, controller=False):
            clients = [send("") for _ in range(500)]
            self.assertEqual(200, request("GET", "/healthz").status)
            gone = 0
            for client in clients:
                client.setblocking(False)
                try:
                    gone += client.recv(1) == b""
                except BlockingIOError:
                    pass
                client.close()
            self.assertGreaterEqual(gone, 100)

    def test_watchers_have_a_bound(self):
        with Station(camera=False, guard=False, controller=False):
            watchers = [Events() for _ in range(64)]
            self.assertEqual("full", request("GET", "/events").problem)
            watchers.pop().close()
            wait_until(lambda: request_events() == 200, "a place is free")
            for watcher in watchers:
                watcher.close()


def request_events():
    client = send(f"GET /events HTTP/1.1\r\n{HEAD}\r\n")
    status = int(client.recv(65536).split()[1])
    client.close()
    return status


if __name__ == "__main__":
    unittest.main()

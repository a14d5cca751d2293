"""Page and operator's interface under one origin, behind the shipped nginx configuration."""

import contextlib
import http.client
import json
import os
import shutil
import unittest

from harness import CARD, SOURCE, wait_until
from test_job import make_job
from test_reverse_proxy import AUTHORIZATION, PORT, TRUSTING, Proxy
from station import TOKEN, Station, check_answer

ORIGIN = "https://arm.example"
BEARER = {"Host": "arm.example", "Authorization": f"Bearer {TOKEN}"}


def open_request(method, path, headers, body=None):
    connection = http.client.HTTPSConnection("127.0.0.1", PORT, timeout=30, context=TRUSTING)
    connection.request(method, path, headers=headers, body=body)
    return connection, connection.getresponse()


def request(method, path, headers, body=None):
    connection, response = open_request(method, path, headers, body)
    with contextlib.closing(connection):
        text = response.read()
    if path.startswith("/arm/") and response.headers["Content-Type"] != "text/html":  # else nginx's own
        check_answer(method, path[len("/arm"):].split("?")[0], response.status, response.headers["Content-Type"], text)
    return response, text


def post(path, document, **headers):
    return request("POST", path, {**BEARER, "Content-Type": "application/json", **headers}, json.dumps(document))


class OneOrigin(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.board = Station(camera=False)
        cls.addClassCleanup(cls.board.close)
        cls.proxy = Proxy()
        cls.addClassCleanup(cls.proxy.close)
        shutil.copytree(f"{SOURCE}/www", f"{CARD}/www", dirs_exist_ok=True)
        cls.board.ready()

    def test_page_asks_for_the_password_and_the_interface_for_its_token(self):
        with open(f"{SOURCE}/www/index.html", "rb") as file:
            self.assertEqual(file.read(), request("GET", "/", AUTHORIZATION)[1])
        self.assertEqual(401, request("GET", "/", BEARER)[0].status)
        self.assertEqual(200, request("GET", "/arm/healthz", {})[0].status)
        self.assertEqual(200, request("GET", "/arm/state", BEARER)[0].status)
        for headers in ({}, AUTHORIZATION, {"Authorization": "Bearer " + "0" * 32}):
            response, body = request("GET", "/arm/state", headers)
            self.assertEqual((401, "Bearer"), (response.status, response.headers["WWW-Authenticate"]))
            self.assertEqual("urn:problem:kestrel:unauthorized", json.loads(body)["type"])

    def test_page_changes_things_and_other_sites_pages_do_not(self):
        response, body = post("/arm/level", {"level": "motion"}, Origin=ORIGIN)
        self.assertEqual((200, "motion"), (response.status, json.loads(body)["guard"]["level"]))
        self.assertEqual(200, post("/arm/off", {}, Origin=ORIGIN)[0].status)
        for headers in ({"Origin": "https://evil.example"}, {"Origin": "null"},
                        {"Origin": ORIGIN, "Sec-Fetch-Site": "cross-site"},
                        {"Host": "evil.example", "Origin": "https://evil.example"}):
            with self.subTest(headers):
                self.assertEqual(403, post("/arm/off", {}, **headers)[0].status)

    def test_only_the_interface_takes_a_change(self):
        for path in ("/", "/camera?focus=1", "/armed", "/arm"):
            self.assertEqual(405, request("POST", path, AUTHORIZATION, b"{}")[0].status, path)
        for method in ("PUT", "DELETE", "OPTIONS"):
            self.assertEqual(405, request(method, "/arm/off", BEARER)[0].status, method)

    def test_job_is_uploaded_and_one_that_is_too_large_is_not(self):
        headers = {**BEARER, "Content-Type": "application/octet-stream", "Origin": ORIGIN}
        text = "".join(line + "\n" for line in make_job(30000)).encode()
        response, body = request("POST", "/arm/jobs?name=a.gcode&replace=true", headers, text)
        self.assertEqual((201, len(text)), (response.status, json.loads(body)["size"]))
        self.assertEqual(text, request("GET", "/arm/jobs/a.gcode/file", BEARER)[1])
        response, _ = request("POST", "/arm/jobs?name=b.gcode", {**headers, "Content-Length": str((32 << 20) + 1)}, b"")
        self.assertEqual(413, response.status)

    def test_events_come_at_once(self):
        connection, response = open_request("GET", "/arm/events", BEARER)
        with contextlib.closing(connection):
            self.assertEqual("text/event-stream", response.headers["Content-Type"])
            self.assertEqual(b"event: state\n", response.readline())
            wait_until(lambda: self.board.state()["guard"]["beam_seen_off"], "a level can be raised")
            post("/arm/level", {"level": "motion"}, Origin=ORIGIN)
            line = b""
            while b"level motion" not in line:
                line = response.readline()
                self.assertTrue(line, "the stream has ended")
            response.close()
        self.assertEqual(200, post("/arm/off", {}, Origin=ORIGIN)[0].status)
        self.assertTrue(os.path.exists(self.board.path("journal.jsonl")))


if __name__ == "__main__":
    unittest.main()

"""The operator's interface with the arm: levels, beam off, moves, events; both languages."""

import hashlib
import signal
import time
import unittest

from harness import request as page_request
from harness import wait_until
from station import Events, Station, request


def send_firmware(image, announced=None):
    announced = image if announced is None else announced
    digest = hashlib.sha256(announced).hexdigest()
    return request("POST", f"/firmware?size={len(announced)}&sha256={digest}", image)


def metrics():
    """Values as they are written, by name with labels."""
    lines = request("GET", "/metrics").body.decode().splitlines()
    return dict(line.rsplit(" ", 1) for line in lines if not line.startswith("#"))


def trips():
    """How often, by reason."""
    return {name.split('"')[1]: int(value) for name, value in metrics().items()
            if name.startswith("kestrel_trips_total")}


class Arm(unittest.TestCase):
    language = ""

    @classmethod
    def setUpClass(cls):
        cls.board = Station(cls.language)
        cls.board.ready()

    @classmethod
    def tearDownClass(cls):
        cls.board.close()

    def setUp(self):
        self.board.wait_for(lambda state: state["guard"]["beam_seen_off"], "the beam is seen off")
        request("POST", "/level", {"level": "dark"})

    def place(self):
        state = self.board.controller_state()
        return tuple(float(state[axis]) for axis in ("x", "y", "z"))

    def wait_for_place(self, place):
        wait_until(lambda: all(abs(a - b) < 0.02 for a, b in zip(self.place(), place)), f"the arm is at {place}")

    def test_nothing_is_missing_but_the_plugin(self):
        state = self.board.wait_for(lambda now: now["camera"]["present"], "pictures come")

        self.assertEqual(["vision"], [each["what"] for each in state["missing"]])
        self.assertEqual("dark", state["guard"]["level"])
        self.assertEqual((640, 480), (state["camera"]["width"], state["camera"]["height"]))

    def test_level_is_raised_and_dropped(self):
        self.assertEqual("motion", request("POST", "/level", {"level": "motion"}).json["guard"]["level"])
        self.assertEqual("motion", request("POST", "/level", {"level": "motion"}).json["guard"]["level"])
        self.assertEqual("dark", request("POST", "/level", {"level": "dark"}).json["guard"]["level"])
        self.assertEqual("dark", request("POST", "/level", {"level": "dark"}).json["guard"]["level"])

    def test_homes_moves_and_jogs(self):
        self.assertIs(True, self.board.homed()["guard"]["homed"])
        self.assertEqual(200, request("POST", "/move", {"x": 10, "y": -5.5, "z": 0, "feed": 3000}).status)
        self.wait_for_place((10, -5.5, 0))
        self.assertEqual(200, request("POST", "/jog", {"x": 1, "z": -0.5, "feed": 3000}).status)
        self.wait_for_place((11, -5.5, -0.5))
        self.assertEqual(200, request("POST", "/jog", {"y": 0.5, "feed": 3000}).status)
        self.wait_for_place((11, -5, -0.5))
        self.assertEqual(200, request("POST", "/move", {"z": 0, "feed": 3000}).status)
        self.wait_for_place((11, -5, 0))

    def test_moves_are_refused_with_a_reason(self):
        self.assertEqual("level", request("POST", "/home", {}).problem)
        self.assertEqual("level", request("POST", "/move", {"x": 1, "feed": 1000}).problem)
        self.assertEqual("level", request("POST", "/jog", {"x": 1, "feed": 1000}).problem)
        self.board.homed()
        self.assertEqual("refused", request("POST", "/move", {"x": 101, "feed": 1000}).problem)
        self.assertEqual("refused", request("POST", "/move", {"x": 1, "feed": 6001}).problem)
        self.assertEqual("refused", request("POST", "/jog", {"x": -150, "feed": 1000}).problem)
        self.assertEqual(200, request("POST", "/move", {"x": 1, "feed": 1000}).status)
        for body in ({"feed": 1000}, {"x": 1}, {"x": "1", "feed": 1000}, {"x": 1, "feed": 0}, {"x": 1e9, "feed": 1},
                     {"x": 1, "feed": 1000, "a": 1}):
            self.assertEqual("bad-request", request("POST", "/move", body).problem)

    def test_off_stops_a_move_and_is_told(self):
        self.board.homed()
        events = Events()
        self.assertEqual("motion", events.next()[1]["guard"]["level"])
        self.assertEqual(200, request("POST", "/jog", {"x": 50, "feed": 300}).status)
        self.assertEqual(200, request("POST", "/off", {}).status)
        told = []

        def both(name, data):
            if name == "state" and data["guard"]["level"] == "dark" and data["guard"]["homed"] is False:
                told.append("dark")
            elif name == "journal" and data["source"] == "guard":
                told.append(data["text"])
            return {"dark", "trip: operator"} <= set(told)
        events.until(both)
        events.close()
        self.board.wait_for(lambda now: now["guard"]["beam_seen_off"], "the beam is seen off")

    def test_reset_and_unlock(self):
        self.assertEqual(200, request("POST", "/reset", {}).status)
        self.board.wait_for(lambda now: now["guard"]["beam_seen_off"], "the beam is seen off")
        self.assertEqual(200, request("POST", "/unlock", {}).status)
        request("POST", "/level", {"level": "motion"})
        self.assertEqual("level", request("POST", "/unlock", {}).problem)

    def test_journal_is_kept_and_given_out_in_parts(self):
        request("POST", "/level", {"level": "motion"})
        entries = request("GET", "/journal?limit=1000").json["entries"]
        self.assertIn(("operator", "level motion"), [(each["source"], each["text"]) for each in entries])
        self.assertEqual(sorted(each["id"] for each in entries), [each["id"] for each in entries])
        last = request("GET", "/journal?limit=2").json["entries"]
        self.assertEqual(2, len(last))
        behind = request("GET", f"/journal?after={last[0]['id']}").json["entries"]
        self.assertEqual(last[1]["id"], behind[0]["id"])
        for query in ("limit=0", "limit=1001", "after=x", "after=-1"):
            self.assertEqual("bad-request", request("GET", f"/journal?{query}").problem)

    def test_events_go_on_behind_the_last_one_seen(self):
        last = request("GET", "/journal?limit=1").json["entries"][0]["id"]
        request("POST", "/level", {"level": "motion"})
        events = Events({"Last-Event-ID": str(last)})
        told = events.until(lambda name, data: name == "journal")
        self.assertEqual(last + 1, told["id"])
        events.close()

    def test_metrics_are_prometheus_text(self):
        self.board.wait_for(lambda state: state["camera"]["present"], "pictures come")
        request("POST", "/level", {"level": "motion"})
        text = request("GET", "/metrics").body.decode()
        for line in text.splitlines():
            self.assertRegex(
                line, r"""^(# (HELP|TYPE) kestrel_[a-z_]+ .+|kestrel_[a-z_]+(\{reason="[a-z' ]+"\})? \d+)$""")
        values = metrics()
        self.assertEqual(("1", "0", "0"), tuple(values[f"kestrel_{name}"] for name in (
            "guard_present", "level_dark", "job_running")))
        self.assertGreater(int(values["kestrel_camera_pictures_total"]), 0)

    def test_trips_are_counted_by_reason(self):
        request("POST", "/level", {"level": "motion"})
        before = trips()
        self.assertEqual(200, request("POST", "/off", {}).status)
        wait_until(lambda: trips() != before, "the trip is counted")

        self.assertEqual({**before, "operator": before["operator"] + 1}, trips())
        self.assertIn("controller gone", before)

    def test_measurement_without_login_does_nothing(self):
        self.board.homed()
        before = len(self.board.records("rx"))
        _, body = page_request("/camera?focus=1")
        self.assertEqual(b'{"measure":"0.0000"}', body)
        self.assertNotIn("G05", "".join(self.board.records("rx")[before:]))


class Grbl(Arm):
    language = "grbl"

    def test_firmware_is_not_for_this_language(self):
        self.assertEqual("not-supported", send_firmware(b"x" * 1000).problem)


class OwnLanguage(Arm):
    language = "arm"

    def test_firmware_is_taken_whole(self):
        image = bytes(range(256)) * 40
        self.assertEqual("checksum", send_firmware(image, announced=image[:-1]).problem)
        self.assertEqual("bad-request", request("POST", "/firmware?size=1&sha256=0", image).problem)
        request("POST", "/level", {"level": "motion"})
        self.assertEqual("level", send_firmware(image).problem)
        request("POST", "/level", {"level": "dark"})
        answer = send_firmware(image)
        self.assertEqual((200, len(image)), (answer.status, answer.json["size"]))
        wait_until(lambda: f"firmware taken {len(image)}" in [each["text"] for each in request(
            "GET", "/journal").json["entries"]], "it is taken")


class ComingAndGoing(unittest.TestCase):
    def test_guard_and_controller_come_later_and_again(self):
        with Station(guard=False, controller=False) as board:
            board.start_guard()
            state = board.wait_for(lambda state: state["terminal"] and state["guard"]["controller"] is False,
                                   "the guard is there")
            self.assertIn("Plug the motion controller in, and switch it on. "
                          "The guard cannot open it: No such file or directory.",
                          [each["action"] for each in state["missing"]])
            board.start_controller()
            board.ready()
            board.stop_guard()
            state = board.wait_for(lambda now: not now["guard"]["present"], "the guard is gone")
            self.assertIn("guard", [each["what"] for each in state["missing"]])
            board.wait_for(lambda now: not now["terminal"], "the terminal is closed")
            board.start_guard()
            board.homed()
            self.assertEqual(200, request("POST", "/move", {"x": 2, "feed": 2000}).status)

    def test_station_ends_dark_and_its_journal_goes_on(self):
        with Station() as board:
            board.homed()
            last = request("GET", "/journal?limit=1").json["entries"][0]["id"]

            begun = time.monotonic()
            self.assertEqual(0, board.stop(signal.SIGTERM))
            self.assertLess(time.monotonic() - begun, 9)
            board.start()

            state = board.wait_for(lambda now: now["guard"]["present"], "the guard is found")
            self.assertEqual("dark", state["guard"]["level"])
            entries = request("GET", f"/journal?after={last}").json["entries"]
            self.assertEqual(last + 1, entries[0]["id"])
            self.assertIn("ended", [each["text"] for each in entries])


del Arm  # of no language: nothing to run

if __name__ == "__main__":
    unittest.main()

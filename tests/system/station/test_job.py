"""Jobs by the operator's interface: kept, checked, run, held, stopped, interrupted; both languages."""

import math
import os
import re
import signal
import threading
import time
import unittest

from harness import wait_until
from station import Station, request

LONG = int(os.environ.get("KESTREL_JOB_LINES", "1000"))  # of the long job
HEAD = ["G21", "G90", "G54", "M3 S100"]
END = ["M5"]


def make_job(lines):
    """A job of about so many lines: short chords around circles, in the box, beam on."""
    text = HEAD + ["G1 X0 Y0 F6000"]
    for number in range(lines - len(HEAD) - len(END) - 1):
        angle = number / 50 * math.pi
        text.append(f"G1 X{10 * math.sin(angle):.3f} Y{10 - 10 * math.cos(angle):.3f}")
    return text + END


def upload(name, lines, query=""):
    return request("POST", f"/jobs?name={name}{query}", "".join(line + "\n" for line in lines).encode())


class Owner:
    """Starts a job and renews its lease until it is closed, as a page or a command line does."""

    def __init__(self, name, **options):
        self.answer = request("POST", f"/jobs/{name}/start", options)
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.renew)
        if self.answer.status == 200:
            self.thread.start()

    def renew(self):
        while not self.ended.wait(2):
            request("POST", "/job/lease", {"lease": self.answer.json["lease"]})

    def close(self):
        self.ended.set()
        if self.thread.is_alive():
            self.thread.join()


class Job(unittest.TestCase):
    language = ""

    def setUp(self):
        self.board = Station(self.language, controller_options=self.controller_options)
        self.addCleanup(self.board.close)
        self.board.homed()
        self.board.wait_for(lambda state: state["camera"]["present"], "pictures come")

    controller_options = ()

    def own(self, name, **options):
        owner = Owner(name, **options)
        self.addCleanup(owner.close)
        self.assertEqual(200, owner.answer.status, owner.answer.body)
        return owner

    def wait_for_line(self, line):
        return self.board.wait_for(lambda state: state["job"] is None or state["job"]["line"] >= line,
                                   f"line {line} is through", 120 + LONG / 10)

    def wait_for_end(self, deadline=120):
        return self.board.wait_for(lambda state: state["job"] is None, "the job is over", deadline)["last_job"]

    def executed(self, since):
        """Blocks that the controller has taken, without what the guard sends of itself."""
        blocks = []
        for text in self.board.taken()[since:]:
            line = text.strip()
            if line and not re.fullmatch(r"\$\$|\$#|\$H|\$X|\?|!|~|0x18|M18.*|\(\)|G4 ?P0(\.0+)?", line):
                blocks.append(line)
        return blocks

    def test_runs_to_its_end_and_every_block_is_carried_out_once(self):
        lines = make_job(300)
        self.assertEqual(201, upload("circle.gcode", lines).status)
        since = len(self.board.records("rx"))
        self.own("circle.gcode")
        last = self.wait_for_end()

        self.assertEqual(("done", 300, None), (last["result"], last["line"], last["reason"]))
        state = self.board.ready()
        self.assertEqual("dark", state["guard"]["level"])
        blocks = self.executed(since)
        self.assertEqual([line.replace(" ", "") for line in lines],
                         [block.replace(" ", "") for block in blocks][:300])
        self.assertLessEqual(set(blocks[300:]), {"M5"})

    def test_arm_is_free_as_soon_as_the_job_is_told_to_be_over(self):
        upload("circle.gcode", make_job(3000))
        for path in ("/off", "/job/stop"):
            self.own("circle.gcode")
            self.wait_for_line(20)
            self.assertEqual(200, request("POST", path, {}).status)
            self.wait_for_end()
            self.board.homed()

    def test_is_paused_resumed_and_stopped(self):
        upload("circle.gcode", make_job(3000))
        self.own("circle.gcode")
        self.wait_for_line(20)
        self.assertEqual("operator", request("POST", "/job/pause", {}).json["job"]["held_by"])
        self.board.wait_for(lambda state: state["guard"]["paused"], "it is dark")
        line = self.board.state()["job"]["line"]
        for problem, path in (("busy", "/jobs/circle.gcode/remove"), ("busy", "/jobs/circle.gcode/start")):
            self.assertEqual(problem, request("POST", path, {}).problem)
        self.assertEqual("level", request("POST", "/home", {}).problem)
        self.assertEqual(line, self.board.state()["job"]["line"])
        self.assertEqual("running", request("POST", "/job/resume", {}).json["job"]["status"])
        self.wait_for_line(line + 20)
        self.assertEqual(200, request("POST", "/job/stop", {}).status)
        last = self.wait_for_end()
        self.assertEqual("stopped", last["result"])
        self.assertGreaterEqual(last["line"], line + 20)
        for path in ("pause", "resume", "stop"):
            self.assertEqual("no-job", request("POST", f"/job/{path}", {}).problem)

    def test_lost_camera_holds_it_until_the_operator_resumes(self):
        upload("circle.gcode", make_job(3000))
        self.own("circle.gcode")
        self.wait_for_line(20)
        self.board.camera.ctl("freeze")
        self.board.wait_for(lambda state: state["job"]["held_by"] == "camera", "it is held")
        self.assertEqual("no-camera", request("POST", "/job/resume", {}).problem)
        self.board.camera.ctl("thaw")
        state = self.board.wait_for(lambda now: now["camera"]["present"] and now["guard"]["paused"], "pictures come")
        self.assertEqual("camera", state["job"]["held_by"])
        line = state["job"]["line"]
        self.assertEqual(200, request("POST", "/job/resume", {}).status)
        self.wait_for_line(line + 20)
        self.assertEqual(200, request("POST", "/off", {}).status)
        self.assertEqual("stopped", self.wait_for_end()["result"])

    def test_unattended_goes_on_without_pictures(self):
        upload("circle.gcode", make_job(300))
        self.board.camera.ctl("freeze")
        self.board.wait_for(lambda state: not state["camera"]["present"], "pictures end")
        self.assertEqual("no-camera", request("POST", "/jobs/circle.gcode/start", {}).problem)
        self.own("circle.gcode", unattended=True)
        self.assertEqual("done", self.wait_for_end()["result"])
        self.assertIn("job circle.gcode started UNATTENDED",
                      [each["text"] for each in request("GET", "/journal").json["entries"]])

    def test_closed_page_lets_the_lease_run_out(self):
        upload("circle.gcode", make_job(9000))
        owner = self.own("circle.gcode")
        self.assertEqual("lease", request("POST", "/job/lease", {"lease": "0" * 32}).problem)
        self.wait_for_line(20)
        owner.close()
        last = self.wait_for_end()
        self.assertEqual(("tripped", "lease"), (last["result"], last["reason"]))

    def test_guard_that_dies_in_mid_job_ends_it_and_comes_back(self):
        upload("circle.gcode", make_job(3000))
        for _ in range(4):  # the print service is somewhere else in its line each time
            owner = self.own("circle.gcode", unattended=True)
            self.wait_for_line(20)
            self.board.guard.kill()
            self.board.guard.wait()
            last = self.wait_for_end()
            owner.close()
            self.assertEqual("tripped", last["result"])
            self.board.wait_for(lambda state: not state["terminal"], "the terminal is closed")
            self.board.start_guard()
            self.board.homed()

    def test_guard_that_dies_under_a_move_ends_it(self):
        for _ in range(4):
            answers = []
            place = self.board.controller_state()["x"]
            move = threading.Thread(target=lambda answers=answers: answers.append(
                request("POST", "/move", {"x": 60, "feed": 300})))
            move.start()
            wait_until(lambda before=place: self.board.controller_state()["x"] != before, "the arm moves")
            self.board.guard.kill()
            self.board.guard.wait()
            move.join()
            self.assertEqual("stopped", answers[0].problem)
            self.board.wait_for(lambda state: not state["terminal"], "the terminal is closed")
            self.board.start_guard()
            self.board.homed()

    def test_restart_in_mid_job_is_dark_and_tells_the_line(self):
        lines = make_job(3000)
        upload("circle.gcode", lines)
        since = len(self.board.records("rx"))
        owner = self.own("circle.gcode")
        self.wait_for_line(50)
        owner.ended.set()
        self.board.stop(signal.SIGKILL)
        self.board.start()
        state = self.board.wait_for(lambda now: now["guard"]["present"] and now["guard"]["level"] == "dark"
                                    and now["guard"]["beam_seen_off"], "it is dark")
        self.assertIsNone(state["job"])
        last = state["last_job"]
        self.assertEqual(("interrupted", "circle.gcode", 3000), (last["result"], last["name"], last["lines"]))
        self.assertGreaterEqual(last["line"], 50)
        self.assertIn(f"job circle.gcode was interrupted behind line {last['line']} of 3000",
                      [each["text"] for each in request("GET", "/journal").json["entries"]])
        blocks = self.executed(since)
        taken = len([block for block in blocks if block != "M5"])
        self.assertIn(taken - last["line"], (0, 1))  # one may have been under way
        self.assertEqual(blocks, self.executed(since))
        time.sleep(2)  # nothing begins by itself: there is no event for what does not happen
        self.assertEqual(blocks, self.executed(since))
        self.board.homed()
        self.own("circle.gcode")
        self.wait_for_line(20)
        request("POST", "/job/stop", {})

    def offered(self):
        """Where the last job can go on."""
        return self.board.wait_for(lambda state: state["last_job"]["restart"], "it is offered")["last_job"]["restart"]

    def test_restarted_station_offers_the_line_and_a_person_goes_on_there(self):
        lines = make_job(400)
        upload("circle.gcode", lines)
        owner = self.own("circle.gcode")
        self.wait_for_line(100)
        owner.ended.set()
        self.board.stop(signal.SIGKILL)
        self.board.start()
        last = self.board.ready()["last_job"]
        restart = self.offered()
        line = last["line"] + 1
        self.assertEqual((line, None), (restart["line"], restart["reason"]))
        self.assertEqual(line - 18, restart["unsure_from"])
        self.board.homed()
        self.board.wait_for(lambda state: state["camera"]["present"], "pictures come")
        records = len(self.board.log())
        since = len(self.board.taken())
        answer = self.own("circle.gcode", line=line).answer
        self.assertEqual(line, answer.json["state"]["job"]["begun_at"])
        self.assertEqual((400, "circle.gcode"), tuple(answer.json["state"]["job"][key] for key in ("lines", "name")))
        last = self.wait_for_end()

        self.assertEqual(("done", 400, None), (last["result"], last["line"], last["restart"]))
        blocks = [block.replace(" ", "") for block in self.executed(since)]
        rest = [each.replace(" ", "") for each in lines[line - 1:]]
        place = lines[line - 2].split(" ", 1)[1]
        setup = [each.replace(" ", "") for each in ("M5", "G21 G90 G17 G54", f"G0 {place} F6000", "M3 S100")]
        # The controller's numbers are those of the file, as short as they can be said.
        self.assertEqual([self.shorten(each) for each in setup + rest],
                         [self.shorten(each) for each in blocks[:len(setup + rest)]])
        self.assertLessEqual(set(blocks[len(setup + rest):]), {"M5"})
        before = []  # what the beam did until it was switched on again
        for kind, text in self.board.log()[records:]:
            if kind == "rx" and text.replace(" ", "") == "M3S100":
                break
            before += [text] if kind == "beam" else []
        self.assertEqual([], [text for text in before if "on=1" in text])

    @staticmethod
    def shorten(block):
        return re.sub(r"(?<=[A-Z])-?\d+(\.\d+)?", lambda number: f"{float(number[0]) + 0:g}", block)

    def test_line_that_cannot_be_begun_at_is_refused(self):
        upload("shifted.gcode", ["G21", "G91", "G0 X1", "G0 X1", "M5"])
        self.own("shifted.gcode")
        self.assertEqual("done", self.wait_for_end()["result"])
        for line, problem in ((0, "bad-request"), ("2", "bad-request"), (1.5, "bad-request"), (-1, "bad-request"),
                              (6, "restart"), (4, "restart")):
            with self.subTest(line):
                self.assertEqual(problem, request("POST", "/jobs/shifted.gcode/start", {"line": line}).problem)

    def test_offer_goes_with_its_file(self):
        upload("circle.gcode", make_job(3000))
        self.own("circle.gcode")
        self.wait_for_line(20)
        request("POST", "/job/stop", {})
        last = self.wait_for_end()
        self.assertEqual("stopped", last["result"])
        self.assertEqual(last["line"] + 1, self.offered()["line"])
        upload("circle.gcode", make_job(30), "&replace=true")
        self.board.wait_for(lambda state: state["last_job"]["restart"]["reason"] ==
                            "the file of that name is another now", "the offer is withdrawn")
        request("POST", "/jobs/circle.gcode/remove", {})
        self.board.wait_for(lambda state: state["last_job"]["restart"]["reason"] ==
                            "the file is not there any more", "the reason changes")

    def hold(self):
        """The button at the machine."""
        self.board.control.ask("hold")
        self.board.wait_for(lambda state: state["job"]["held_by"] == "controller", "the hold is told")

    def go(self):
        if self.language == "grbl":  # which drops the button's "go" while it still slows down
            wait_until(lambda: self.board.controller_state()["state"] == "Hold:0", "it stands")
        self.board.control.ask("go")
        self.board.wait_for(lambda state: state["job"]["held_by"] is None, "its end is told")

    def test_controller_hold_and_its_end_are_told(self):
        upload("circle.gcode", make_job(3000))
        self.own("circle.gcode")
        self.wait_for_line(20)
        self.hold()
        self.assertEqual("held", self.board.state()["job"]["status"])
        self.go()
        line = self.board.state()["job"]["line"]
        self.wait_for_line(line + 40)
        texts = [each["text"] for each in request("GET", "/journal").json["entries"] if each["source"] == "guard"]
        self.assertEqual(["held", "goes on"], [text for text in texts if text in ("held", "goes on")])
        request("POST", "/job/stop", {})
        self.wait_for_end()

    def test_long_job_with_pauses_a_hold_and_a_lost_camera(self):
        lines = make_job(LONG)
        upload("long.gcode", lines)
        since = len(self.board.taken())
        self.own("long.gcode")
        for line in (LONG // 20, LONG // 4):
            self.wait_for_line(line)
            self.assertEqual(200, request("POST", "/job/pause", {}).status)
            self.board.wait_for(lambda state: state["guard"]["paused"], "it is dark")
            self.assertEqual(200, request("POST", "/job/resume", {}).status)
        self.wait_for_line(LONG // 3)
        self.hold()
        self.go()
        self.wait_for_line(LONG // 2)
        self.board.camera.ctl("freeze")
        lost = time.monotonic()
        self.board.wait_for(lambda state: state["job"]["held_by"] == "camera" and state["guard"]["paused"],
                            "it is held")
        wait_until(lambda: time.monotonic() > lost + 3, "the camera was lost for 3 s")
        self.board.camera.ctl("thaw")
        self.board.wait_for(lambda state: state["camera"]["present"], "pictures come")
        self.assertEqual(200, request("POST", "/job/resume", {}).status)
        last = self.wait_for_end(60 + LONG / 10)
        self.assertEqual(("done", LONG, None), (last["result"], last["line"], last["reason"]))
        blocks = [block.replace(" ", "") for block in self.executed(since)]
        self.assertEqual([line.replace(" ", "") for line in lines], blocks[:LONG])
        self.assertLessEqual(set(blocks[LONG:]), {"M5"})


class Grbl(Job):
    language = "grbl"


class OwnLanguage(Job):
    language = "arm"


class Files(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.board = Station(camera=False, guard=False, controller=False)

    @classmethod
    def tearDownClass(cls):
        cls.board.close()

    def test_kept_listed_drawn_and_removed(self):
        lines = make_job(100)
        job = upload("a.gcode", lines).json
        self.assertIs(True, job["check"]["passes"], job["check"])
        self.assertEqual(100, job["check"]["lines"])
        self.assertEqual("exists", upload("a.gcode", lines).problem)
        self.assertEqual(201, upload("a.gcode", lines, "&replace=true").status)
        upload("b.gcode", ["G28"])
        jobs = request("GET", "/jobs").json["jobs"]
        self.assertEqual([("a.gcode", True), ("b.gcode", False)], [(each["name"], each["passes"]) for each in jobs])
        self.assertEqual("".join(line + "\n" for line in lines).encode(), request("GET", "/jobs/a.gcode/file").body)
        self.assertIn(b"<svg", request("GET", "/jobs/a.gcode/picture").body)
        self.assertEqual(job["sha256"], request("GET", "/jobs/a.gcode").json["sha256"])
        self.assertEqual(200, request("POST", "/jobs/b.gcode/check", {}).status)
        self.assertEqual("job-refused", request("POST", "/jobs/b.gcode/start", {}).problem)
        left = request("POST", "/jobs/b.gcode/remove", {}).json["jobs"]
        self.assertEqual(["a.gcode"], [each["name"] for each in left])
        self.assertEqual("not-found", request("GET", "/jobs/b.gcode").problem)

    def test_what_is_no_file_is_refused(self):
        for query, body, problem in (("name=../a", b"G21\n", "bad-request"), ("name=.a", b"G21\n", "bad-request"),
                                     ("name=", b"G21\n", "bad-request"), ("name=c&replace=1", b"G21\n", "bad-request"),
                                     ("name=c", b"", "bad-request"), ("name=" + "c" * 65, b"G21\n", "bad-request")):
            with self.subTest(query):
                self.assertEqual(problem, request("POST", f"/jobs?{query}", body).problem)
        self.assertEqual("media-type", request("POST", "/jobs?name=c", {}).problem)
        self.assertEqual("not-found", request("GET", "/jobs/..%2Ftoken/file").problem)
        self.assertEqual("not-found", request("GET", "/jobs/../token").problem)

    def test_large_file(self):
        line = b"G21 (" + b"x" * 248 + b")\n"  # as long as a line may be: a short one costs as much time
        text = (line * ((32 << 20) // len(line) + 1))[:32 << 20]
        answer = request("POST", "/jobs?name=large", text, timeout=300)
        self.assertEqual(201, answer.status)
        self.assertEqual(32 << 20, answer.json["size"])
        self.assertEqual("too-large", request("POST", "/jobs?name=larger", b"", headers={
            "Content-Length": str((32 << 20) + 1)}).problem)
        request("POST", "/jobs/large/remove", {})

    def test_without_a_machine_nothing_starts(self):
        upload("d.gcode", make_job(20))
        self.assertEqual("no-camera", request("POST", "/jobs/d.gcode/start", {}).problem)
        self.assertEqual("no-guard", request("POST", "/jobs/d.gcode/start", {"unattended": True}).problem)
        self.assertEqual("bad-request", request("POST", "/jobs/d.gcode/start", {"unattended": 1}).problem)


del Job  # of no language: nothing to run

if __name__ == "__main__":
    unittest.main()

"""scripts/run station as a newcomer meets it: one command, and a job can be burnt on the virtual board."""

import json
import os
import re
import shutil
import signal
import unittest
import urllib.error
import urllib.request

import test_run
from harness import BUILD, CARD, HTTP_PORT, SOURCE, listening, wait_until
from harness import request as page_request

STATION_PORT = 8330


class RunStation(unittest.TestCase):
    start = test_run.Run.start
    end = test_run.Run.end
    until_running = test_run.Run.until_running
    assert_refused = test_run.Run.assert_refused

    def setUp(self):
        self.checkout = test_run.Checkout()
        self.addCleanup(shutil.rmtree, self.checkout.folder)
        self.addCleanup(wait_until, lambda: not listening(HTTP_PORT) and not listening(STATION_PORT),
                        "the station has gone")
        os.makedirs(f"{self.checkout.folder}/station")
        shutil.copy(f"{SOURCE}/station/demonstration.gcode", f"{self.checkout.folder}/station")
        self.token = ""

    def run_station(self):
        """What it has printed, once it runs."""
        run = self.start("station")
        lines = "".join(self.until_running(run))
        self.token = re.search(r"^token: +([0-9a-f]{32})$", lines, re.M).group(1)
        return run, lines

    def ask(self, path, document=None):
        """GET, or POST of a document."""
        headers = {"Authorization": f"Bearer {self.token}", "Content-Type": "application/json"}
        body = None if document is None else json.dumps(document).encode()
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(urllib.request.Request(f"http://127.0.0.1:{STATION_PORT}{path}", body, headers),
                         timeout=100) as answer:
            return json.load(answer)

    def until(self, condition, what):
        def fulfilled():
            state = self.ask("/state")
            return state if condition(state) else None
        return wait_until(fulfilled, what, 120)

    def test_demonstration_lies_ready_and_runs_to_its_end(self):
        _, lines = self.run_station()
        self.assertIn("job:           demonstration.gcode lies ready\n", lines)
        self.assertTrue(lines.endswith("running:       http://127.0.0.1:8329/index.html (Ctrl-C ends it)\n"), lines)
        with open(f"{SOURCE}/www/index.html", "rb") as file:
            self.assertEqual(file.read(), page_request("/index.html")[1])
        state = self.until(lambda now: now["guard"]["beam_seen_off"] and now["terminal"] and now["camera"]["present"],
                           "all is there")
        vision = os.path.exists(f"{BUILD}/plugin/libframe_process.so")
        self.assertEqual([] if vision else ["vision"], [each["what"] for each in state["missing"]])
        self.assertEqual("dark", state["guard"]["level"])
        self.assertEqual([("demonstration.gcode", True)],
                         [(each["name"], each["passes"]) for each in self.ask("/jobs")["jobs"]])

        self.ask("/level", {"level": "motion"})
        self.ask("/home", {})
        started = self.ask("/jobs/demonstration.gcode/start", {})

        def ended(now):
            if now["job"]:
                try:
                    self.ask("/job/lease", {"lease": started["lease"]})
                except urllib.error.HTTPError as error:
                    self.assertEqual("urn:problem:kestrel:no-job", json.load(error)["type"])  # ended since
            return now["job"] is None
        last = self.until(ended, "the job is over")["last_job"]
        self.assertEqual(("done", last["lines"]), (last["result"], last["line"]))

    def test_interrupt_ends_everything(self):
        run, _ = self.run_station()
        started = test_run.children(run)

        os.kill(run.pid, signal.SIGINT)

        self.assertEqual(0, run.wait(30))
        self.assertEqual(4, len(started))
        for process in started:
            wait_until(lambda path=f"/proc/{process}": not os.path.exists(path), "the child has gone")

    def test_second_start_has_the_same_token_and_jobs(self):
        run, _ = self.run_station()
        token = self.token
        self.ask("/jobs/demonstration.gcode/remove", {})
        self.end(run)
        wait_until(lambda: not listening(HTTP_PORT) and not listening(STATION_PORT), "the station has gone")

        self.run_station()

        self.assertEqual(token, self.token)
        self.assertEqual(1, len(self.ask("/jobs")["jobs"]))

    def test_taken_port_is_named_with_its_holder(self):
        self.run_station()
        self.assert_refused(self.start("station"), "TCP port 8329 is taken by kestrel-station (process ")

    def test_guard_that_fails_is_told_with_its_last_words(self):
        release = f"{self.checkout.folder}/build/release"
        os.unlink(release)
        os.makedirs(release)
        for name in ("application", "plugin", "simulator", "station", "tools"):
            os.symlink(f"{BUILD}/{name}", f"{release}/{name}")
        test_run.write(f"{release}/guard/kestrel-guard", "#!/bin/sh\necho no luck\nexit 3\n")

        run = self.start("station")
        output = run.communicate(timeout=60)[0]

        self.assertEqual(1, run.returncode, output)
        self.assertIn("no luck\nscripts/run: kestrel-guard did not start", output)
        self.assertTrue(os.path.isdir(f"{CARD}/www"))


if __name__ == "__main__":
    unittest.main()

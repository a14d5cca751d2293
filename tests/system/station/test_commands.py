"""kestrel-arm on a station: its texts, its JSON, its statuses, its keys; and what ends a job's beam."""

import hashlib
import http.client
import http.server
import json
import os
import pty
import signal
import ssl
import stat
import subprocess
import tarfile
import threading
import time
import unittest

from harness import BUILD, wait_until
from station import API, PORT, TOKEN, Station, validate

PLUGINS = os.environ["KESTREL_TEST_PLUGINS"]  # folder of the small plug-ins of tests/videoprocess
ARM = os.environ.get("KESTREL_ARM", f"{BUILD}/station/kestrel-arm")
STATE = API["components"]["schemas"]["State"]


def circle(lines):
    """A job: beam on, moves of a tenth of a millimetre."""
    text = ["G21", "G90", "G54", "M3 S100", "G1 X0 Y0 F3000"]
    text += [f"G1 X10.{i % 2} Y10.{i // 2 % 2}" for i in range(lines - len(text) - 1)]
    return "".join(line + "\n" for line in text + ["M5"])


class Proxy(http.server.BaseHTTPRequestHandler):
    """Passes requests below /arm on to the station."""

    def forward(self):
        station = http.client.HTTPConnection("127.0.0.1", PORT)
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        kept = {name: self.headers[name] for name in ("Authorization", "Content-Type") if name in self.headers}
        station.request(self.command, self.path.removeprefix("/arm"), body or None, kept)
        answer = station.getresponse()
        content = answer.read()
        station.close()
        self.send_response(answer.status)
        for name, value in (("Content-Type", answer.headers["Content-Type"]), ("Content-Length", len(content))):
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(content)

    do_GET = do_POST = forward

    def log_message(self, *_):  # pylint: disable=arguments-differ
        pass


class Bench(unittest.TestCase):
    """A station, and kestrel-arm run against it."""

    language = "grbl"
    plugin = None

    def setUp(self):
        self.errors = ""  # what the last command complained of
        self.board = Station(self.language, plugin=self.plugin)
        self.addCleanup(self.board.close)
        self.board.ready()

    def words(self, *words):
        options = ["--token", self.board.path("token")]
        options += ["--guard", self.board.path("socket")] if words[0] in ("run", "off") else []
        return [ARM, *words, *options]

    def arm(self, *words, status=0, **environment):
        """The command's standard output; it has to end with this status."""
        programs = [f"{BUILD}/{folder}" for folder in ("application", "guard", "station")]
        done = subprocess.run(self.words(*words), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=120, check=False,
                              env={**os.environ, "PATH": ":".join([*programs, os.environ["PATH"]]), **environment})
        self.assertEqual(status, done.returncode, f"{words}: {done.stdout}{done.stderr}")
        self.errors = done.stderr
        return done.stdout

    def job(self, lines):
        with open(self.board.path("job.gcode"), "w", encoding="ascii") as file:
            file.write(circle(lines))
        return self.board.path("job.gcode")

    def ready_for_a_job(self):
        self.board.ready()
        self.arm("level", "motion")
        # The arm stays in use until the print service has ended the job before.
        wait_until(lambda: subprocess.run(self.words("home"), capture_output=True, check=False).returncode == 0,
                   "the arm is homed")
        self.board.wait_for(lambda state: state["camera"]["present"], "pictures come")

    def wait_for_beam(self):
        wait_until(lambda: self.board.controller_state()["laser"] == "1", "the beam is on")

    def wait_for_end(self):
        return self.board.wait_for(lambda state: state["job"] is None, "the job is over")["last_job"]

    def background(self, *words):
        """The command, left to itself; killed at the test's end."""
        process = subprocess.Popen(self.words(*words), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process


class Commands(Bench):
    def test_arm_is_raised_homed_moved_and_reset(self):
        self.assertRegex(self.arm("status"), r"(?m)^level +dark$")
        self.assertEqual("level motion, arm not homed, beam seen off\n", self.arm("level", "motion"))
        self.assertEqual("level motion, arm homed, beam seen off\n", self.arm("home"))
        self.arm("move", "--x", "10", "--y", "-5.5", "--z", "0", "--feed", "3000")
        state = json.loads(self.arm("jog", "--z", "-0.5", "--feed", "3000", "--json"))
        validate(state, STATE)
        wait_until(lambda: all(abs(float(self.board.controller_state()[axis]) - place) < 0.02
                               for axis, place in (("x", 10), ("y", -5.5), ("z", -0.5))), "the arm is there")
        validate(json.loads(self.arm("status", "--json")), STATE)
        self.arm("reset")
        self.assertRegex(self.arm("status"), r"(?m)^arm +not homed$")
        self.assertIn("operator: level motion\n", self.arm("journal"))
        self.assertIn("level motion", [each["text"] for each in
                                       json.loads(self.arm("journal", "--limit", "50", "--json"))["entries"]])

    def test_lock_behind_an_alarm_is_cleared_and_nothing_else(self):
        self.arm("level", "motion")
        self.arm("home")
        self.assertNotIn("alarm", self.arm("status"))
        self.arm("unlock", status=1)
        self.assertRegex(self.errors, "^kestrel-arm: .*level")
        self.board.control.ask("alarm-now 1")
        self.board.wait_for(lambda state: state["guard"]["alarm"] and state["guard"]["beam_seen_off"], "it is told")
        self.assertRegex(self.arm("status"), r'(?m)^alarm +it stopped the arm: "kestrel-arm unlock" clears the lock$')

        self.assertEqual("level dark, arm not homed, beam seen off\n", self.arm("unlock"))

        wait_until(lambda: "$X" in self.board.records("rx"), "the controller is told")
        state = json.loads(self.arm("unlock", "--json"))
        validate(state, STATE)
        self.assertIs(False, state["guard"]["alarm"])
        self.arm("level", "motion")
        self.assertEqual("level motion, arm homed, beam seen off\n", self.arm("home"))

    def test_refusals_are_told_with_what_to_do(self):
        self.arm("home", status=1)
        self.assertRegex(self.errors, "^kestrel-arm: The level is dark\\. ")
        self.assertEqual("urn:problem:kestrel:no-job", json.loads(self.arm("pause", "--json", status=1))["type"])
        self.arm("move", status=2)
        self.assertEqual("kestrel-arm: say where to: --x, --y, --z\n", self.errors)
        self.arm("level", "job", status=2)

    def test_tokens_and_stations_that_are_none(self):
        with open(self.board.path("wrong"), "w", encoding="ascii") as file:
            file.write("wrong\n")
        for token, status in (("wrong", 2), ("none", 2)):
            done = subprocess.run([ARM, "status", "--token", self.board.path(token)], capture_output=True,
                                  text=True, timeout=60, check=False)
            self.assertEqual((status, ""), (done.returncode, done.stdout), done.stderr)
        self.arm("status", "--url", "http://127.0.0.1:1", status=3)
        self.assertEqual("kestrel-arm: http://127.0.0.1:1 cannot be reached\n", self.errors)
        self.arm("status", "--url", "127.0.0.1:8330", status=2)
        self.assertIn("127.0.0.1:8330 is no URL that can be asked", self.errors)

    def test_station_behind_a_proxy_is_asked_through_tls(self):
        certificate, key = self.board.path("certificate"), self.board.path("key")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost", "-keyout", key, "-out", certificate],
                       check=True, capture_output=True)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, key)
        proxy = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Proxy)
        self.addCleanup(proxy.server_close)
        proxy.socket = context.wrap_socket(proxy.socket, server_side=True)
        thread = threading.Thread(target=proxy.serve_forever)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(proxy.shutdown)
        url = f"https://localhost:{proxy.server_address[1]}/arm/"

        self.assertIn("level motion", self.arm("level", "motion", "--url", url, SSL_CERT_FILE=certificate))

        self.arm("status", "--url", url, status=3)  # the certificate is nobody's that is trusted
        self.assertRegex(self.errors, "^kestrel-arm: https://localhost:.* failed: .*SSL")

    def test_watch_tells_changes_until_the_station_ends(self):
        with subprocess.Popen(self.words("watch"), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True) as watch:
            self.assertRegex(watch.stdout.readline(), "^level dark, ")
            self.arm("level", "motion")
            lines = []
            for told in ("operator: level motion", "guard: level motion", "level motion, "):
                while not any(told in line for line in lines):  # in an order of their own
                    lines.append(watch.stdout.readline())
                    self.assertTrue(lines[-1], lines)
            self.board.stop()
            self.assertEqual(3, watch.wait(60))

    def test_job_runs_to_its_end(self):
        self.ready_for_a_job()

        out = self.arm("run", self.job(200))

        self.assertIn("line 200 of 200", out.splitlines()[-1])
        self.assertTrue(out.endswith("job.gcode done at line 200 of 200\n"), out)
        self.assertEqual("done", self.wait_for_end()["result"])

    def test_job_that_was_stopped_goes_on_at_the_line_that_is_told(self):
        self.ready_for_a_job()
        run = self.background("run", self.job(400))
        self.board.wait_for(lambda state: state["job"] and state["job"]["line"] > 30, "some lines are through")
        self.arm("stop")
        self.assertEqual(1, run.wait(60))
        last = self.board.wait_for(lambda state: state["last_job"]["restart"], "it is offered")["last_job"]
        restart = last["restart"]
        self.assertIn(f'; goes on with "run --line {restart["line"]}", but lines from', self.arm("status"))
        self.ready_for_a_job()

        out = self.arm("run", self.job(400), "--line", str(restart["line"]))

        self.assertTrue(out.endswith("job.gcode done at line 400 of 400\n"), out)
        begun = [entry["text"] for entry in json.loads(self.arm("journal", "--json"))["entries"]
                 if f'line {restart["line"]}' in entry["text"]]
        self.assertTrue(begun, self.arm("journal"))

    def test_running_job_is_told_in_json(self):
        self.ready_for_a_job()

        lines = [json.loads(line) for line in self.arm("run", self.job(200), "--json").splitlines()]

        for line in lines[:-1]:
            validate(line, API["components"]["schemas"]["RunningJob"])
        validate(lines[-1], API["components"]["schemas"]["EndedJob"])
        self.assertEqual(("done", 200), (lines[-1]["result"], lines[-1]["line"]))

    def test_running_job_is_paused_resumed_and_stopped_by_other_commands(self):
        self.ready_for_a_job()
        run = self.background("run", self.job(5000), "--unattended")
        self.wait_for_beam()
        self.assertTrue(self.board.state()["job"]["unattended"])

        self.assertRegex(self.arm("pause"), "held by the operator\n$")
        self.board.wait_for(lambda state: state["guard"]["paused"], "it is dark")
        self.assertRegex(self.arm("resume"), r"line \d+ of 5000")
        self.arm("stop")

        self.assertEqual(1, run.wait(60))
        self.assertEqual("stopped", self.wait_for_end()["result"])

    def test_output_that_nobody_reads_any_more_turns_the_beam_off(self):
        self.ready_for_a_job()
        run = self.background("run", self.job(5000))
        self.wait_for_beam()

        run.stdout.close()

        self.assertEqual(1, run.wait(60))
        self.assertEqual("0", self.board.controller_state()["laser"])
        self.assertIn("nobody reads the output any more: beam off by the station", run.stderr.read())

    def test_support_archive_has_all_but_secrets(self):
        self.board.wait_for(lambda state: state["camera"]["present"], "pictures come")
        with open(self.board.path("more.toml"), "w", encoding="ascii") as file:
            file.write(f'# its token is {TOKEN}\npassword = "not mine" # nor yours\nport = 8330\n')
        configuration = [word for name in ("guard", "station", "more")
                         for word in ("--configuration", self.board.path(f"{name}.toml"))]

        told = json.loads(self.arm("support", self.board.path("out.tar.gz"), "--json", *configuration))

        self.assertEqual(self.board.path("out.tar.gz"), told["file"])
        not_everywhere = ("dmesg", "journalctl", "logread")
        self.assertEqual([], [line for line in told["missing"] if not line.startswith(not_everywhere)])
        self.assertEqual(0o600, stat.S_IMODE(os.stat(told["file"]).st_mode))
        files = self.unpack(told["file"])
        for name in ("arm", "guard", "server", "station"):
            self.assertRegex(files[f"version-{name}.txt"], rb"^kestrel-\w+ \d+\.\d+\.\d+\n$")
        validate(json.loads(files["state.json"]), STATE)
        self.assertIn("journal.json", files)
        self.assertTrue(any(name.startswith("usb-camera.log.") for name in files), files.keys())
        self.assertEqual((b"\xff\xd8", b"\xff\xd9"), (files["snapshot.jpg"][:2], files["snapshot.jpg"][-2:]))
        self.assertIn(b'language = "grbl"', files["guard.toml"])
        self.assertEqual(b'# its token is ***\npassword = "***"\nport = 8330\n', files["more.toml"])
        self.assertFalse([name for name, content in files.items() if TOKEN.encode() in content])
        self.arm("support", told["file"], status=2)  # which is there already

    def test_support_archive_without_a_station_tells_what_is_missing(self):
        out = self.board.path("out.tar.gz")

        self.assertEqual(out + "\n", self.arm("support", out, "--url", "http://127.0.0.1:1"))

        files = self.unpack(out)
        self.assertIn(b"/state: http://127.0.0.1:1 cannot be reached\n", files["missing.txt"])
        self.assertIn("version-guard.txt", files)

    def unpack(self, path):
        with tarfile.open(path) as archive:
            return {os.path.basename(each.name): archive.extractfile(each).read()
                    for each in archive if each.isfile()}

    def test_job_that_does_not_pass_is_not_started(self):
        self.ready_for_a_job()
        with open(self.board.path("bad.gcode"), "w", encoding="ascii") as file:
            file.write("G21\nG1 X500 F100\n")

        out = self.arm("run", self.board.path("bad.gcode"), status=1)

        self.assertEqual(f"{self.board.path('bad.gcode')}:2: outside the box\n", out)
        self.assertIsNone(self.board.state()["last_job"])

    def test_off_is_the_stations_while_it_answers(self):
        self.ready_for_a_job()
        with subprocess.Popen(self.words("run", self.job(5000)), stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as run:
            self.wait_for_beam()

            self.assertEqual("beam off by the station, seen off\n", self.arm("off"))

            self.assertEqual(1, run.wait(60))
        self.assertEqual("0", self.board.controller_state()["laser"])

    def test_interrupt_turns_the_beam_off(self):
        self.ready_for_a_job()
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                self.expect_dark_behind(number)
                self.ready_for_a_job()

    def expect_dark_behind(self, number):
        with subprocess.Popen(self.words("run", self.job(5000)), stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as run:
            self.wait_for_beam()
            begun = time.monotonic()
            run.send_signal(number)
            wait_until(lambda: self.board.controller_state()["laser"] == "0", "the beam is off")
            self.assertLess(time.monotonic() - begun, 2)
            _, errors = run.communicate(timeout=60)
        self.assertEqual(1, run.returncode, errors)
        self.assertIn("beam off by the station, seen off", errors)
        self.assertEqual("stopped", self.wait_for_end()["result"])

    def terminal(self, lines):
        """A job at a terminal: the program and the terminal's other end."""
        self.ready_for_a_job()
        ours, its = pty.openpty()
        # The first terminal that a session's leader opens is its own.
        run = subprocess.Popen(["sh", "-c", 'exec "$@" <"$0" >"$0" 2>&1', os.ttyname(its),
                                *self.words("run", self.job(lines))], start_new_session=True)
        os.close(its)
        self.addCleanup(run.wait)
        self.addCleanup(run.kill)
        self.wait_for_beam()
        return run, ours

    def test_keys_pause_resume_and_stop(self):
        run, ours = self.terminal(5000)
        self.addCleanup(os.close, ours)

        os.write(ours, b" ")
        self.board.wait_for(lambda state: state["job"]["held_by"] == "operator" and state["guard"]["paused"],
                            "it is held")
        wait_until(lambda: b"held by the operator" in os.read(ours, 65536), "the bar tells so")
        os.write(ours, b" ")
        self.board.wait_for(lambda state: state["job"]["status"] == "running", "it goes on")
        os.write(ours, b"s")

        self.assertEqual("stopped", self.wait_for_end()["result"])
        self.assertEqual(1, run.wait(60))

    def test_lost_terminal_turns_the_beam_off(self):
        run, ours = self.terminal(5000)

        os.close(ours)

        self.assertEqual(1, run.wait(60))
        self.assertEqual("stopped", self.wait_for_end()["result"])
        self.assertEqual("0", self.board.controller_state()["laser"])

    def test_station_that_dies_in_a_job_leaves_it_dark(self):
        self.ready_for_a_job()
        with subprocess.Popen(self.words("run", self.job(5000)), stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as run:
            self.wait_for_beam()
            self.board.stop(signal.SIGKILL)
            wait_until(lambda: self.board.controller_state()["laser"] == "0", "the beam is off")
            _, errors = run.communicate(timeout=60)
        self.assertEqual(3, run.returncode, errors)


class Measure(Bench):
    plugin = f"{PLUGINS}/libtest_plugin.so"

    def test_measurement_is_told(self):
        self.ready_for_a_job()

        self.assertEqual("spot at 0.00, 0.00 mm from the picture's centre\n"
                         "homed laser 0.00 mm over its focus; focused\n", self.arm("measure"))
        validate(json.loads(self.arm("measure", "--json")), API["components"]["schemas"]["Measurement"])


class MeasureNothing(Bench):
    plugin = f"{PLUGINS}/libtest_plugin_failing.so"

    def test_spot_that_is_not_found_is_no_success(self):
        self.ready_for_a_job()
        self.assertEqual("no spot found; nothing was moved\n", self.arm("measure", status=1))


class Firmware(Bench):
    language = "arm"

    def test_firmware_is_sent_and_its_end_told(self):
        image = bytes(range(256)) * 40
        with open(self.board.path("image"), "wb") as file:
            file.write(image)
        self.arm("level", "motion")
        self.arm("firmware", self.board.path("image"), status=1)
        self.assertRegex(self.errors, "^kestrel-arm: .*level")
        self.arm("level", "dark")

        self.assertEqual("firmware taken, 10240 bytes\n", self.arm("firmware", self.board.path("image")))

        self.board.ready()
        self.assertEqual({"size": 10240, "sha256": hashlib.sha256(image).hexdigest(), "result": "taken"},
                         json.loads(self.arm("firmware", self.board.path("image"), "--json")))
        self.arm("firmware", self.board.path("none"), status=2)


del Bench  # nothing to run by itself

if __name__ == "__main__":
    unittest.main()

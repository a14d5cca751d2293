"""The station with its guard, controller and camera, all virtual; every answer is checked by docs/api.yaml."""

import contextlib
import http.client
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import warnings

import jsonschema
import yaml

from harness import BUILD, CARD, SOURCE, Camera, listening, sanitizer_of, wait_until

sys.path.insert(0, f"{SOURCE}/tests/drill")
from burning_board import LANGUAGES, OPTIONS, Lines  # noqa: E402, pylint: disable=wrong-import-position

PORT = 8330
TOKEN = "0123456789abcdef0123456789abcdef"
DEADLINE = 30.0  # seconds; only ends a failing run

with open(f"{SOURCE}/docs/api.yaml", encoding="utf-8") as api_file:
    API = yaml.safe_load(api_file)
COMMON = set(API["info"]["x-problems"])


def find_operation(method, path):
    """The description's operation, or None."""
    for template, item in API["paths"].items():
        pattern = re.sub(r"\{\w+\}", "[^/]+", template)
        if re.fullmatch(pattern, path) and method.lower() in item:
            return item[method.lower()]
    return None


with warnings.catch_warnings():
    # Debian's has no other way to resolve references; a newer one warns of it.
    warnings.simplefilter("ignore", DeprecationWarning)
    RESOLVER = jsonschema.RefResolver("", API)


def validate(instance, schema):
    jsonschema.Draft202012Validator(schema, resolver=RESOLVER).validate(instance)


def check_answer(method, path, status, content_type, body):
    """Whether an answer is one that the description knows."""
    operation = find_operation(method, path)
    if operation is None:
        problems = COMMON
        response = {"$ref": "#/components/responses/Problem"}
    else:
        problems = COMMON | set(operation["x-problems"])
        response = operation["responses"].get(str(status), operation["responses"]["default"])
    if "$ref" in response:
        response = API["components"]["responses"][response["$ref"].split("/")[-1]]
    kind = content_type.split(";")[0]
    assert kind in response["content"], f"{method} {path}: {status} {content_type}"
    if kind.endswith("json"):
        document = json.loads(body)
        validate(document, response["content"][kind]["schema"])
        if kind == "application/problem+json":
            assert document["status"] == status
            name = document["type"].split(":")[-1]
            assert name in problems, f"{method} {path} may not answer {name}"


class Answer:
    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.body = response.read()

    @property
    def json(self):
        return json.loads(self.body)

    @property
    def problem(self):
        """The problem's name; empty when it is none."""
        if self.headers.get_content_type() != "application/problem+json":
            return ""
        return self.json["type"].split(":")[-1]


def request(method, path, body=None, headers=None, token=TOKEN, timeout=DEADLINE):
    """An answer that has been checked; a body is sent as JSON unless it is bytes."""
    sent = {"Authorization": f"Bearer {token}"} if token else {}
    if isinstance(body, bytes):
        sent["Content-Type"] = "application/octet-stream"
    elif body is not None:
        sent["Content-Type"] = "application/json"
        body = json.dumps(body)
    sent.update(headers or {})
    client = http.client.HTTPConnection("127.0.0.1", PORT, timeout=timeout)
    try:
        client.request(method, path, body=body, headers={key: value for key, value in sent.items() if value})
        answer = Answer(client.getresponse())
    finally:
        client.close()
    check_answer(method, path.split("?")[0], answer.status, answer.headers.get("Content-Type", ""), answer.body)
    return answer


class Events:
    """A watcher of the events, each of which is checked."""

    def __init__(self, headers=None):
        self.client = http.client.HTTPConnection("127.0.0.1", PORT, timeout=DEADLINE)
        self.client.request("GET", "/events", headers={"Authorization": f"Bearer {TOKEN}", **(headers or {})})
        self.response = self.client.getresponse()
        assert self.response.status == 200, self.response.status

    def next(self):
        """The next event's name and data; comments are passed over."""
        fields = {}
        end = time.monotonic() + DEADLINE
        while True:
            assert time.monotonic() < end, "nothing but comments"
            line = self.response.readline().decode().rstrip("\n")
            if line == "" and "data" in fields:
                data = json.loads(fields["data"])
                validate(data, API["paths"]["/events"]["get"]["x-events"][fields["event"]])
                assert fields["event"] != "journal" or fields["id"] == str(data["id"])
                return fields["event"], data
            if line and not line.startswith(":"):
                key, _, value = line.partition(": ")
                fields[key] = value

    def until(self, condition, deadline=DEADLINE):
        """The first event's data that fulfils a condition on name and data."""
        end = time.monotonic() + deadline
        while time.monotonic() < end:
            name, data = self.next()
            if condition(name, data):
                return data
        raise AssertionError("not told")

    def close(self):
        self.client.close()


class Station:
    """The station and what it works with; each part may be left out, and stopped and started."""

    binary = f"{BUILD}/station/kestrel-station"

    def __init__(self, language="grbl", camera=True, guard=True, controller=True, settings="", controller_options=(),
                 camera_options=(), plugin=None, box=((-100, -100, -100), (100, 100, 100))):
        self.stack = contextlib.ExitStack()
        self.language = language
        self.folder = self.stack.enter_context(tempfile.TemporaryDirectory(prefix="kestrel-station."))
        self.settings = settings
        self.box = box
        self.station = self.guard = self.controller = self.control = None
        if plugin:
            os.symlink(plugin, f"{self.folder}/libframe_process.so")
        os.makedirs(f"{CARD}/www", exist_ok=True)
        os.makedirs(f"{CARD}/camera", exist_ok=True)
        # The station looks at a picture now and then; drawing and showing more of them takes a browser's time.
        self.camera = Camera("--fps", "10", *camera_options) if camera else None
        if self.camera:
            self.stack.callback(self.camera.close)
        try:
            self.write_configuration()
            if controller:
                self.start_controller(*controller_options)
            if guard:
                self.start_guard()
            self.start()
        except BaseException:
            self.close()
            raise

    def path(self, name):
        return f"{self.folder}/{name}"

    def write_configuration(self):
        with open(self.path("guard.toml"), "w", encoding="utf-8") as file:
            file.write(f'[controller]\nport = "{self.path("port")}"\nlanguage = "{LANGUAGES[self.language]}"\n'
                       f'[service]\nlink = "{self.path("ttyACM")}"\n[operator]\nsocket = "{self.path("socket")}"\n'
                       f"[limits]\nmin = {list(self.box[0])}\nmax = {list(self.box[1])}\n"
                       "feed = 6000\npower = 1000\n"
                       "acceleration = 500\nrapid_feed = 6000\n")
        with open(self.path("token"), "w", encoding="ascii") as file:
            file.write(TOKEN + "\n")
        with open(self.path("station.toml"), "w", encoding="utf-8") as file:
            file.write(f'[station]\nfolder = "{self.folder}"\nguard = "{self.path("guard.toml")}"\n'
                       f'{self.settings}\n[http]\ntoken = "{self.path("token")}"\n'
                       'hosts = ["arm.example"]\norigins = ["https://arm.example"]\n')

    def start_controller(self, *options):
        scene = ["--scene", self.camera.path("scene")] if self.camera else []
        self.controller = subprocess.Popen(
            [f"{BUILD}/simulator/controller/kestrel-controller", "--node", self.path("port"),
             "--control", self.path("control"), "--journal", self.path("wire"), "--boot-ms", "100",
             *scene, *OPTIONS[self.language], *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        assert self.controller.stdout.readline() == "ready\n"
        self.control = Lines(self.path("control"))

    def start_guard(self):
        with open(self.path("guard.log"), "ab") as log:
            self.guard = subprocess.Popen(
                [f"{BUILD}/guard/kestrel-guard", "--config", self.path("guard.toml"),
                 "--last-port", self.path("last-port")], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(lambda: os.path.exists(self.path("socket")), "the guard listens")

    def start(self):
        env = dict(os.environ)
        sanitizer, library = sanitizer_of(self.binary)
        if self.camera:
            env["KESTREL_CAMERA_DIR"] = self.camera.folder
            preload = f"{BUILD}/simulator/camera/libkestrel-camera.so"
            env["LD_PRELOAD"] = f"{library}:{preload}" if sanitizer == "asan" else preload
        if sanitizer == "tsan":
            env["TSAN_OPTIONS"] = "exitcode=66:halt_on_error=0:" + env.get("TSAN_OPTIONS", "")
        with open(self.path("station.log"), "ab") as log:
            self.station = subprocess.Popen([self.binary, "--config", self.path("station.toml")],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=env)

        def up():
            assert self.station.poll() is None, self.output("station")
            return listening(PORT) and listening(8329)
        wait_until(up, "the station listens")

    def output(self, name):
        with open(self.path(f"{name}.log"), encoding="utf-8", errors="replace") as file:
            return file.read()

    def stop(self, number=signal.SIGTERM):
        """End the station. @return its status"""
        self.station.send_signal(number)
        status = self.station.wait(DEADLINE)
        self.station = None
        return status

    def stop_guard(self):
        self.guard.terminate()
        self.guard.wait(DEADLINE)
        self.guard = None

    def state(self):
        return request("GET", "/state").json

    def wait_for(self, condition, what, deadline=DEADLINE):
        """Until the state fulfils a condition; returns it."""
        def fulfilled():
            state = self.state()
            return state if condition(state) else None
        return wait_until(fulfilled, what, deadline)

    def ready(self):
        """Until guard, controller and terminal are there and the beam was seen off."""
        return self.wait_for(lambda state: state["guard"]["beam_seen_off"] and state["terminal"], "all is there")

    def homed(self):
        """At level motion, homed."""
        self.ready()
        answer = request("POST", "/level", {"level": "motion"})
        assert answer.status == 200, answer.body
        answer = request("POST", "/home", {})
        assert answer.status == 200, answer.body
        return answer.json

    def controller_state(self):
        return dict(word.split("=", 1) for word in self.control.ask("state").split() if "=" in word)

    def log(self):
        """Of the controller's log: kind and text of each record."""
        self.control.ask("state")  # brings the log up to date
        with open(self.path("wire"), encoding="ascii") as file:
            return [line.rstrip("\n").split(" ", 2)[1:] for line in file]

    def records(self, kind):
        return [text for of_kind, text in self.log() if of_kind == kind]

    def taken(self):
        """The lines that the controller took: one that it answers by "status:1" while it is held comes again."""
        lines = []
        for kind, text in self.log():
            if kind == "rx":
                lines.append(text)
            elif kind == "tx" and text.startswith("status:1") and lines:
                lines.pop()
        return lines

    def close(self):
        try:
            # It takes two seconds to end, and tells what it has leaked then.
            if self.station is not None and self.station.poll() is None and sanitizer_of(self.binary)[0]:
                self.stop()
        finally:
            if self.control is not None:
                self.control.close()
            for process in (self.station, self.guard, self.controller):
                if process is not None and process.poll() is None:
                    process.kill()
                    process.wait()
            if self.controller is not None:
                self.controller.stdout.close()
            log = self.output("station") if os.path.exists(self.path("station.log")) else ""
            self.stack.close()
        report = re.search(r"(ERROR: (Address|Leak)Sanitizer|WARNING: ThreadSanitizer|runtime error:)[\s\S]*", log)
        if report:
            raise AssertionError("sanitizer: " + report.group()[:6000])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

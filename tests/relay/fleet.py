"""Virtual boards, each a host of its own on a cable of its own, and the relay with the servers around it.

Run inside tests/support/private-host (scripts/test relay does), by Debian's own Python. KESTREL_BUILD is the
build folder of the service and the virtual camera, KESTREL_UNPACKED a folder of unpacked Debian packages whose
installation would start a server: nginx, janus, prometheus, rsyslog.
"""

import base64
import contextlib
import functools
import http.client
import json
import os
import re
import shlex
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import urllib.request

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))
from harness import BUILD, SOURCE, wait_until  # noqa: E402

UNPACKED = os.environ.get("KESTREL_UNPACKED", "")
PACKAGE = f"{SOURCE}/packaging/relay"
RELAY = f"{PACKAGE}/kestrel-relay"
WEB = "127.0.0.1:8331"
RTSP = "rtsp://127.0.0.1:8554"
USER, PASSWORD = "lena", "sehr geheim"
TRUSTING = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
TRUSTING.check_hostname = False
TRUSTING.verify_mode = ssl.CERT_NONE
TICKS = os.sysconf("SC_CLK_TCK")


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def end(process, number=signal.SIGTERM):
    """End a process of ours; its status."""
    if process.poll() is None:
        process.send_signal(number)
    try:
        return process.wait(20)
    except subprocess.TimeoutExpired:
        process.kill()
        return process.wait()


def processor_seconds(pid):
    """Of a process with all its threads, since its start."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def resident_kilobytes(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return int(re.search(r"^VmRSS:\s+(\d+)", file.read(), re.M).group(1))


class VirtualBoard:
    """The service on a virtual camera, in a network of its own, at `address`."""

    def __init__(self, number, camera=("--keep", "400")):
        self.name = f"board-{number}"
        self.address = f"10.77.{number}.2"
        self.cable = f"cable{number}"
        self.folder = tempfile.mkdtemp(prefix="kestrel-camera.")
        self.server = None
        # Holds the host while the service comes and goes.
        self.host = subprocess.Popen(["unshare", "--net", "sh", "-c", "ip link set lo up; echo ready; exec cat"],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert self.host.stdout.readline() == b"ready\n"
        run("ip", "link", "add", self.cable, "type", "veth", "peer", "name", "eth0", "netns", str(self.host.pid))
        run("ip", "address", "add", f"10.77.{number}.1/24", "dev", self.cable)
        self._inside_run("ip", "address", "add", f"{self.address}/24", "dev", "eth0")
        self._inside_run("ip", "link", "set", "eth0", "up")
        self.plug_cable()
        self.camera = subprocess.Popen(
            self.inside(f"{BUILD}/simulator/camera/kestrel-camera", "--dir", self.folder, *camera),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        wait_until(lambda: self._ask("state").returncode == 0, "the virtual camera answers")
        self.start()

    def inside(self, *command):
        return ["nsenter", "-t", str(self.host.pid), "-n", *command]

    def _inside_run(self, *command):
        return run(*self.inside(*command))

    def _ask(self, text):
        return subprocess.run([f"{BUILD}/tools/kestrel-camera-ctl", "--dir", self.folder, *shlex.split(text)],
                              capture_output=True, text=True, check=False)

    def command(self, text):
        """A command of the virtual camera; its answer."""
        done = self._ask(text)
        if done.returncode != 0:
            raise AssertionError(f"the camera refused {text!r}: {done.stdout}{done.stderr}")
        return done.stdout

    def start(self):
        environment = dict(os.environ, KESTREL_CAMERA_DIR=self.folder,
                           LD_PRELOAD=f"{BUILD}/simulator/camera/libkestrel-camera.so")
        # The preloaded library is for the service alone.
        self.server = subprocess.Popen(
            self.inside("env", *(f"{name}={environment[name]}" for name in ("KESTREL_CAMERA_DIR", "LD_PRELOAD")),
                        f"{BUILD}/application/kestrel-server"),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(self.listening, f"{self.name} listens")

    def kill(self):
        """As if the power failed, but for the network's last words."""
        end(self.server, signal.SIGKILL)

    def listening(self):
        return any(local.endswith(":2089") and state == "0A" for local, _, state in self._connections())

    def clients(self):
        """Connections to the service's HTTP port."""
        return sum(local.endswith(":2089") and state == "01" for local, _, state in self._connections())

    def _connections(self):
        with open(f"/proc/{self.host.pid}/net/tcp", encoding="ascii") as table:
            for line in table.readlines()[1:]:
                yield line.split()[1:4]

    def plug_cable(self):
        run("ip", "link", "set", self.cable, "up")

    def pull_cable(self):
        run("ip", "link", "set", self.cable, "down")

    def lose_power(self):
        """After its last words, which close its connections, not even a refusal comes from it."""
        self.kill()
        self._inside_run("ip", "link", "set", "eth0", "down")

    def power(self):
        self._inside_run("ip", "link", "set", "eth0", "up")
        self.start()

    def frames(self):
        """The kept pictures' numbers by their bytes."""
        found = {}
        for name in os.listdir(f"{self.folder}/frames"):
            with contextlib.suppress(FileNotFoundError):
                with open(f"{self.folder}/frames/{name}", "rb") as file:
                    found[file.read()] = int(name.partition(".")[0])
        return found

    def processor_seconds(self):
        """Of the service, without what the virtual camera spends in it."""
        camera = int(re.search(r"cpu=(\d+)", self.command("cpu")).group(1)) / 1e6
        return processor_seconds(self.server.pid) - camera

    def close(self):
        end(self.server, signal.SIGKILL)
        end(self.camera)
        run("ip", "link", "delete", self.cable)  # would go some time after its network
        self.host.stdin.close()
        self.host.stdout.close()
        end(self.host)
        shutil.rmtree(self.folder, ignore_errors=True)


@functools.cache
def make_picture(size):
    """The bytes of a JPEG of WIDTHxHEIGHT."""
    return subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", f"testsrc2=size={size}", "-frames:v", "1",
                           "-pix_fmt", "yuvj420p", "-f", "mjpeg", "-"], capture_output=True, check=True).stdout


def make_pictures(folder, quality, sampling="yuvj420p"):
    """Two seconds of pictures of 640x480."""
    os.makedirs(folder)
    run("ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=640x480:rate=25", "-frames:v", "50",
        "-vf", "noise=alls=12:allf=t", "-pix_fmt", sampling, "-q:v", str(quality), f"{folder}/%03d.jpg")
    return folder


class Fleet:
    """Boards, and a folder for all that the relay's servers write."""

    def __init__(self, count, drawn=True, quality=6, sampling="yuvj420p"):
        """The cameras draw their pictures and keep them; or, with less work, repeat some pictures of a quality:
        6 gives some 46 KB, more gives less."""
        self.folder = tempfile.mkdtemp(prefix="kestrel-relay.")
        camera = ("--keep", "400")
        if not drawn:
            camera = ("--pictures", make_pictures(f"{self.folder}/pictures", quality, sampling))
        self.boards = [VirtualBoard(number, camera) for number in range(1, count + 1)]

    def close(self):
        for board in self.boards:
            board.close()
        shutil.rmtree(self.folder, ignore_errors=True)


class Relay:
    """kestrel-relay on a fleet."""

    def __init__(self, fleet, more=""):
        self.folder = fleet.folder
        self.config = f"{fleet.folder}/kestrel-relay.toml"
        boards = "".join(f'{board.name} = "{board.address}"\n' for board in fleet.boards)
        with open(self.config, "w", encoding="ascii") as file:
            file.write(f"[boards]\n{boards}{more}")
        self.output = open(f"{fleet.folder}/relay.out", "ab")
        self.process = subprocess.Popen([RELAY, "--config", self.config, "run"], stdin=subprocess.DEVNULL,
                                        stdout=self.output, stderr=self.output)
        for board in fleet.boards:
            self.wait_live(board.name)

    def states(self, name=""):
        """The relay's answer to /state, or None while it does not listen."""
        try:
            with urllib.request.urlopen(f"http://{WEB}/state{'/' + name if name else ''}", timeout=10) as answer:
                return json.load(answer)
        except OSError:
            if self.process.poll() is not None:
                with open(f"{self.folder}/relay.out", encoding="utf-8") as file:
                    raise AssertionError(f"the relay has ended: {file.read()[-3000:]}") from None
            return None

    def live(self, name):
        state = self.states(name)
        return bool(state and state["live"])

    def wait_live(self, name, wanted=True, deadline=30):
        return wait_until(lambda: self.live(name) == wanted, f"{name} live: {wanted}", deadline)

    def metrics(self):
        """Values by name with labels, as written."""
        with urllib.request.urlopen(f"http://{WEB}/metrics", timeout=10) as answer:
            lines = answer.read().decode().splitlines()
        return {line.rpartition(" ")[0]: float(line.rpartition(" ")[2]) for line in lines if line[0] != "#"}

    def viewers(self, name, kind):
        return self.metrics()[f'kestrel_relay_viewers{{board="{name}",kind="{kind}"}}']

    def close(self):
        status = end(self.process)
        self.output.close()
        return status


class Viewer:
    """A program that counts the pictures of an RTSP stream and ends with it."""

    def __init__(self, path, kind="ffmpeg", transport="tcp"):
        self.folder = tempfile.mkdtemp(prefix="kestrel-viewer.")
        self._count = f"{self.folder}/count"
        url = f"{RTSP}/{path}"
        if kind == "ffmpeg":
            command = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-nostdin", "-progress", self._count,
                       "-stats_period", "0.1", "-rtsp_transport", transport, "-i", url, "-c", "copy", "-f", "null", "-"]
        else:
            depay = "rtph264depay" if path.endswith("/h264") else "rtpjpegdepay"
            command = ["gst-launch-1.0", "-v", "rtspsrc", f"location={url}", f"protocols={transport}", "latency=50",
                       "!", depay, "!", "identity", "silent=false", "!", "fakesink", "sync=false"]
        self._kind = kind
        self._output = open(f"{self.folder}/output", "wb")
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=self._output,
                                        stderr=subprocess.STDOUT)

    def pictures(self):
        """So far."""
        if self._kind == "ffmpeg":
            with contextlib.suppress(FileNotFoundError):
                with open(self._count, encoding="ascii") as file:
                    found = re.findall(r"^frame=(\d+)", file.read(), re.M)
                    return int(found[-1]) if found else 0
            return 0
        with open(f"{self.folder}/output", "rb") as file:
            return file.read().count(b"identity0: last-message = chain")

    def ended(self):
        return self.process.poll() is not None

    def close(self):
        end(self.process, signal.SIGKILL)
        self._output.close()
        shutil.rmtree(self.folder, ignore_errors=True)


class Web:
    """nginx as the package starts it, with a certificate and one user, on a fleet's folder."""

    def __init__(self, fleet):
        self.folder = f"{fleet.folder}/web"
        os.makedirs(self.folder)
        with open(f"{PACKAGE}/nginx.conf", encoding="utf-8") as file:
            text = file.read()
        text = text.replace("/run/kestrel-relay-web", self.folder)
        text = text.replace("/usr/share/kestrel-relay/www", f"{PACKAGE}/www").replace("daemon off;",
                                                                                     "daemon off; user root;")
        with open(f"{self.folder}/nginx.conf", "w", encoding="utf-8") as file:
            file.write(text)
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=relay",
            "-addext", "subjectAltName=DNS:relay",
            "-keyout", "tls.key", "-out", "tls.pem", cwd=self.folder)
        hashed = run("openssl", "passwd", "-apr1", "-stdin", input=PASSWORD + "\n")
        with open(f"{self.folder}/users", "w", encoding="ascii") as file:
            file.write(f"{USER}:{hashed}")
        self.output = open(f"{self.folder}/output", "wb")
        self.process = subprocess.Popen(
            [f"{UNPACKED}/usr/sbin/nginx", "-p", self.folder, "-c", "nginx.conf", "-e", "stderr"],
            stdin=subprocess.DEVNULL, stdout=self.output, stderr=self.output)
        wait_until(lambda: answers(443, self.process), "nginx listens")

    def open(self, target, headers=None, method="GET"):
        """A connection and its response; with the password unless there are other headers."""
        connection = http.client.HTTPSConnection("127.0.0.1", 443, timeout=30, context=TRUSTING)
        connection.request(method, target, headers=authorization() if headers is None else headers)
        return connection, connection.getresponse()

    def status(self, target, headers=None, method="GET"):
        connection, response = self.open(target, headers, method)
        with contextlib.closing(connection):
            return response.status

    def close(self):
        end(self.process)
        self.output.close()


class Janus:
    """Janus with the configuration that the relay writes, and with no modules but the two that it leaves on."""

    def __init__(self, relay):
        folder = f"{relay.folder}/janus"
        shutil.rmtree(folder, ignore_errors=True)
        run(RELAY, "--config", relay.config, "janus", folder)
        tree = f"{UNPACKED}/usr/lib/x86_64-linux-gnu/janus"
        for kind, module in (("plugins", "libjanus_streaming.so"), ("transports", "libjanus_http.so")):
            os.makedirs(f"{folder}/{kind}")
            os.symlink(f"{tree}/{kind}/{module}", f"{folder}/{kind}/{module}")
        path = f"{folder}/janus.jcfg"
        with open(path, encoding="ascii") as file:
            text = file.read()
        with open(path, "w", encoding="ascii") as file:
            file.write(text.replace("general: {", f'general: {{\n    plugins_folder = "{folder}/plugins"\n'
                                                  f'    transports_folder = "{folder}/transports"', 1))
        self.output = open(f"{relay.folder}/janus.out", "ab")
        self.process = subprocess.Popen([f"{UNPACKED}/usr/bin/janus", f"--configs-folder={folder}"],
                                        stdin=subprocess.DEVNULL, stdout=self.output, stderr=self.output)
        wait_until(lambda: answers(8332, self.process), "Janus listens")

    def close(self):
        end(self.process)
        self.output.close()


def answers(port, process):
    if process.poll() is not None:
        raise AssertionError(f"ended: {process.args}")
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def authorization(user=USER, password=PASSWORD):
    return {"Authorization": "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()}


def seconds_until(condition, what, deadline=30.0):
    """How long it took until condition() was true."""
    begun = time.monotonic()
    wait_until(condition, what, deadline)
    return time.monotonic() - begun

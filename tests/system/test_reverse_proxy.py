"""The shipped nginx configuration and firewall rules in front of the service."""

import base64
import contextlib
import http.client
import os
import shutil
import socket
import ssl
import subprocess
import tempfile
import unittest

from harness import BUILD, CARD, SOURCE, Board, LiveStream, listening, wait_until

NGINX = f"{BUILD}/nginx/usr/sbin/nginx"
RECIPE = f"{SOURCE}/packaging/proxy"
PORT = 443
USER, PASSWORD = "lena", "sehr geheim"


def basic(user, password):
    return {"Authorization": "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()}


AUTHORIZATION = basic(USER, PASSWORD)
TRUSTING = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
TRUSTING.check_hostname = False
TRUSTING.verify_mode = ssl.CERT_NONE

# What Debian's /etc/nginx/nginx.conf does around conf.d, with this test's folder instead.
AROUND = """
daemon off;
user root;
pid nginx.pid;
error_log error.log;
events {}
http {
    access_log off;
    client_body_temp_path body;
    proxy_temp_path proxy;
    fastcgi_temp_path fastcgi;
    uwsgi_temp_path uwsgi;
    scgi_temp_path scgi;
    include kestrel-server.conf;
}
"""


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


class Proxy:
    """nginx with the shipped configuration, a certificate and one user."""

    NAME = "localhost"  # the certificate's

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="kestrel-proxy.")
        with open(f"{self.folder}/nginx.conf", "w", encoding="ascii") as file:
            file.write(AROUND)
        shutil.copy(f"{RECIPE}/kestrel-server.conf", self.folder)
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={self.NAME}",
            "-keyout", "kestrel-server.key", "-out", "kestrel-server.pem", cwd=self.folder)
        hashed = run("openssl", "passwd", "-apr1", "-stdin", input=PASSWORD + "\n")
        with open(f"{self.folder}/kestrel-server.users", "w", encoding="ascii") as file:
            file.write(f"{USER}:{hashed}")
        self.process = subprocess.Popen(
            [NGINX, "-p", self.folder, "-c", "nginx.conf", "-e", "error.log"],
            stdin=subprocess.DEVNULL)
        wait_until(self._is_up, "nginx listens")

    def _is_up(self):
        if self.process.poll() is not None:
            raise AssertionError("nginx ended")
        return listening(PORT)

    def close(self):
        self.process.terminate()
        self.process.wait()
        shutil.rmtree(self.folder)


def open_request(target, method="GET", headers=None, body=None):
    connection = http.client.HTTPSConnection("127.0.0.1", PORT, timeout=30, context=TRUSTING)
    headers = AUTHORIZATION if headers is None else headers
    connection.request(method, target, headers=headers, body=body)
    return connection, connection.getresponse()


def request(target, method="GET", headers=None, body=None):
    connection, response = open_request(target, method, headers, body)
    with contextlib.closing(connection):
        return response.status, response.read()


def sockets(board):
    return sum(name.startswith("socket:") for name in board.server.descriptors().values())


class ReverseProxy(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.board = Board()
        cls.addClassCleanup(cls.board.__exit__)
        cls.idle = sockets(cls.board)
        cls.proxy = Proxy()
        cls.addClassCleanup(cls.proxy.close)
        shutil.copytree(f"{SOURCE}/www", f"{CARD}/www", dirs_exist_ok=True)

    def test_nothing_is_answered_without_the_password(self):
        wrong = basic(USER, "geheim")
        for target in ("/live", "/snap", "/camera?focus=1", "/index.html"):
            for headers in ({}, wrong):
                self.assertEqual(401, request(target, headers=headers)[0], target)

    def test_page_and_all_its_files(self):
        with open(f"{SOURCE}/www/index.html", "rb") as file:
            self.assertEqual((200, file.read()), request("/"))

        for name in os.listdir(f"{SOURCE}/www"):
            with open(f"{SOURCE}/www/{name}", "rb") as file:
                self.assertEqual((200, file.read()), request(f"/{name}"), name)

    def test_live_pictures_are_the_cameras_in_order(self):
        connection, response = open_request("/live")
        with contextlib.closing(connection):
            self.assertEqual("multipart/x-mixed-replace;boundary=boundarydonotcross",
                             response.getheader("Content-Type"))
            self.assertEqual(b"--boundarydonotcross\r\n", response.read(22))
            pictures = []
            while len(pictures) < 25:
                header = {}
                while line := response.readline().rstrip(b"\r\n"):
                    name, _, value = line.decode().partition(":")
                    header[name] = value.strip()
                pictures.append(response.read(int(header["Content-Length"])))
                self.assertEqual(b"\r\n--boundarydonotcross\r\n", response.read(24))

        kept = self.board.camera.frames()
        numbers = [kept[picture] for picture in pictures]
        self.assertEqual(sorted(set(numbers)), numbers)

    def test_player_opens_the_stream_without_an_option(self):
        shown = run("ffprobe", "-v", "error", "-headers", f"Authorization: {AUTHORIZATION['Authorization']}\r\n",
                    "-show_entries", "stream=codec_name,width,height", "-of", "csv=p=0",
                    f"https://127.0.0.1:{PORT}/live")
        self.assertEqual("mjpeg,640,480\n", shown)

    def test_viewer_that_leaves_leaves_the_service_too(self):
        wait_until(lambda: sockets(self.board) == self.idle, "all other clients have gone")
        connection, response = open_request("/live")
        response.read(100)
        self.assertEqual(self.idle + 1, sockets(self.board))
        connection.close()
        response.close()
        wait_until(lambda: sockets(self.board) == self.idle, "the service has lost the viewer")

    def test_snapshot_is_one_picture_and_saved_under_its_name(self):
        connection, response = open_request("/snap?filename=proxied.jpg&mode=correction")
        with contextlib.closing(connection):
            self.assertEqual(200, response.status)
            self.assertIn(response.read(), self.board.camera.frames())
        self.board.wait_for_saved("proxied.jpg")

    def test_measurement_is_answered(self):
        self.assertEqual((200, b'{"measure":"0.0000"}'), request("/camera?focus=1"))

    def test_headers_and_bodies_that_the_service_does_not_stand_stay_outside(self):
        heavy = dict(AUTHORIZATION, Cookie="c=" + 6000 * "x", **{"X-More": 1500 * "y"})
        self.assertEqual((200, b'{"measure":"0.0000"}'),
                         request("/camera?focus=1", headers=heavy, body=b"a body"))

    def test_only_reading_methods_pass(self):
        self.assertEqual((200, b""), request("/index.html", "HEAD"))
        for method in ("POST", "PUT", "DELETE", "OPTIONS"):
            self.assertEqual(405, request("/camera?focus=1", method)[0], method)

    def status(self, target, **headers):
        headers = {name.replace("_", "-"): value for name, value in headers.items()}
        return request(target, headers=dict(AUTHORIZATION, **headers))[0]

    def test_requests_of_other_sites_pages_are_refused(self):
        for site in ("cross-site", "same-site"):
            for target in ("/snap?filename=evil.jpg", "/camera?focus=1", "/live", "/app.js", "/", "/index.html"):
                self.assertEqual(403, self.status(target, Sec_Fetch_Site=site, Sec_Fetch_Dest="image"))
            self.assertEqual(403, self.status("/camera?focus=1", Sec_Fetch_Site=site,
                                              Sec_Fetch_Dest="document"))
            self.assertEqual(403, self.status("/index.html", Sec_Fetch_Site=site,
                                              Sec_Fetch_Dest="iframe"))
        for origin in ("https://evil.example", "null", "http://127.0.0.1", "https://127.0.0.1.evil.example",
                       "https://127.0.0.1:8443"):
            self.assertEqual(403, self.status("/camera?focus=1", Origin=origin), origin)
        self.assertFalse(os.path.exists(f"{CARD}/camera/evil.jpg"))

    def test_pages_own_requests_and_links_to_it_pass(self):
        for site in ("same-origin", "none"):
            self.assertEqual(200, self.status("/camera?focus=1", Sec_Fetch_Site=site,
                                              Sec_Fetch_Dest="empty"))
        self.assertEqual(200, self.status("/camera?focus=1", Origin="https://127.0.0.1"))
        for target in ("/", "/index.html"):
            self.assertEqual(200, self.status(target, Sec_Fetch_Site="cross-site",
                                              Sec_Fetch_Dest="document"))

    def test_no_other_page_may_frame_it(self):
        connection, response = open_request("/index.html")
        with contextlib.closing(connection):
            self.assertEqual("frame-ancestors 'none'", response.getheader("Content-Security-Policy"))

    def test_names_that_leave_the_folder_are_refused(self):
        with open(f"{CARD}/secret.txt", "w", encoding="ascii") as file:
            file.write("secret")
        self.addCleanup(os.unlink, f"{CARD}/secret.txt")
        os.makedirs(f"{CARD}/www/below", exist_ok=True)
        shutil.copy(f"{CARD}/secret.txt", f"{CARD}/www/below/secret.txt")
        for target in ("/../secret.txt", "/%2e%2e/secret.txt", "/..%2fsecret.txt",
                       "/x/../../secret.txt", "//../secret.txt", "/below/secret.txt",
                       "/.htaccess.txt", "/boundary.txt", "/secret.conf", "/LIVE", "/live/", "/snap.php"):
            status, body = request(target)
            self.assertIn(status, (400, 404), target)
            self.assertNotIn(b"secret", body.replace(target.encode(), b""), target)

        for query in ("filename=../www/index.html", "filename=..%2f..", "filename=.ssh",
                      "filename=a/b", "filename=a.jpg&filename=../b.jpg", "filename=", "mode=other",
                      "mode=correction&filename=a.jpg", "x=1"):
            self.assertEqual(400, request(f"/snap?{query}")[0], query)
        for query in ("", "?focus=0", "?focus=1&x=2", "?focus=1&focus=1"):
            self.assertEqual(400, request(f"/camera{query}")[0], query)

    def test_one_address_holds_sixteen_connections_at_most(self):
        held = [open_request("/live") for _ in range(16)]
        try:
            self.assertEqual({200}, {response.status for _, response in held})
            self.assertEqual(503, request("/index.html")[0])
        finally:
            for connection, response in held:
                connection.close()
                response.close()
        wait_until(lambda: request("/index.html")[0] == 200, "the address may connect again")


class Firewall(unittest.TestCase):
    """A second host on a cable; the rules are this private host's."""

    OUTER, INNER = "10.93.0.1", "10.93.0.2"

    def setUp(self):
        board = Board()
        self.addCleanup(board.__exit__)
        other = subprocess.Popen(["unshare", "--net", "sleep", "600"])
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        self.inside = ["nsenter", "--net", "--target", str(other.pid)]
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{other.pid}/ns/net") != own,
                   "the other host is there")
        run("ip", "link", "add", "cable", "type", "veth",
            "peer", "name", "far", "netns", str(other.pid))
        self.addCleanup(run, "ip", "link", "del", "cable")
        run("ip", "address", "add", f"{self.OUTER}/24", "dev", "cable")
        run("ip", "link", "set", "cable", "up")
        run(*self.inside, "ip", "address", "add", f"{self.INNER}/24", "dev", "far")
        run(*self.inside, "ip", "link", "set", "far", "up")

    def reaches(self, port, patience=30):
        """Whether the other host gets a connection."""
        probe = (f"import socket; s = socket.socket(); s.settimeout({patience}); "
                 f"raise SystemExit(s.connect_ex(('{self.OUTER}', {port})) != 0)")
        return subprocess.run([*self.inside, "python3", "-c", probe], check=False).returncode == 0

    def test_services_ports_are_closed_to_other_machines_alone(self):
        self.assertTrue(self.reaches(8329))
        self.assertTrue(self.reaches(8001))

        run("/usr/sbin/nft", "-f", f"{RECIPE}/kestrel-server.nft")
        self.addCleanup(run, "/usr/sbin/nft", "delete", "table", "inet", "kestrel_server")

        self.assertFalse(self.reaches(8329, patience=2))
        self.assertFalse(self.reaches(8001, patience=2))
        with socket.socket() as proxy:
            proxy.bind(("", PORT))
            proxy.listen()
            self.assertTrue(self.reaches(PORT))
        with contextlib.closing(LiveStream()) as live:
            live.frame()


if __name__ == "__main__":
    unittest.main()

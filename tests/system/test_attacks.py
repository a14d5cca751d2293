"""What clients may do to one another: each attack beside an ordinary client, with its bound."""

import contextlib
import os
import select
import socket
import threading
import time
import unittest

from harness import (CARD, DEADLINE, EMULATOR, HTTP_PORT, LOG_PORT, Board, LiveStream, connect, request,
                     wait_until)

MEMORY = 32 * 1024  # kB that clients may bind
# kB of everything else: code and data that come in, the allocator's slack. AddressSanitizer adds
# red zones and what was freed last (38 MiB more were measured in all, 5 MiB without it),
# ThreadSanitizer several bytes for each byte (its room is reckoned, not measured).
ROOM = {"": 16 * 1024, "asan": 48 * 1024, "tsan": 256 * 1024}
QUICK = 2.0  # seconds for another client's small file
SLOWER = {"": 1, "asan": 2, "tsan": 5}  # so many times slower a sanitizer's build may be
EMULATED = 5  # and the emulated one
PATIENCE = 120.0  # seconds until hundreds are connected; only ends a failing run
PAUSE = 60.0  # seconds that a viewer pauses
LENGTH = 40 << 20
LISTENING = "0A"  # in /proc/net/tcp


def service_ends():
    """For each connection that the service holds, by the client's port: bytes not read yet."""
    ends = {}
    with open("/proc/net/tcp", encoding="ascii") as table:
        for line in table.read().splitlines()[1:]:
            local, remote, state, queues = line.split()[1:5]
            held = "0" != line.split()[9]  # by a process; not when it is closed, or still to be accepted
            if held and LISTENING != state and int(local.split(":")[1], 16) in (HTTP_PORT, LOG_PORT):
                ends[int(remote.split(":")[1], 16)] = int(queues.split(":")[1], 16)
    return ends


class Attacks(unittest.TestCase):
    """The attacks run beside one viewer that pauses from the first test to the last."""

    @classmethod
    def setUpClass(cls):
        # As others keep the machine busy before the attack, up to four times.
        busy = min(4.0, max(1.0, os.getloadavg()[0] / os.cpu_count()))
        cls.board = Board(environment={"ASAN_OPTIONS": ":".join(
            filter(None, (os.environ.get("ASAN_OPTIONS"), "quarantine_size_mb=16")))})
        cls.addClassCleanup(cls.board.__exit__)
        cls.quick = QUICK * busy * SLOWER[cls.board.server.sanitizer] * (EMULATED if EMULATOR else 1)
        with open(f"{CARD}/www/small.txt", "w", encoding="ascii") as file:
            file.write("small")
        cls.large = os.urandom(1 << 20) * (LENGTH >> 20)
        with open(f"{CARD}/www/large.png", "wb") as file:
            file.write(cls.large)
        cls.paused = LiveStream(receive_buffer=4096)
        cls.paused.frame()
        cls.paused_at = time.monotonic()
        cls.before = cls.board.server.status("VmRSS")

    def wait_for_clients(self, count):
        """Wait until the service holds so many connections beside that of the pausing viewer."""
        wait_until(lambda: len(service_ends()) == 1 + count, f"{count} clients", PATIENCE)

    def setUp(self):
        with open(f"/proc/{self.board.server.process.pid}/clear_refs", "w", encoding="ascii") as file:
            file.write("5")  # resets the peak of its memory
        self.held = []
        self.quit = threading.Event()
        self.threads = []

    def tearDown(self):
        self.quit.set()
        for client in self.held:
            with contextlib.suppress(OSError):
                client.shutdown(socket.SHUT_RDWR)  # wakes the thread that waits for it
        for thread in self.threads:
            thread.join()
        for client in self.held:
            client.close()
        self.wait_for_clients(0)

    def background(self, body, *arguments):
        def quietly():
            try:
                body(*arguments)
            except OSError:
                pass  # closed, by the service or at the test's end

        thread = threading.Thread(target=quietly, daemon=True)
        thread.start()
        self.threads.append(thread)

    def hold(self, receive_buffer=None):
        client = connect(receive_buffer=receive_buffer)
        self.held.append(client)
        return client

    def assert_others_are_served(self, times=5):
        for _ in range(times):
            begun = time.monotonic()
            _, body = request("/small.txt")
            self.assertEqual(b"small", body)
            self.assertLess(time.monotonic() - begun, self.quick)
        self.assertTrue(self.board.server.alive(), self.board.server.output()[-2000:])

    def assert_memory_is_bounded(self):
        server = self.board.server
        self.assertLess(server.status("VmHWM") - self.before, MEMORY + ROOM[server.sanitizer])

    def wait_for_unread(self, client):
        """Wait until the client has sent more than the service has read."""
        port = client.getsockname()[1]
        wait_until(lambda: service_ends().get(port, 0) > 0, "more is sent than read")

    def wait_until_closed(self, client):
        """Wait until the service has answered and closed; the client reads nothing."""
        port = client.getsockname()[1]
        self.assertEqual([client], select.select([client], [], [], DEADLINE)[0])
        wait_until(lambda: port not in service_ends(), "the service closes the connection")

    def slow_reader(self):
        client = self.hold(receive_buffer=2048)
        client.sendall(b"GET /camera HTTP/1.1\r\n\r\n")
        port = client.getsockname()[1]
        # Read with what follows it the request would be a bad one.
        wait_until(lambda: service_ends().get(port) == 0, "the request is read")

        def feed():
            while not self.quit.is_set():
                client.sendall(b"x" * 2048)

        def drain():
            while not self.quit.wait(4):
                client.recv(3000)

        self.background(feed)
        self.background(drain)
        return client

    def flooding_sender(self):
        client = self.hold()
        client.sendall(b"POST /live HTTP/1.1\r\nContent-Length: 2147483647\r\n\r\n")
        block = b"x" * (4 << 20)

        def flood():
            while not self.quit.is_set():
                client.sendall(block)

        self.background(flood)

    def byte_a_second(self, count):
        clients = []
        for _ in range(count):
            client = self.hold()
            client.sendall(b"POST /small.txt HTTP/1.1\r\nContent-Length: 1000\r\n\r\n")
            clients.append(client)

        def drip():
            while not self.quit.wait(1):
                for client in clients:
                    client.sendall(b"x")

        self.background(drip)

    def slow_download(self):
        client = self.hold(receive_buffer=2048)
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        client.sendall(b"GET /large.png HTTP/1.1\r\n\r\n")

        def ask_again():
            while not self.quit.wait(0.02):
                client.sendall(b"x")

        self.background(ask_again)

    def test_300_requests_with_large_lengths_bind_nothing(self):
        for _ in range(300):
            self.hold().sendall(b"POST /x HTTP/1.1\r\nContent-Length: 2000000000\r\n\r\n")
        self.wait_for_clients(300)

        self.assert_others_are_served()
        self.assert_memory_is_bounded()

    def test_slow_reader_of_camera_holds_nobody(self):
        client = self.slow_reader()
        self.wait_for_unread(client)

        end = time.monotonic() + 3  # its answers fill the sockets meanwhile
        while time.monotonic() < end:
            self.assert_others_are_served(1)

    def test_flooding_sender_holds_nobody(self):
        self.flooding_sender()

        for _ in range(10):
            self.assert_others_are_served(1)
            self.assert_memory_is_bounded()

    def test_200_connections_with_a_byte_a_second_hold_nobody(self):
        self.byte_a_second(200)
        self.wait_for_clients(200)

        self.assert_others_are_served()

    def test_file_that_is_asked_for_again_and_again_binds_a_piece(self):
        self.slow_download()
        for _ in range(20):
            self.assert_others_are_served(1)
            self.assert_memory_is_bounded()

    def test_64_of_each_at_once_hold_nobody(self):
        for _ in range(64):
            self.slow_reader()
            self.flooding_sender()
            self.slow_download()
        self.byte_a_second(64)

        self.assert_others_are_served()
        self.assert_memory_is_bounded()

    def test_file_of_40_megabytes_arrives_whole(self):
        client = self.hold()
        client.sendall(b"GET /large.png HTTP/1.1\r\n\r\n")
        data = bytearray()
        while len(data) < LENGTH:
            piece = client.recv(1 << 20)
            self.assertTrue(piece, "closed early")
            data += piece
        header, _, body = bytes(data).partition(b"\r\n\r\n")
        while len(body) < LENGTH:
            piece = client.recv(1 << 20)
            self.assertTrue(piece, "closed early")
            body += piece

        self.assertIn(b"Content-Length: 41943040\r\n", header)
        self.assertTrue(body == self.large)

    def test_client_that_half_closes_gets_a_cut_file(self):
        client = self.hold()
        client.sendall(b"GET /large.png HTTP/1.1\r\n\r\n")
        client.shutdown(socket.SHUT_WR)
        self.wait_until_closed(client)  # so that only what the sockets hold is left to come

        data = bytearray()
        while piece := client.recv(1 << 20):
            data += piece

        header, _, body = bytes(data).partition(b"\r\n\r\n")
        self.assertIn(b"Content-Length: 41943040\r\n", header)
        self.assertLess(len(body), LENGTH)
        self.assertTrue(self.large.startswith(body))

    def test_513th_connection_takes_the_place_of_the_longest_silent(self):
        silent = self.hold()
        self.wait_for_clients(1)
        for _ in range(512 - 2):  # the viewer that pauses is one of 512
            self.hold()
        self.wait_for_clients(511)
        self.assertEqual([], select.select([silent], [], [], 0)[0], "closed before there are 513")

        self.assert_others_are_served(1)

        self.assertEqual(b"", silent.recv(1))
        self.wait_for_clients(510)

    def test_log_viewers_are_32(self):
        viewers = [connect(LOG_PORT) for _ in range(33)]
        self.held.extend(viewers)

        self.assertEqual(b"", viewers[32].recv(1))
        self.wait_for_clients(32)

    def test_z_viewer_that_pauses_for_60_seconds_keeps_its_stream(self):
        """The last one by its name: the others were the pause, or a part of it."""
        time.sleep(max(0.0, PAUSE - (time.monotonic() - self.paused_at)))
        last = max(self.board.camera.frames().values())

        # First what waited, then what the camera makes now; frame() takes nothing but whole parts.
        pictures = [self.paused.frame() for _ in range(50)]
        frames = self.board.camera.frames()
        numbers = [frames[picture] for picture in pictures if picture in frames]
        self.assertEqual(sorted(set(numbers)), numbers)
        self.assertGreater(numbers[-1], last)
        self.assertIn(pictures[-1], frames)


if __name__ == "__main__":
    unittest.main()

"""The main job: real pictures, whole and in order, to every client of "/live"."""

import contextlib
import os
import random
import threading
import time
import unittest

from harness import EMULATOR, Board, LiveStream, connect, wait_until


class Stream(unittest.TestCase):
    def test_100_frames_are_those_of_the_camera_in_order_beside_a_slow_client(self):
        with Board() as board:
            slow = LiveStream(receive_buffer=4096)
            stop = threading.Event()
            slow_pictures = []

            def read_slowly():  # 10 KB/s
                try:
                    while not stop.is_set():
                        before = len(slow.buffer)
                        slow.buffer += slow.socket.recv(1024)
                        if len(slow.buffer) == before:
                            return
                        stop.wait(0.1)
                except OSError:
                    pass

            reader = threading.Thread(target=read_slowly)
            reader.start()
            fast = LiveStream()
            pictures = [fast.frame() for _ in range(100)]
            memory = board.server.status("VmRSS")
            pictures += [fast.frame() for _ in range(100)]
            grown = board.server.status("VmRSS") - memory
            stop.set()
            reader.join()

            produced = board.camera.frames()
            numbers = [produced[picture] for picture in pictures]
            self.assertEqual(sorted(set(numbers)), numbers, "in order, none twice")
            # A stall leaves some out; held back by the slow one it would be dozens for each.
            self.assertLess(numbers[-1] - numbers[0], 3 * 200, "keeps its rate beside a slow one")
            bare = not board.server.sanitizer and not EMULATOR
            limit = 8000 if bare else 64000  # kB; a sanitizer's quarantine, an emulator's own
            self.assertLess(grown, limit, "memory stays bounded")

            slow.socket.settimeout(0.5)  # whole parts, as far as they have come
            slow.close()
            while True:
                try:
                    slow_pictures.append(slow.frame())
                except (EOFError, OSError):
                    break
            slow_numbers = [produced[picture] for picture in slow_pictures]
            self.assertGreaterEqual(len(slow_numbers), 1)
            self.assertEqual(sorted(set(slow_numbers)), slow_numbers)

    def test_stream_parameter_is_always_stream_0(self):
        with Board() as board:
            other = LiveStream("/live?stream=3")
            picture = other.frame()
            self.assertIn(picture, board.camera.frames())

    def test_bytes_after_the_request_add_a_responder_and_none_outlives_the_connection(self):
        with Board() as board:
            client = connect()
            client.sendall(b"GET /live HTTP/1.1\r\n\r\n")
            head = client.recv(65536)  # in one read with the request it would be a parse error
            while head.count(b"HTTP/1.0 200 OK") < 3:
                client.sendall(b"more")
                head += client.recv(65536)
            client.close()
            survivor = LiveStream()
            for _ in range(50):
                survivor.frame()
            self.assertTrue(board.server.alive())


class Unplugging(unittest.TestCase):
    def test_same_connection_goes_on_after_six_seconds_without_a_camera(self):
        with Board() as board:
            live = LiveStream()
            live.frame()

            board.camera.unplug()
            time.sleep(6)  # the time without a camera is what is tested
            board.camera.ctl("replug")

            produced_before = set(board.camera.frames())
            wait_until(lambda: live.frame() not in produced_before, "new frames arrive")

    def test_starts_without_a_camera_and_streams_when_it_is_plugged_in(self):
        with Board(camera_arguments=("--keep", "2000", "--unplugged")) as board:
            live = LiveStream()

            board.camera.ctl("replug")

            self.assertIn(live.frame(), board.camera.frames())

    def test_unplugged_between_dequeue_and_requeue_ends_the_service_by_its_assertion(self):
        with Board() as board:
            LiveStream().frame()

            board.camera.ctl("unplug after dequeue")

            self.assertEqual(-6, board.server.wait_ended())
            self.assertIn("Assertion `RET_SUCCESS == m_v4l2->releaseVideoStream()' failed",
                          board.server.output())


class Churn(unittest.TestCase):
    def test_1000_connects_and_disconnects_leave_nothing_behind(self):
        with Board(camera_arguments=("--fps", "100")) as board:
            chance = random.Random(7)
            self.run_clients(chance, 100)  # warm up: allocators, threads' caches
            descriptors = self.settled_descriptors(board)
            memory = board.server.status("VmRSS")

            self.run_clients(chance, 1000)

            self.assertEqual(descriptors, self.settled_descriptors(board))
            if not board.server.sanitizer and not EMULATOR:
                self.assertLess(board.server.status("VmRSS") - memory, 2048)
            self.assertEqual(1, board.server.status("Threads") - self.threads_without_capture(board))
            LiveStream().frame()

    def threads_without_capture(self, board):
        names = []
        for task in os.listdir(f"/proc/{board.server.process.pid}/task"):
            with open(f"/proc/{board.server.process.pid}/task/{task}/comm", encoding="ascii") as file:
                names.append(file.read().strip())
        return sum(name != "videocapture0" for name in names)

    def settled_descriptors(self, board):
        """The number of descriptors once all connections are gone."""
        def quiet():
            targets = list(board.server.descriptors().values())
            sockets = [target for target in targets if target.startswith("socket:")]
            return len(targets) if len(sockets) <= self.listeners + 1 else 0
        self.listeners = 2
        return wait_until(quiet, "the connections are gone")

    def run_clients(self, chance, count):
        def one(seed):
            own = random.Random(seed)
            client = connect()
            kind = own.randrange(5)
            try:
                if kind == 0:
                    return
                client.sendall(b"GET /live HTTP/1.1\r\n\r\n" if kind != 1 else b"GET /li")
                if kind == 3:
                    client.sendall(b"xyz")
                end = own.randrange(40000)
                read = 0
                while read < end and kind != 1:
                    data = client.recv(4096)
                    if not data:
                        return
                    read += len(data)
            except OSError:
                pass
            finally:
                client.close()

        for _ in range(count // 10):
            threads = [threading.Thread(target=one, args=(chance.random(),)) for _ in range(10)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()


class Descriptors(unittest.TestCase):
    def test_64_descriptors_and_200_clients_are_served_as_others_leave(self):
        with Board(limit_files=64) as board:
            together = threading.Semaphore(90)  # more than descriptors, and than fit the backlog
            full = threading.Event()
            served = []

            def one():
                with together:
                    client = self.client_in_the_end()
                    served.append(client is not None)
                    full.wait()
                    if client:
                        client.close()

            threads = [threading.Thread(target=one) for _ in range(200)]
            for thread in threads:
                thread.start()
            wait_until(lambda: len(board.server.descriptors()) == 64, "no descriptor is left")
            full.set()
            for thread in threads:
                thread.join()
            self.assertEqual([True] * 200, served, "every client is served in the end")
            self.assertTrue(board.server.alive())

    def client_in_the_end(self):
        """A client that is served. Those that wait long for the backlog lose patience, or are reset
        by the kernel after a minute, and come again."""
        for _ in range(8):
            with contextlib.suppress(ConnectionError, TimeoutError), contextlib.ExitStack() as stack:
                client = connect()
                stack.callback(client.close)  # or it would be served when nobody is there any more
                client.sendall(b"GET /live HTTP/1.1\r\n\r\n")
                served = client.recv(100)
                stack.pop_all()
                return client if served else None
        return None

    def test_shell_commands_inherit_neither_sockets_nor_camera(self):
        import stat
        import tempfile
        folder = tempfile.mkdtemp()
        listing = os.path.join(folder, "listing")
        script = os.path.join(folder, "cat")
        with open(script, "w", encoding="ascii") as file:
            file.write(f'#!/bin/sh\nls -l /proc/self/fd >> {listing}\nexec /bin/cat "$@"\n')
        os.chmod(script, stat.S_IRWXU)
        with Board(environment={"PATH": folder + ":" + os.environ["PATH"]}) as board:
            first = LiveStream()
            first.frame()
            second = LiveStream()  # its accept runs the commands beside an open connection
            second.frame()
            with open(listing, encoding="ascii") as file:
                text = file.read()
            self.assertNotIn("socket:", text)
            self.assertNotIn("eventpoll", text)
            self.assertNotIn("usb-camera.log", text)
            self.assertNotIn(board.camera.folder, text)


if __name__ == "__main__":
    unittest.main()

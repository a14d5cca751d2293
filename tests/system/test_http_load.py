"""Many clients of all kinds at once, and what holds the others back."""

import os
import threading
import unittest

from harness import CARD, Board, LiveStream, connect, wait_until
from test_http_answers import closed_without_an_answer, get, read_answer


class Load(unittest.TestCase):
    def test_64_clients_of_all_kinds_are_all_answered(self):
        with Board() as board:
            content = os.urandom(200000)
            with open(f"{CARD}/www/f.png", "wb") as file:
                file.write(content)
            together = threading.Barrier(64)
            failures = []

            def live(_):
                stream = LiveStream()
                return all(stream.frame() for _ in range(5))

            def snap(number):
                return read_answer(get(f"/snap?filename={number}.jpg"))[1]

            def measure(_):
                return read_answer(get("/camera?focus=1"))[1] == b'{"measure":"0.0000"}'

            def picture(_):
                return read_answer(get("/f.png"))[1] == content

            def garbage(_):
                client = connect()
                client.sendall(b"\x00garbage\r\n\r\n")
                return closed_without_an_answer(client)

            kinds = (live, snap, measure, picture, garbage)

            def one(number):
                kind = kinds[number % len(kinds)]
                together.wait()
                try:
                    if not kind(number):
                        failures.append(f"{kind.__name__}: wrong answer")
                except Exception as error:  # pylint: disable=broad-except # the test's, whatever it is
                    failures.append(f"{kind.__name__}: {error!r}")

            threads = [threading.Thread(target=one, args=(number,)) for number in range(64)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            self.assertEqual([], failures)
            self.assertTrue(board.server.alive())

    def test_client_that_does_not_read_is_closed_and_the_others_go_on(self):
        with Board() as board:
            def sockets():
                return sum(target.startswith("socket:")
                           for target in board.server.descriptors().values())
            deaf = get_deaf()
            live = LiveStream()
            live.frame()
            before = sockets()
            flood = threading.Thread(target=send_quietly, args=(deaf, b"x" * 2048, 2000))
            flood.start()
            self.assertEqual(b"invalid request", read_answer(get("/camera"))[1])
            live.frame()
            flood.join()
            wait_until(lambda: sockets() < before + 1, "the deaf client is closed")
            live.frame()


def get_deaf():
    """A client of "/camera" whose further bytes are answered into buffers that it never empties."""
    client = connect(receive_buffer=2048)
    client.sendall(b"GET /camera?focus=1 HTTP/1.1\r\n\r\n")
    read_answer(client)
    return client


def send_quietly(client, data, count):
    try:
        for _ in range(count):
            client.sendall(data)
    except OSError:
        pass


if __name__ == "__main__":
    unittest.main()

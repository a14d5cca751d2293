"""Measure what relay and board need for viewers, and print docs/many.md's tables.

Run inside tests/support/private-host, as the tests beside it; scripts/test relay table does. Every figure is
processor time, so another load on the machine changes it little, and the memory at the end. Viewers only read
here, to leave the machine to what is measured.
"""

import contextlib
import re
import selectors
import socket
import sys
import threading
import time

from fleet import TRUSTING, Fleet, Relay, Web, authorization, processor_seconds, resident_kilobytes, wait_until

SECONDS = 8
COUNTS = (1, 16, 64)


class Readers:
    """Viewers that read what comes, all in one thread."""

    def __init__(self):
        self.bytes = 0
        self._selector = selectors.DefaultSelector()
        self._quit = False
        self._sockets = []
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def add(self, client):
        self._sockets.append(client)
        self._selector.register(client, selectors.EVENT_READ)

    def _run(self):
        buffer = bytearray(1 << 18)
        while not self._quit:
            for key, _ in self._selector.select(0.1):
                with contextlib.suppress(OSError):
                    got = key.fileobj.recv_into(buffer)
                    self.bytes += got
                    if got == 0:
                        raise AssertionError("a viewer's stream has ended")

    def close(self):
        self._quit = True
        self._thread.join()
        for client in self._sockets:
            client.close()


def open_rtsp(path):
    """A connection on which an RTSP stream comes."""
    client = socket.create_connection(("127.0.0.1", 8554))
    url = f"rtsp://127.0.0.1:8554/{path}"

    def ask(number, method, target, more=""):
        client.sendall(f"{method} {target} RTSP/1.0\r\nCSeq: {number}\r\n{more}\r\n".encode())
        head = b""
        while b"\r\n\r\n" not in head:
            head += client.recv(1)
        length = re.search(rb"Content-Length: (\d+)", head)
        assert b" 200 OK" in head, head
        while length and len(head.split(b"\r\n\r\n", 1)[1]) < int(length.group(1)):
            head += client.recv(1)
        return head.decode()

    ask(1, "DESCRIBE", url, "Accept: application/sdp\r\n")
    said = ask(2, "SETUP", f"{url}/stream=0", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n")
    session = re.search(r"Session: ([^;\r\n]+)", said).group(1)
    # Pictures may come before the answer.
    client.sendall(f"PLAY {url} RTSP/1.0\r\nCSeq: 3\r\nSession: {session}\r\n\r\n".encode())
    return client


def open_live(address, port, target, secure):
    """A connection on which a Motion JPEG stream comes."""
    client = socket.create_connection((address, port))
    if secure:
        client = TRUSTING.wrap_socket(client)
    more = f"Authorization: {authorization()['Authorization']}\r\n" if secure else ""
    client.sendall(f"GET {target} HTTP/1.1\r\nHost: relay\r\n{more}\r\n".encode())
    return client


class Sample:
    """Processor time over SECONDS in percent of a core, and memory; what viewers got, and pictures a second."""

    def __init__(self, processes, boards, readers=None, relay=None):
        def state():
            return ([processor_seconds(pid) for pid in processes], sum(board.processor_seconds() for board in boards),
                    readers.bytes if readers else 0,
                    sum(value for name, value in relay.metrics().items()
                        if name.startswith("kestrel_relay_pictures_total")) if relay else 0, time.monotonic())
        before = state()
        time.sleep(SECONDS)  # the time that is measured
        after = state()
        span = after[4] - before[4]
        self.percent = [100 * (new - old) / span for new, old in zip(after[0], before[0])]
        self.board_percent = 100 * (after[1] - before[1]) / span
        self.sent = (after[2] - before[2]) / span / 1e6
        self.pictures = (after[3] - before[3]) / span
        self.megabytes = [resident_kilobytes(pid) / 1000 for pid in processes]
        self.board_megabytes = sum(resident_kilobytes(board.server.pid) for board in boards) / 1000


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [int(child) for child in file.read().split()]


def row(*cells):
    print(f"| {' | '.join(str(cell) for cell in cells)} |", flush=True)


def cell(percent, megabytes):
    return f"{percent:.1f} %, {megabytes:.0f} MB"


def viewers_of_one_board(fleet, relay, web):
    board = fleet.boards[0]
    name = board.name
    pid = relay.process.pid
    front = [web.process.pid, *children(web.process.pid)]
    sample = Sample([pid], [board], relay=relay)
    row("none", 0, "-", f"{sample.pictures:.0f}", cell(sample.percent[0], sample.megabytes[0]), "-",
        cell(sample.board_percent, sample.board_megabytes))
    for title, open_one, kind in (
            ("RTSP, JPEG as it is", lambda: open_rtsp(name), "rtsp"),
            ("RTSP, H.264", lambda: open_rtsp(f"{name}/h264"), "rtsp"),
            ("Motion JPEG by nginx", lambda: open_live("127.0.0.1", 443, f"/live/{name}", True), "http"),
            ("the board itself", lambda: open_live(board.address, 8329, "/live", False), None)):
        if not kind:
            relay_end(relay)
        for count in COUNTS:
            readers = Readers()
            for _ in range(count):
                readers.add(open_one())
            if kind:
                wait_until(lambda kind=kind, count=count: relay.viewers(name, kind) == count, f"{count} viewers", 60)
            else:
                wait_until(lambda count=count: board.clients() == count, f"{count} viewers", 60)
            time.sleep(2)  # the coming of viewers is not measured
            sample = Sample([pid, *front] if kind else [], [board], readers, relay if kind else None)
            row(title, count, f"{sample.sent:.1f} MB/s", f"{sample.pictures:.0f}" if kind else "-",
                cell(sample.percent[0], sample.megabytes[0]) if kind else "-",
                cell(sum(sample.percent[1:]), sum(sample.megabytes[1:])) if kind == "http" else "-",
                cell(sample.board_percent, sample.board_megabytes))
            readers.close()
            if kind:
                wait_until(lambda kind=kind: relay.viewers(name, kind) == 0, "nobody watches", 60)
            else:
                wait_until(lambda: board.clients() == 0, "nobody watches", 60)


def relay_end(relay):
    if relay.process.poll() is None:
        relay.close()


def boards_without_viewers():
    print("\n| Boards, nobody watches | Pictures/s | Relay | Each board's service |\n|---|---|---|---|")
    for count in (1, 8):
        fleet = Fleet(count, drawn=False)
        relay = Relay(fleet)
        time.sleep(2)  # as above
        sample = Sample([relay.process.pid], fleet.boards, relay=relay)
        print(f"| {count} | {sample.pictures:.0f} | {cell(sample.percent[0], sample.megabytes[0])} | "
              f"{cell(sample.board_percent / count, sample.board_megabytes / count)} |", flush=True)
        relay.close()
        fleet.close()


def recordings():
    print("\n| One board, recorded | Pictures/s | Relay |\n|---|---|---|")
    for form in ("jpeg", "h264"):
        fleet = Fleet(1, drawn=False)
        relay = Relay(fleet, f'[recording]\nboards = ["*"]\npictures = "{form}"\nfolder = "{fleet.folder}/r"\n')
        time.sleep(2)  # as above
        sample = Sample([relay.process.pid], fleet.boards, relay=relay)
        print(f"| {form} | {sample.pictures:.0f} | {cell(sample.percent[0], sample.megabytes[0])} |", flush=True)
        relay.close()
        fleet.close()


def main():
    row("Viewers of one board", "Number", "To the viewers", "Pictures/s", "Relay", "nginx", "The board's service")
    row(*["---"] * 7)
    fleet = Fleet(1, drawn=False)
    relay = Relay(fleet)
    web = Web(fleet)
    try:
        viewers_of_one_board(fleet, relay, web)
    finally:
        web.close()
        relay_end(relay)
        fleet.close()
    boards_without_viewers()
    recordings()
    return 0


if __name__ == "__main__":
    sys.exit(main())

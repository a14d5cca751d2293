"""What nginx passes on: the boards' state, the multipart streams and the figures. On 127.0.0.1 only."""

import http.server
import json
import os
import socket
import socketserver
import threading
import urllib.parse

from .metrics import CONTENT_TYPE, Metrics

BOUNDARY = "boundarydonotcross"
SEND_BUFFER = 65536  # bytes to nginx; the kernel's own choice may hold seconds of pictures for a slow viewer
PAGES = 1000  # names of pages that are told apart for one board, at most 64 characters each


def state_of(relayed):
    age = relayed.capture.age()
    return {"live": relayed.live, "age": None if age is None else round(age, 3), "id": relayed.board.number}


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    timeout = 60
    relay = None  # set by Web
    metrics = None

    def do_GET(self):
        path, _, query = self.path.partition("?")
        page = urllib.parse.parse_qs(query).get("page", [""])[0]
        parts = path.strip("/").split("/")
        board = self.relay.boards.get(parts[1]) if len(parts) == 2 else None
        if parts == ["metrics"]:
            self._answer(self.metrics.text(), CONTENT_TYPE)
        elif parts == ["state"]:
            self._answer_json({name: state_of(each) for name, each in self.relay.boards.items()})
        elif board and parts[0] == "state":
            if 0 < len(page) <= 64 and board.for_janus.viewers() < PAGES:
                board.watch_by_janus(page)
            self._answer_json(state_of(board))
        elif board and parts[0] == "live":
            self._stream(board)
        else:
            self.send_error(404)

    def _answer_json(self, value):
        self._answer(json.dumps(value).encode(), "application/json")

    def _answer(self, body, kind):
        self.send_response(200)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        self.wfile.write(body)

    def _stream(self, board):
        """Hand the connection over to the board's stream."""
        if not board.live:
            self.send_error(503, "No picture comes from the board")
            return
        self.send_response(200)
        self.send_header("Content-Type", f"multipart/x-mixed-replace;boundary={BOUNDARY}")
        self.send_header("Cache-Control", "no-store")
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.flush()
        self.close_connection = True
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, SEND_BUFFER)
        descriptor = self.connection.detach()
        if not board.watch_live(descriptor):
            os.close(descriptor)

    def log_message(self, format, *args):  # pylint: disable=redefined-builtin
        """nginx has the log of requests."""


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    request_queue_size = 128

    def handle_error(self, request, client_address):
        """A client that has gone is none of ours."""


class Web:
    """Answers on 127.0.0.1, in threads of its own, from construction on."""

    def __init__(self, relay, port):
        handler = type("RelayHandler", (Handler,), {"relay": relay, "metrics": Metrics(relay)})
        self._server = Server(("127.0.0.1", port), handler)
        threading.Thread(target=self._server.serve_forever, name="web", daemon=True).start()

    def stop(self):
        self._server.shutdown()
        self._server.server_close()

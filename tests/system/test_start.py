"""How the service starts, how its console works when something starts it, and how it goes down."""

import contextlib
import fcntl
import glob
import os
import re
import signal
import stat
import struct
import subprocess
import tempfile
import termios
import time
import unittest

from harness import (BUILD, EMULATOR, HTTP_PORT, Board, Camera, LiveStream, Server, connect,
                     listening, wait_until)

VERSION = os.environ.get("KESTREL_VERSION", "").encode()


class Tool:
    """A script that stands first in PATH for a tool and records how it was called."""

    def __init__(self, name, body=""):
        self.folder = tempfile.mkdtemp()
        self.calls_path = os.path.join(self.folder, "calls")
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="ascii") as script:
            script.write(f'#!/bin/sh\necho "$@" >> {self.calls_path}\n{body}\n')
        os.chmod(path, stat.S_IRWXU)
        self.environment = {"PATH": self.folder + ":" + os.environ["PATH"]}

    def calls(self):
        if not os.path.exists(self.calls_path):
            return []
        with open(self.calls_path, encoding="ascii") as file:
            return file.read().splitlines()


class Tracer(unittest.TestCase):
    def start(self, *arguments):
        tracer = Tool("strace")
        with Board(arguments=arguments, environment=tracer.environment) as board:
            if arguments[:1] == ("-p",):
                wait_until(tracer.calls, "the tracer is called")
            else:  # long enough up to have started one: the tracer comes before the listener
                connect().close()
            return tracer.calls(), board.server.process.pid

    def test_not_started_without_arguments(self):
        calls, _ = self.start()
        self.assertEqual([], calls)

    def test_not_started_for_another_first_argument(self):
        calls, _ = self.start("-x", "-p")
        self.assertEqual([], calls)

    def test_started_on_the_own_process(self):
        calls, pid = self.start("-p")
        self.assertEqual([f"-f -p {pid}"], calls)

    def test_started_with_a_string_length(self):
        calls, pid = self.start("-p", "200")
        self.assertEqual([f"-f -p {pid} -s 200"], calls)

    def test_started_with_the_greatest_string_length(self):
        calls, pid = self.start("-p", "2147483647")
        self.assertEqual([f"-f -p {pid} -s 2147483647"], calls)

    def test_string_length_that_is_no_number_is_zero(self):
        calls, pid = self.start("-p", "x")
        self.assertEqual([f"-f -p {pid} -s 0"], calls)


class Usage(unittest.TestCase):
    def setUp(self):
        for path in glob.glob("/tmp/usb-camera.log*"):
            os.unlink(path)

    def ask(self, *arguments):
        return subprocess.run(EMULATOR + [f"{BUILD}/application/kestrel-server", *arguments],
                              capture_output=True, timeout=30, check=False)

    def test_help_and_version_print_and_end(self):
        for argument, text in (("--help", rb"usage: kestrel-server \[-p \[LENGTH\]\]\n"),
                               ("--version", b"kestrel-server " + re.escape(VERSION) + rb"\n\Z")):
            done = self.ask(argument)
            self.assertEqual(0, done.returncode, argument)
            self.assertRegex(done.stdout, rb"\A" + text)
            self.assertEqual(b"", done.stderr)
        self.assertEqual([], glob.glob("/tmp/usb-camera.log*"), "nothing was started")

    def test_they_answer_beside_a_running_service_and_leave_its_log_alone(self):
        with Board() as board:
            for argument in ("--help", "--version") * 2:
                self.assertEqual(0, self.ask(argument).returncode)
            logs = [path for path in board.server.descriptors().values() if "usb-camera" in path]
            self.assertEqual(logs, glob.glob("/tmp/usb-camera.log*"))

    def test_deliberate_any_other_argument_starts_a_service(self):
        for arguments in (("--help", "x"), ("x", "--help"), ("--Version",), ("-h",), ("",),
                          ("--help=",), ("--version", "--help")):
            with Board(arguments=arguments):
                self.assertTrue(listening(HTTP_PORT))

    def test_deliberate_second_services_remove_the_log_of_the_first(self):
        with Board() as board:
            for _ in range(2):
                time.sleep(1.1)  # files are named by the second
                self.assertEqual(1, self.ask("anything").returncode, "the port is in use")
            logs = [path for path in board.server.descriptors().values() if "usb-camera" in path]
            self.assertEqual(1, len(logs))
            self.assertTrue(logs[0].endswith(" (deleted)"))


class Console(unittest.TestCase):
    def board(self):
        board = Board(program="kestrel-server-console", stdin=subprocess.PIPE)
        self.addCleanup(board.__exit__)
        return board

    def type(self, board, text):
        board.server.process.stdin.write(text.encode())
        board.server.process.stdin.flush()

    def test_q_brings_the_service_down_in_order(self):
        board = self.board()

        self.type(board, "q\n")

        self.assertEqual(0, board.server.wait_ended())
        calls = [line for line in board.camera.journal() if "STREAMOFF" in line]
        self.assertEqual(1, len(calls), "the camera was stopped in order")

    def test_quit_goes_down_cleanly_with_clients_connected(self):
        board = self.board()
        live = [LiveStream() for _ in range(3)]
        idle = connect()
        for client in live:
            client.frame()

        self.type(board, "quit\n")

        self.assertEqual(0, board.server.wait_ended())
        for client in live:
            with self.assertRaises((EOFError, ConnectionError)):
                while True:
                    client.frame()
        self.assertEqual(b"", idle.recv(1))

    def test_service_can_be_started_again_after_it_went_down(self):
        for _ in range(2):
            board = Board(program="kestrel-server-console", stdin=subprocess.PIPE)
            try:
                self.type(board, "q\n")
                self.assertEqual(0, board.server.wait_ended())
            finally:
                board.__exit__()

    def test_two_words_open_a_shell_and_one_does_nothing(self):
        board = self.board()

        self.type(board, "SystemManager\n")
        self.type(board, "SystemManager shell\n")
        children = f"/proc/{board.server.process.pid}/task"

        def shell():
            for task in os.listdir(children):
                with open(f"{children}/{task}/children", encoding="ascii") as file:
                    for child in file.read().split():
                        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                            with open(f"/proc/{child}/cmdline", "rb") as line:
                                if line.read() in (b"/bin/sh\0", b"sh\0-c\0/bin/sh\0"):
                                    return child
            return None

        wait_until(shell, "a shell runs")
        self.type(board, "echo the answer is $((40 + 2)); exit\n")
        wait_until(lambda: "the answer is 42" in board.server.output(), "the shell answers")
        wait_until(lambda: not shell(), "the shell has ended")
        self.type(board, "q\n")
        self.assertEqual(0, board.server.wait_ended())

    def test_end_of_input_ends_the_console_alone(self):
        board = self.board()

        board.server.process.stdin.close()

        wait_until(lambda: "fgets err" in log_text(), "the console's end is logged")
        client = LiveStream()
        client.frame()
        client.close()

    def test_shipped_service_never_reads_standard_input(self):
        read_end, write_end = os.pipe()
        with Board(stdin=read_end) as board:
            os.write(write_end, b"q\nSystemManager shell\n")
            live = LiveStream()
            for _ in range(30):  # more than the second in which a quit would take effect
                live.frame()
            waiting = struct.unpack("i", fcntl.ioctl(read_end, termios.FIONREAD, b"\0" * 4))[0]
            self.assertEqual(22, waiting)
            self.assertTrue(board.server.alive())
        os.close(read_end)
        os.close(write_end)


def log_text():
    text = ""
    for name in os.listdir("/tmp"):
        if name.startswith("usb-camera.log."):
            with open(f"/tmp/{name}", encoding="utf-8", errors="replace") as file:
                text += file.read()
    return text


class FailingStart(unittest.TestCase):
    def test_port_in_use_ends_the_start_with_the_failing_code(self):
        blocker = connect_listener()
        camera = Camera()
        server = Server(camera=camera, wait=False)
        try:
            self.assertEqual(1, server.wait_ended())
            journal = "\n".join(camera.journal())
            self.assertIn("STREAMON", journal)
            self.assertIn("STREAMOFF", journal, "what was up was brought down again")
            self.assertFalse([t for t in ("assert",) if t in server.output().lower()])
        finally:
            server.close()
            camera.close()
            blocker.close()


def connect_listener():
    import socket
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("0.0.0.0", HTTP_PORT))
    listener.listen()
    return listener


class Signals(unittest.TestCase):
    def test_broken_pipes_are_ignored_before_the_log_is_set_up(self):
        journal = os.path.join(tempfile.mkdtemp(), "journal")
        environment = {"KESTREL_FAULT_PROGRAM": "kestrel-server", "KESTREL_FAULT_JOURNAL": journal,
                       "KESTREL_FAULT_JOURNAL_CALLS": "signal open fopen fopen64"}
        library = f"{BUILD}/tests/support/fault/libkestrel_fault_preload.so"
        with Board(environment=environment, preload=[library]) as board:
            with open(f"/proc/{board.server.process.pid}/status", encoding="ascii") as file:
                ignored = int(re.search(r"^SigIgn:\s*(\w+)$", file.read(), re.M).group(1), 16)
            self.assertTrue(ignored & 1 << (signal.SIGPIPE - 1))
        with open(journal, encoding="utf-8") as file:
            calls = [line.split("|")[1] for line in file.read().splitlines()]
        log = next(i for i, call in enumerate(calls) if "/tmp/usb-camera.log" in call)
        self.assertIn(f"signal {int(signal.SIGPIPE)}", calls[:log])

    def test_fatal_signal_ends_the_service_without_a_report(self):
        with Board() as board:
            board.server.process.send_signal(signal.SIGTERM)
            self.assertEqual(-signal.SIGTERM, board.server.wait_ended())
            self.assertNotIn("System is terminated", board.server.output())
        self.assertFalse(listening(HTTP_PORT))

    def test_write_to_a_closed_socket_does_not_end_the_service(self):
        with Board() as board:
            for _ in range(5):
                client = LiveStream()
                client.frame()
                client.close()
            survivor = LiveStream()
            survivor.frame()
            self.assertTrue(board.server.alive())


if __name__ == "__main__":
    unittest.main()

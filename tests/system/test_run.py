"""scripts/run as a newcomer meets it: its service alone counts as running, and each reason not to start
is one line and a status.

The script runs in a folder of its own that stands for a checkout whose packages are installed and
whose build is done: this test's build.
"""

import contextlib
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest

from harness import BUILD, CARD, HTTP_PORT, LOG_PORT, SOURCE, listening, request, wait_until

SERVICE = f"{BUILD}/application/kestrel-server"


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="ascii") as file:
        file.write(text)
    os.chmod(path, 0o755)


class Checkout:
    """A folder with the script, the web application, and the build."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="kestrel-run.")
        shutil.copytree(f"{SOURCE}/www", f"{self.folder}/www")
        os.makedirs(f"{self.folder}/build")
        os.symlink(BUILD, f"{self.folder}/build/release")
        write(f"{self.folder}/scripts/lib/packages", "#!/bin/sh\n")
        write(f"{self.folder}/scripts/lib/configure", "#!/bin/sh\n")
        write(f"{self.folder}/bin/cmake", "#!/bin/sh\n")
        shutil.copy(f"{SOURCE}/scripts/run", f"{self.folder}/scripts/run")

    def replace_service(self, text):
        """Another program in the service's place."""
        os.unlink(f"{self.folder}/build/release")
        write(f"{self.folder}/build/release/application/kestrel-server", text)
        os.symlink(f"{BUILD}/simulator", f"{self.folder}/build/release/simulator")

    def start(self, *arguments, user=None):
        environment = dict(os.environ, PATH=f"{self.folder}/bin:{os.environ['PATH']}")
        return subprocess.Popen(
            [f"{self.folder}/scripts/run", *arguments], env=environment, cwd="/", user=user, text=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            start_new_session=True)

    def file(self, name):
        with open(f"{self.folder}/build/run/{name}", "rb") as file:
            return file.read()


def children(process):
    with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as file:
        return [int(number) for number in file.read().split()]


class Run(unittest.TestCase):
    def setUp(self):
        self.checkout = Checkout()
        self.addCleanup(shutil.rmtree, self.checkout.folder)
        self.addCleanup(wait_until, lambda: not listening(HTTP_PORT), "the service has gone")

    def start(self, *arguments, checkout=None):
        run = (checkout or self.checkout).start(*arguments)
        self.addCleanup(self.end, run)
        return run

    def end(self, run):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(run.pid, signal.SIGKILL)
        run.stdout.close()
        run.wait()

    def until_running(self, run):
        lines = []
        while not lines or not lines[-1].startswith("running:"):
            lines.append(run.stdout.readline())
            self.assertTrue(lines[-1], "".join(lines))
        return lines

    def assert_refused(self, run, text):
        output = run.communicate(timeout=60)[0]
        self.assertEqual(1, run.returncode, output)
        self.assertIn(text, output)
        self.assertEqual(1, output.count("\n"), output)

    def test_it_says_running_once_its_service_answers(self):
        run = self.start()

        lines = self.until_running(run)

        response, page = request("/index.html")
        with open(f"{SOURCE}/www/index.html", "rb") as file:
            self.assertEqual((200, file.read()), (response.status, page))
        self.assertEqual("running:       http://127.0.0.1:8329/index.html (Ctrl-C ends it)\n", lines[-1])

    def test_it_tells_where_it_listens_and_who_can_reach_it(self):
        subprocess.run(["ip", "link", "add", "away", "type", "veth", "peer", "name", "far"], check=True)
        self.addCleanup(subprocess.run, ["ip", "link", "del", "away"], check=True)

        lonely = "".join(self.until_running(run := self.start()))
        self.end(run)
        wait_until(lambda: not listening(HTTP_PORT), "the service has gone")
        subprocess.run(["ip", "address", "add", "10.94.0.1/24", "dev", "away"], check=True)
        subprocess.run(["ip", "link", "set", "away", "up"], check=True)
        reached = "".join(self.until_running(self.start()))

        self.assertIn("listening on:  127.0.0.1 (TCP 8329; the log on 8001)\n", lonely)
        self.assertIn("reached by:    this machine alone", lonely)
        self.assertIn("listening on:  127.0.0.1 10.94.0.1 (TCP 8329; the log on 8001)\n", reached)
        self.assertIn("reached by:    every machine of these networks", reached)

    def test_interrupt_ends_it_with_its_service_and_camera(self):
        run = self.start()
        self.until_running(run)
        started = children(run)

        os.kill(run.pid, signal.SIGINT)

        self.assertEqual(0, run.wait(30))
        self.assertEqual(2, len(started))
        for process in started:
            wait_until(lambda path=f"/proc/{process}": not os.path.exists(path), "the child has gone")

    def test_taken_port_is_named_with_its_holder(self):
        for port in (HTTP_PORT, LOG_PORT):
            with socket.create_server(("0.0.0.0", port)):
                self.assert_refused(self.start(), f"TCP port {port} is taken by python3")
        self.assertFalse(os.path.exists(f"{self.checkout.folder}/build/run"))

    def test_second_start_leaves_the_first_one_alone(self):
        self.until_running(self.start())
        before = (self.checkout.file("kestrel-server.out"),
                  os.stat(f"{CARD}/www/index.html").st_mtime_ns, sorted(os.listdir("/tmp")))

        self.assert_refused(self.start(), f"TCP port {HTTP_PORT} is taken by kestrel-server (process ")

        self.assertEqual(before, (self.checkout.file("kestrel-server.out"),
                                  os.stat(f"{CARD}/www/index.html").st_mtime_ns,
                                  sorted(os.listdir("/tmp"))))
        self.assertEqual(200, request("/index.html")[0].status)

    def test_second_start_while_the_first_one_builds_is_refused(self):
        write(f"{self.checkout.folder}/bin/cmake", "#!/bin/sh\nexec sleep 600\n")
        first = self.start()
        self.assertIn("building", first.stdout.readline())

        self.assert_refused(self.start(), "already at work in this folder")

    def test_service_that_fails_is_not_called_running(self):
        self.checkout.replace_service("#!/bin/sh\necho no luck >&2\nexit 3\n")

        run = self.start()
        output = run.communicate(timeout=60)[0]

        self.assertEqual(1, run.returncode)
        self.assertIn("no luck\nscripts/run: kestrel-server did not start", output)
        self.assertNotIn("running:", output)

    def test_somebody_elses_answer_is_not_taken_for_its_own(self):
        # The ports are taken behind its last look, while its own program hangs.
        self.checkout.replace_service("#!/bin/sh\n: >\"$0.up\"\nexec sleep 600\n")
        run = self.start()
        up = f"{self.checkout.folder}/build/release/application/kestrel-server.up"
        wait_until(lambda: os.path.exists(up), "the program runs")
        other = subprocess.Popen(["python3", "-m", "http.server", str(HTTP_PORT), "--directory",
                                  f"{SOURCE}/www"], stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)

        output = run.communicate(timeout=60)[0]

        self.assertEqual(1, run.returncode)
        self.assertNotIn("running:", output)

    def test_service_that_ends_later_is_told_with_its_last_words(self):
        run = self.start()
        self.until_running(run)

        os.kill(next(p for p in children(run) if os.readlink(f"/proc/{p}/exe") ==
                     os.path.realpath(SERVICE)), signal.SIGKILL)

        self.assertIn("scripts/run: kestrel-server has ended with status 137",
                      run.communicate(timeout=60)[0])
        self.assertEqual(1, run.returncode)

    def test_card_folder_that_leads_elsewhere_is_refused(self):
        shutil.rmtree("/tmp/run", ignore_errors=True)
        target = f"{self.checkout.folder}/elsewhere"
        os.mkdir(target)
        os.symlink(target, "/tmp/run")
        self.addCleanup(os.unlink, "/tmp/run")

        self.assert_last_line(self.start(), "/tmp/run is a symbolic link; remove it")

        self.assertEqual([], os.listdir(target))

    def test_card_folder_that_cannot_be_made_is_one_line(self):
        shutil.rmtree("/tmp/run", ignore_errors=True)
        write("/tmp/run", "")
        self.addCleanup(os.unlink, "/tmp/run")

        self.assert_last_line(self.start(), "cannot make the folder /tmp/run")

    def assert_last_line(self, run, text):
        output = run.communicate(timeout=60)[0]
        self.assertEqual(1, run.returncode, output)
        self.assertIn(text, output.splitlines()[-1])

    def test_checkout_that_cannot_be_written_is_one_line(self):
        shutil.rmtree(f"{self.checkout.folder}/build")
        write(f"{self.checkout.folder}/build", "")

        self.assert_refused(self.start(), "/build/run; what is there belongs to ")

    def test_help_tells_and_does_nothing(self):
        for word in ("-h", "--help"):
            run = self.start(word)
            output = run.communicate(timeout=60)[0]
            self.assertEqual(0, run.returncode)
            self.assertTrue(output.startswith("usage: scripts/run [station]\n"), output)
        self.assertFalse(os.path.exists(f"{self.checkout.folder}/build/run"))

    def test_unknown_word_is_answered_with_the_usage(self):
        run = self.start("--halp")
        output = run.communicate(timeout=60)[0]
        self.assertEqual(2, run.returncode)
        self.assertTrue(output.startswith("usage: scripts/run [station]\n"), output)


if __name__ == "__main__":
    unittest.main()

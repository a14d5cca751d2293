"""Figures and logs: Prometheus, the dashboard's queries, rsyslog."""

import json
import os
import shutil
import socket
import subprocess
import sys
import unittest
import urllib.parse
import urllib.request

from fleet import (PACKAGE, PASSWORD, RELAY, SOURCE, UNPACKED, USER, Fleet, Relay, Viewer, Web, answers, end, run,
                   wait_until)

sys.path.insert(0, f"{SOURCE}/tests/system/station")
from station import Station, request  # noqa: E402
from test_job import Owner, make_job, upload  # noqa: E402, pylint: disable=wrong-import-order

EXAMPLES = f"{PACKAGE}/examples"
PROMETHEUS = "http://127.0.0.1:9090"
DASHBOARD = f"{EXAMPLES}/grafana-dashboard.json"


def queries():
    """(panel, expression) of the dashboard, as Grafana fills them in."""
    with open(DASHBOARD, encoding="utf-8") as file:
        dashboard = json.load(file)
    for panel in dashboard["panels"]:
        for target in panel["targets"]:
            expression = target["expr"].replace("$__rate_interval", "1m")
            for variable in ("$board", "$arm"):
                expression = expression.replace(variable, ".*")
            yield panel["title"], expression


def ask(path, **parameters):
    with urllib.request.urlopen(f"{PROMETHEUS}/api/v1/{path}?{urllib.parse.urlencode(parameters)}",
                                timeout=10) as answer:
        said = json.load(answer)
    assert said["status"] == "success", said
    return said["data"]


def queries_of(title):
    return [expression for panel, expression in queries() if panel == title]


def value(expression):
    """The first one's, or None."""
    found = ask("query", query=expression)["result"]
    return float(found[0]["value"][1]) if found else None


class Figures(unittest.TestCase):
    """A real Prometheus with the shipped configuration asks a real relay through nginx, and a real station."""

    @classmethod
    def setUpClass(cls):
        cls.fleet = Fleet(2)
        cls.addClassCleanup(cls.fleet.close)
        folder = cls.fleet.folder
        cls.relay = Relay(cls.fleet, f'[recording]\nboards = ["board-1"]\nfolder = "{folder}/recordings"\n')
        cls.addClassCleanup(cls.relay.close)
        cls.web = Web(cls.fleet)
        cls.addClassCleanup(cls.web.close)
        cls.station = Station()
        cls.addClassCleanup(cls.station.close)
        cls.configuration = f"{folder}/prometheus"
        os.makedirs(cls.configuration)
        shutil.copy(f"{EXAMPLES}/kestrel.rules.yml", cls.configuration)
        shutil.copy(f"{cls.web.folder}/tls.pem", f"{cls.configuration}/kestrel-relay.pem")
        with open(f"{cls.configuration}/kestrel-relay.password", "w", encoding="ascii") as file:
            file.write(PASSWORD)
        shutil.copy(cls.station.path("token"), f"{cls.configuration}/kestrel-station.token")
        with open(f"{EXAMPLES}/prometheus.yml", encoding="utf-8") as file:
            text = file.read()
        # The test's user, its addresses, the relay's with the certificate's name, and less waiting.
        text = text.replace("username: prometheus", f"username: {USER}")
        text = text.replace("relay:443", "127.0.0.1:443").replace("arm:8330", "127.0.0.1:8330")
        text = text.replace("ca_file: kestrel-relay.pem", "ca_file: kestrel-relay.pem\n      server_name: relay")
        with open(f"{cls.configuration}/prometheus.yml", "w", encoding="utf-8") as file:
            file.write(text.replace("_interval: 10s", "_interval: 1s"))
        with open(f"{folder}/prometheus.out", "wb") as output:
            cls.prometheus = subprocess.Popen(
                [f"{UNPACKED}/usr/bin/prometheus", f"--config.file={cls.configuration}/prometheus.yml",
                 f"--storage.tsdb.path={folder}/tsdb", "--web.listen-address=127.0.0.1:9090"],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        cls.addClassCleanup(end, cls.prometheus)
        wait_until(lambda: answers(9090, cls.prometheus), "Prometheus listens")
        wait_until(cls.scraped, "Prometheus has asked relay and station")

    @classmethod
    def scraped(cls):
        try:
            return [target["health"] for target in ask("targets")["activeTargets"]] == ["up", "up"]
        except OSError:
            return False

    def run_job(self):
        """A job of more than a minute, and who renews its lease."""
        self.station.ready()
        request("POST", "/level", {"level": "motion"})
        # The former job's end keeps the arm in use for a moment.
        wait_until(lambda: request("POST", "/home", {}).status == 200, "the arm is homed")
        self.station.wait_for(lambda state: state["camera"]["present"], "pictures come")
        self.assertIn(upload("long.gcode", make_job(20000), "&replace=true").status, (200, 201))
        owner = Owner("long.gcode")
        self.addCleanup(owner.close)
        self.assertEqual(200, owner.answer.status, owner.answer.body)
        return owner

    def stop_job(self):
        request("POST", "/off", {})
        self.station.wait_for(lambda state: state["job"] is None and state["guard"]["beam_seen_off"], "the job is over")

    def test_configuration_and_rules_are_sound(self):
        promtool = f"{UNPACKED}/usr/bin/promtool"
        said = run(promtool, "check", "config", f"{self.configuration}/prometheus.yml")
        self.assertIn("9 rules found", said)
        run(promtool, "test", "rules", f"{PACKAGE}/../../tests/relay/kestrel.rules.test.yml")

    def test_figures_are_sound(self):
        with urllib.request.urlopen("http://127.0.0.1:8331/metrics", timeout=10) as answer:
            relays = answer.read()
        for text in (relays, request("GET", "/metrics").body):
            done = subprocess.run([f"{UNPACKED}/usr/bin/promtool", "check", "metrics"], input=text,
                                  capture_output=True, check=False)
            self.assertEqual((0, b""), (done.returncode, done.stdout + done.stderr))

    def test_every_query_of_the_dashboard_has_a_result(self):
        self.run_job()
        self.stop_job()  # a trip
        self.run_job()
        self.addCleanup(self.stop_job)
        self.relay.wait_live("board-1")  # before that the mount refuses whoever comes
        viewer = Viewer("board-1")
        self.addCleanup(viewer.close)
        wait_until(lambda: viewer.pictures() > 10, "pictures come")
        asked = list(queries())
        self.assertGreater(len(asked), 10)

        for title, expression in asked:
            wait_until(lambda expression=expression: ask("query", query=expression)["result"],
                       f"{title}: {expression} has a result")
        boards = ask("label/board/values", **{"match[]": "kestrel_relay_board_up"})
        self.assertEqual(["board-1", "board-2"], boards)
        arms = ask("label/instance/values", **{"match[]": "kestrel_job_running"})
        self.assertEqual(["127.0.0.1:8330"], arms)

    def test_job_and_trip_are_the_stations(self):
        job = queries_of("Job")[0]
        through = queries_of("Lines of the job that are through")[0]
        tripped = 'ALERTS{alertname="KestrelTripped",alertstate="firing",reason="lease"}'
        wait_until(lambda: value(job) == 0, "no job is seen")
        self.assertIsNone(value(tripped))

        owner = self.run_job()
        self.addCleanup(self.stop_job)
        wait_until(lambda: value(job) == 1, "the job is seen to run")
        wait_until(lambda: (value(through) or 0) > 0, "lines are seen to pass")
        self.assertLess(value(through), 1)
        self.assertEqual(200, request("POST", "/job/pause", {}).status)
        wait_until(lambda: value(job) == 2, "the job is seen to be held")
        wait_until(lambda: value('ALERTS{alertname="KestrelJobHeld",alertstate="pending"}') == 1, "the rule sees it")
        owner.close()  # nobody renews the lease

        wait_until(lambda: value(tripped) == 1, "the rule sees the trip")
        wait_until(lambda: value(job) == 0, "the job is seen to be over")
        self.assertEqual(1, value('kestrel_trips_total{reason="lease"}'))

    def test_values_are_the_boards(self):
        wait_until(lambda: (value('rate(kestrel_relay_pictures_total{board="board-2"}[10s])') or 0) > 15,
                   "pictures are counted")
        self.assertLess(value('rate(kestrel_relay_pictures_total{board="board-2"}[10s])'), 35)
        self.assertEqual(2, value("sum(kestrel_relay_board_up)"))

        self.fleet.boards[1].command("freeze")
        self.addCleanup(self.relay.wait_live, "board-2")
        self.addCleanup(self.fleet.boards[1].command, "thaw")

        wait_until(lambda: value('kestrel_relay_board_up{board="board-2"}') == 0, "the board is down")
        wait_until(lambda: value('ALERTS{alertname="KestrelBoardDown",board="board-2",alertstate="pending"}') == 1,
                   "the rule sees it")
        self.assertGreater(value('kestrel_relay_picture_age_seconds{board="board-2"}'), 1)


class Logs(unittest.TestCase):
    """rsyslog with the shipped recipes."""

    def setUp(self):
        self.fleet = Fleet(1)
        self.addCleanup(self.fleet.close)
        self.folder = self.fleet.folder

    def rsyslog(self, name, recipe, *replaced):
        """rsyslog with a recipe in a folder's place of /var/log, and with a socket of its own: both."""
        with open(f"{EXAMPLES}/{recipe}", encoding="utf-8") as file:
            text = file.read()
        for old, new in replaced:
            self.assertIn(old, text)
            text = text.replace(old, new)
        place = f"{self.folder}/{name}"
        os.makedirs(f"{place}/work", exist_ok=True)
        path = f"{place}/rsyslog.conf"
        with open(path, "w", encoding="utf-8") as file:
            file.write(f'global(workDirectory="{place}/work")\nmodule(load="imuxsock" SysSock.Use="off")\n'
                       f'input(type="imuxsock" Socket="{place}/log" RateLimit.Interval="0")\n{text}\n'
                       f'*.* action(type="omfile" file="{place}/passed")\n')
        modules = f"{UNPACKED}/usr/lib/x86_64-linux-gnu/rsyslog"
        run(f"{UNPACKED}/usr/sbin/rsyslogd", "-N1", "-f", path, "-M", modules, stderr=None)
        process = subprocess.Popen([f"{UNPACKED}/usr/sbin/rsyslogd", "-n", "-f", path, "-M", modules,
                                    "-i", f"{place}/pid"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        self.addCleanup(end, process)
        wait_until(lambda: os.path.exists(f"{place}/log"), "rsyslog listens")
        return process, f"{place}/log"

    def relays_rsyslog(self):
        return self.rsyslog("relay", "rsyslog-relay.conf", ("/var/log/kestrel", f"{self.folder}/kestrel"))

    def lines(self, name, folder="kestrel"):
        path = f"{self.folder}/{folder}/{name}"
        if not os.path.exists(path):
            return []
        with open(path, encoding="utf-8") as file:
            return file.read().splitlines()

    def follow(self, host, syslog):
        path = f"{self.folder}/logs.toml"
        with open(path, "w", encoding="ascii") as file:
            file.write(f'[boards]\nnorth = "{host}"\n')
        process = subprocess.Popen([RELAY, "--config", path, "logs", "--socket", syslog], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(end, process)

    def test_log_port_of_a_board_fills_its_file(self):
        """In the board's place stands what sends lines: the service itself logs hardly any."""
        _, syslog = self.relays_rsyslog()
        listener = socket.create_server(("127.0.0.1", 8001))
        self.addCleanup(listener.close)
        self.follow("127.0.0.1", syslog)

        for number in (1, 2):  # it connects again
            client, _ = listener.accept()
            client.sendall(b"first %d\nsecond \x1b[31m%d\nhalf" % (number, number))
            client.close()

        wait_until(lambda: len(self.lines("kestrel-board-north.log")) == 6, "all lines are there")
        texts = [line.split("kestrel-board-north: ")[1] for line in self.lines("kestrel-board-north.log")]
        self.assertEqual(["first 1", "second  [31m1", "half", "first 2", "second  [31m2", "half"], texts)

    def test_boards_service_has_the_connection(self):
        """8001 of a real board, with the connection that it shows."""
        board = self.fleet.boards[0]
        self.follow(board.address, self.relays_rsyslog()[1])

        def followed():
            with open(f"/proc/{board.host.pid}/net/tcp", encoding="ascii") as table:
                return any(line.split()[1].endswith(":1F41") and line.split()[3] == "01"
                           for line in table.readlines()[1:])
        wait_until(followed, "the log is followed")
        board.kill()
        wait_until(lambda: not followed(), "it has gone")
        board.start()
        wait_until(followed, "it is followed again")

    def test_journal_of_a_board_comes_and_waits_for_the_relay(self):
        def boards_rsyslog():
            return self.rsyslog("board", "rsyslog-board.conf", ("RELAY", "127.0.0.1"))

        def write(socket_path, *texts):
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
                for text in texts:
                    client.sendto(f"<13>Nov 22 10:00:00 {text}".encode(), socket_path)

        process, there = boards_rsyslog()  # and no relay
        write(there, "kestrel-server[7]: one", "cron[8]: not ours")
        wait_until(lambda: len(self.lines("passed", "board")) >= 2, "both have come to the queue")
        end(process)
        kept = [name for name in os.listdir(f"{self.folder}/board/work") if name.startswith("kestrel-relay.")]
        self.assertNotEqual([], kept)
        _, there = boards_rsyslog()
        self.relays_rsyslog()
        write(there, "kestrel-guard[9]: two")

        def came():
            """What waited may come after what did not, and twice."""
            return {line.split(" ", 2)[2] for line in self.lines("journal-127.0.0.1.log")}
        wait_until(lambda: came() == {"kestrel-server[7]: one", "kestrel-guard[9]: two"}, "both lines are there")

    def test_rotation_is_sound(self):
        path = f"{self.folder}/logrotate"
        shutil.copy(f"{EXAMPLES}/logrotate", path)
        os.chmod(path, 0o644)
        done = subprocess.run(["/usr/sbin/logrotate", "--debug", path], capture_output=True, text=True, check=False)
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertNotIn("error", done.stderr)


if __name__ == "__main__":
    unittest.main()

"""Recording in segments, and the rule by which they go."""

import contextlib
import os
import sys
import tempfile
import time
import unittest
from types import SimpleNamespace

from fleet import PACKAGE, Fleet, Relay, run, wait_until

sys.path.insert(0, PACKAGE)
from kestrel_relay.recorder import GIGABYTE, CleanUp, to_remove, unused  # noqa: E402

NOW = 10**9
DAY = 86400


def files(folder):
    return sorted(os.listdir(folder)) if os.path.isdir(folder) else []


def pictures(path, codec):
    """The number of pictures in a file, and the seconds between its first and its last."""
    lines = run("ffprobe", "-v", "error", "-select_streams", "v:0",
                "-show_entries", "stream=codec_name:packet=pts_time", "-of", "csv=p=0", path).split()
    assert codec in lines, lines
    times = [float(line.strip(",")) for line in lines if line != codec]
    return len(times), times[-1] - times[0]


def recording(relay):
    return relay.metrics()['kestrel_relay_recording{board="board-1"}']


class Recording(unittest.TestCase):
    def record(self, form):
        """(fleet, folder of the recordings of a board that is recorded in segments of three seconds)."""
        fleet = Fleet(1)
        self.addCleanup(fleet.close)
        folder = f"{fleet.folder}/recordings"
        relay = Relay(fleet, f'[recording]\nboards = ["*"]\npictures = "{form}"\nfolder = "{folder}"\n'
                             "minutes = 0.05\n")
        self.addCleanup(relay.close)
        return fleet.boards[0], relay, f"{folder}/board-1"

    def test_segments_hold_the_cameras_bytes(self):
        board, relay, folder = self.record("jpeg")
        wait_until(lambda: len(files(folder)) >= 3, "a third segment begins")
        kept = board.frames()

        first, second = (f"{folder}/{name}" for name in files(folder)[:2])
        for path in (first, second):
            count, seconds = pictures(path, "mjpeg")
            self.assertGreater(count, 20)
            self.assertGreater(seconds, 1.5)
            self.assertLess(seconds, 4.5)
        with tempfile.TemporaryDirectory() as place:
            run("ffmpeg", "-v", "error", "-i", second, "-c", "copy", "-f", "image2", f"{place}/%04d.jpg")
            for name in os.listdir(place):
                with open(f"{place}/{name}", "rb") as file:
                    self.assertIn(file.read(), kept, name)
        self.assertEqual(1, recording(relay))

    def test_gap_ends_a_file_and_begins_another(self):
        board, relay, folder = self.record("h264")
        wait_until(lambda: recording(relay), "it is recorded")

        board.command("freeze")
        wait_until(lambda: not recording(relay), "recording has stopped")
        before = files(folder)
        for name in before:
            pictures(f"{folder}/{name}", "h264")  # whole files
        board.command("thaw")

        wait_until(lambda: len(files(folder)) > len(before) + 1, "two more segments begin")
        count, _ = pictures(f"{folder}/{files(folder)[len(before)]}", "h264")
        self.assertGreater(count, 20)

    def test_rule_is_applied(self):
        """To what an earlier relay has left."""
        fleet = Fleet(1)
        self.addCleanup(fleet.close)
        folder = f"{fleet.folder}/recordings/board-1"
        os.makedirs(folder)
        for name, days in (("2026-01-01T00-00-00Z.mkv", 8), ("2026-01-01T00-10-00Z.2.mkv", 6)):
            with open(f"{folder}/{name}", "w", encoding="ascii") as file:
                file.write("x")
            os.utime(f"{folder}/{name}", (time.time() - days * DAY,) * 2)

        relay = Relay(fleet, f'[recording]\nfolder = "{fleet.folder}/recordings"\nkeep_days = 7\n'
                             "keep_free_gigabytes = 0.000001\n")
        self.addCleanup(relay.close)

        wait_until(lambda: relay.metrics()["kestrel_relay_recordings_removed_total"] == 1, "one is removed")
        self.assertEqual(["2026-01-01T00-10-00Z.2.mkv"], files(folder))
        wait_until(lambda: relay.metrics()["kestrel_relay_recorded_files"] == 1, "the other is counted")

    def test_full_disk_is_told_until_there_is_room(self):
        fleet = Fleet(1)
        self.addCleanup(fleet.close)
        folder = f"{fleet.folder}/recordings"
        os.mkdir(folder)
        run("mount", "-n", "-t", "tmpfs", "-o", "size=64m", "small-disk", folder)
        self.addCleanup(run, "umount", folder)
        relay = Relay(fleet, f'[recording]\nboards = ["*"]\nfolder = "{folder}"\nkeep_free_gigabytes = 0.000001\n')
        self.addCleanup(relay.close)

        wait_until(lambda: recording(relay), "it is recorded")

        with open(f"{folder}/other", "wb", buffering=0) as other, contextlib.suppress(OSError):
            while True:
                other.write(bytes(4096))
        wait_until(lambda: not recording(relay), "nothing is recorded")
        until = time.monotonic() + 4  # several attempts
        while time.monotonic() < until:
            self.assertEqual(0, recording(relay))
        self.assertLessEqual(len(files(f"{folder}/board-1")), 2)  # what was there, and an attempt
        os.unlink(f"{folder}/other")
        wait_until(lambda: recording(relay), "it is recorded again")

        count, _ = pictures(f"{folder}/board-1/{files(f'{folder}/board-1')[-1]}", "mjpeg")
        self.assertGreater(count, 0)
        with open(f"{fleet.folder}/relay.out", encoding="utf-8") as file:
            self.assertEqual(1, file.read().count("board-1: the recording has failed: "))

    def test_end_leaves_whole_files(self):
        _, relay, folder = self.record("jpeg")
        wait_until(lambda: files(folder), "a segment begins")

        self.assertEqual(0, relay.close())

        for name in files(folder):
            pictures(f"{folder}/{name}", "mjpeg")


class Rule(unittest.TestCase):
    RULE = SimpleNamespace(keep_days=7, keep_gigabytes=10, keep_free_gigabytes=5)
    ENOUGH = 100 * GIGABYTE

    def test_keeps_what_is_within_all_limits(self):
        self.assertEqual([], to_remove([(NOW - DAY, GIGABYTE, "a")], self.RULE, NOW, self.ENOUGH))

    def test_removes_what_is_too_old(self):
        found = [(NOW - 8 * DAY, 1, "a"), (NOW - 6 * DAY, 1, "b")]
        self.assertEqual(["a"], to_remove(found, self.RULE, NOW, self.ENOUGH))

    def test_removes_the_oldest_of_too_much(self):
        found = [(NOW - age * 1000, 4 * GIGABYTE, str(age)) for age in (4, 3, 2, 1)]
        self.assertEqual(["4", "3"], to_remove(found, self.RULE, NOW, self.ENOUGH))

    def test_frees_the_disk(self):
        found = [(NOW - age * 1000, GIGABYTE, str(age)) for age in (4, 3, 2, 1)]
        self.assertEqual(["4", "3"], to_remove(found, self.RULE, NOW, 3 * GIGABYTE))

    def test_never_removes_what_may_be_open(self):
        found = [(NOW - 59, 100 * GIGABYTE, "a")]
        self.assertEqual([], to_remove(found, self.RULE, NOW, 0))

    def test_no_file_is_written_over(self):
        with tempfile.TemporaryDirectory() as folder:
            names = []
            for _ in range(3):
                names.append(os.path.basename(unused(f"{folder}/a")))
                with open(f"{folder}/{names[-1]}", "w", encoding="ascii"):
                    pass
            self.assertEqual(["a.mkv", "a.2.mkv", "a.3.mkv"], names)

    def test_clean_up_looks_at_recordings_only_and_follows_no_link(self):
        with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryDirectory() as other:
            old = time.time() - 8 * DAY
            os.mkdir(f"{folder}/board-1")
            name = "2026-01-01T00-00-00Z.mkv"
            for path in (f"{folder}/board-1/{name}", f"{folder}/board-1/film.mkv", f"{other}/{name}"):
                with open(path, "w", encoding="ascii") as file:
                    file.write("x")
                os.utime(path, (old, old))
            os.symlink(other, f"{folder}/link")
            os.symlink(f"{other}/{name}", f"{folder}/2026-01-01T00-10-00Z.mkv")

            CleanUp(SimpleNamespace(folder=folder, **vars(self.RULE))).once()

            self.assertEqual(["film.mkv"], files(f"{folder}/board-1"))
            self.assertEqual([name], files(other))


if __name__ == "__main__":
    unittest.main()

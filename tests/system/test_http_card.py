"""Snapshots while the SD card is absent, read-only or full, and targets that are no files."""

import os
import shutil
import subprocess
import unittest

from harness import CARD, BoardTest, LiveStream
from test_http_answers import get, read_answer

FOLDER = f"{CARD}/camera"


class Card(BoardTest):
    def setUp(self):
        shutil.rmtree(FOLDER, ignore_errors=True)
        os.makedirs(FOLDER, exist_ok=True)  # a late snapshot may keep it

    def mount(self, options):
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "card", FOLDER], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", FOLDER], check=True)

    def snap(self, name):
        """Two answers: the second comes after the first picture was dealt with."""
        client = get("/snap?filename=" + name)
        pictures = [read_answer(client)[1] for _ in range(2)]
        client.close()
        for picture in pictures:
            self.assertIn(picture, self.board.camera.frames())
        LiveStream().frame()

    def test_absent(self):
        shutil.rmtree(FOLDER)
        self.snap("a.jpg")
        self.assertFalse(os.path.exists(FOLDER))

    def test_read_only(self):
        self.mount("ro")
        self.snap("a.jpg")
        self.assertEqual([], os.listdir(FOLDER))

    def test_full(self):
        self.mount("size=8k")
        self.snap("a.jpg")
        self.assertLessEqual(os.path.getsize(f"{FOLDER}/a.jpg"), 8192)

    def test_fifo_does_not_hold_up_the_capture(self):
        os.mkfifo(f"{FOLDER}/pipe")
        self.snap("pipe")

    def test_device_and_folder_are_not_written_to(self):
        os.symlink("/dev/full", f"{FOLDER}/device")
        os.makedirs(f"{FOLDER}/folder")
        self.snap("device")
        self.snap("folder")
        self.assertEqual([], os.listdir(f"{FOLDER}/folder"))

    def test_link_is_not_saved_through_nor_a_name_followed_out_of_the_folder(self):
        with open(f"{CARD}/www/page.txt", "w", encoding="ascii") as file:
            file.write("page")
        os.symlink("../www/page.txt", f"{FOLDER}/link")
        os.symlink("../www", f"{FOLDER}/linked")
        for name in ("link", "linked/page.txt", "../www/page.txt", "../www/new.txt"):
            self.snap(name)
        with open(f"{CARD}/www/page.txt", encoding="ascii") as file:
            self.assertEqual("page", file.read())
        self.assertFalse(os.path.exists(f"{CARD}/www/new.txt"))

    def test_subfolder_is_used_as_named(self):
        os.makedirs(f"{FOLDER}/sub")
        self.snap("sub/a.jpg")

        self.board.wait_for_saved("sub/a.jpg")


if __name__ == "__main__":
    unittest.main()

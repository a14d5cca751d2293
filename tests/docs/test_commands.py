"""Every command that the documents for users show is run by a test, or is in tests/docs/commands with
the reason why not."""

import os
import re
import subprocess
import tempfile
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PAGES = ("README.md", "docs/owner.md", "docs/http.md", "docs/plugin.md", "docs/contributing.md",
         "docs/many.md")
# The blocks of other languages are run by tests/system/test_http_clients.py and scripts/clients, which
# find them by these words.
PROGRAMS = {"sh": ("mpjpeg",), "python": ("urlopen", "cv2"), "js": ("fetch",)}


def read(name):
    with open(f"{SOURCE}/{name}", encoding="utf-8") as file:
        return file.read()


def pages():
    """The text of each page; a page that isn't written yet shows no command."""
    return {name: read(name) for name in PAGES if os.path.exists(f"{SOURCE}/{name}")}


def indented(text):
    """The commands of the indented blocks: four columns, seven inside a numbered item."""
    without_fences = re.sub(r"^```.*?^```", "", text, flags=re.S | re.M)
    for block in re.findall(r"(?<=\n)\n((?: {4,7}\S.*(?:\n|$))+)", without_fences):
        for line in block.replace("\\\n", "").splitlines():
            yield re.sub(r"\s+# .*", "", line.strip())


def listed():
    """Who runs it, or "not run, REASON", by command."""
    lines = [line for line in read("tests/docs/commands").splitlines() if line and line[0] != "#"]
    return {command: who for who, command in (line.split(": ", 1) for line in lines)}


class Commands(unittest.TestCase):
    def test_each_is_listed_and_nothing_else_is(self):
        shown = {command for text in pages().values() for command in indented(text)}
        commit_subjects = {each for each in shown if re.match(r"[a-z]+: [A-Z]", each)}

        self.assertEqual(set(), shown - commit_subjects - listed().keys(), "shown and not listed")
        self.assertEqual(set(), listed().keys() - shown, "listed and not shown")

    def test_each_is_in_the_file_that_runs_it(self):
        for command, who in listed().items():
            if who.startswith("not run, "):
                self.assertGreater(len(who), len("not run, "))
            else:
                self.assertIn(command, read(who), who)

    def test_each_program_is_known_by_its_word(self):
        for name, text in pages().items():
            for language, program in re.findall(r"^```(\w+)\n(.*?)^```", text, re.S | re.M):
                self.assertEqual(1, sum(word in program for word in PROGRAMS.get(language, ())),
                                 f"{name}: {program}")

    def test_reference_plugin_builds_alone(self):
        # cmake -S plugin -B build/plugin -G Ninja && cmake --build build/plugin
        command = next(each for each in listed() if each.startswith("cmake -S plugin"))
        with tempfile.TemporaryDirectory(prefix="kestrel-docs.") as folder:
            for name in ("plugin", "cmake"):
                os.symlink(f"{SOURCE}/{name}", f"{folder}/{name}")
            done = subprocess.run(command, shell=True, cwd=folder, check=False, capture_output=True,
                                  text=True)
            self.assertEqual(0, done.returncode, done.stdout + done.stderr)
            built = [name for _, _, names in os.walk(folder) for name in names]
            # Without OpenCV there is nothing to build, which it says.
            self.assertTrue("libframe_process.so" in built or "OpenCV" in done.stdout, done.stdout)


if __name__ == "__main__":
    unittest.main()

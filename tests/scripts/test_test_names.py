"""The names of the tests: a suite begins with its file's name, is in one file only, and does not
end in "Test"; a test's name begins with no article. What is excepted by name is there."""

import collections
import fnmatch
import os
import re
import subprocess
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TEST = re.compile(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", re.M)
ARTICLE = re.compile(r"(?:A|An|The)[A-Z]")


def gtests():
    """File, suite and test of each GoogleTest in the tree."""
    for folder, folders, names in os.walk(SOURCE):
        folders[:] = [name for name in folders if name not in ("build", "node_modules", ".git")]
        for name in names:
            if name.endswith(".cpp"):
                with open(os.path.join(folder, name), encoding="utf-8") as file:
                    for suite, test in TEST.findall(file.read()):
                        yield os.path.relpath(os.path.join(folder, name), SOURCE), suite, test


class Names(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.found = list(gtests())
        assert len(cls.found) > 1000, "the search found too little"

    def test_suite_begins_with_the_name_of_its_file(self):
        for path, suite, _ in self.found:
            self.assertTrue(path.endswith("Test.cpp"), path)
            self.assertTrue(suite.startswith(os.path.basename(path)[:-len("Test.cpp")]),
                            f"{path}: {suite}")

    def test_no_suite_ends_in_test(self):
        self.assertEqual([], [suite for _, suite, _ in self.found if suite.endswith("Test")])

    def test_suite_stands_in_one_file(self):
        files = collections.defaultdict(set)
        for path, suite, _ in self.found:
            files[suite].add(path)
        self.assertEqual({}, {suite: paths for suite, paths in files.items() if len(paths) > 1})

    def test_no_name_begins_with_an_article(self):
        self.assertEqual([], [f"{suite}.{test}" for _, suite, test in self.found
                              if ARTICLE.match(test)])
        python = subprocess.run(["grep", "-rnE", r"def test_(a|an|the)_", "--include=*.py",
                                 os.path.join(SOURCE, "tests")],
                                capture_output=True, text=True, check=False).stdout
        self.assertEqual("", python)

    def test_whatever_does_not_run_through_the_guard_is_a_test_and_has_a_reason(self):
        names = {f"{suite}.{test}" for _, suite, test in self.found}
        folder = os.path.join(SOURCE, "tests/system/arm")
        for file in os.listdir(folder):
            with open(os.path.join(folder, file), encoding="utf-8") as text:
                for suite, body in re.findall(r"^class (\w+)\(.*\n((?:(?: .*)?\n)+)", text.read(), re.M):
                    names |= {f"{file[:-len('.py')]}.{suite}.{test}" for test in re.findall(r"def (test_\w+)", body)}
        with open(os.path.join(SOURCE, "guard/tests/not_through_guard.txt"), encoding="utf-8") as file:
            lines = [line.rstrip("\n") for line in file if not line.startswith("#") and line.strip()]
        for line in lines:
            language, name, reason = line.split(" ", 2)
            self.assertIn(language, ("both", "arm", "grbl"))
            self.assertTrue(fnmatch.filter(names, name), f"no such test: {name}")
            self.assertTrue(reason)
        self.assertEqual(len(lines), len({line.split()[1] for line in lines}), "a name stands there twice")


if __name__ == "__main__":
    unittest.main()

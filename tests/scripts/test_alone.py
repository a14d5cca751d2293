"""A test that failed beside others runs again alone, once; a sanitizer's report is never excused."""

import os
import subprocess
import tempfile
import unittest

ALONE = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))),
                     "scripts", "lib", "alone")
PASSES = "true"
FAILS = "false"
FAILS_ONCE = "test -e again || { touch again; echo 'late'; exit 1; }"
REPORTS = ("==7==ERROR: AddressSanitizer: heap-use-after-free on address 0x1",
           "==7==ERROR: LeakSanitizer: detected memory leaks",
           "WARNING: ThreadSanitizer: data race (pid=7)",
           "a.cpp:3:5: runtime error: signed integer overflow")


class Alone(unittest.TestCase):
    def status_and_output(self, *commands, options=()):
        """Of the tests that these commands are, after they have run with options of ctest."""
        with tempfile.TemporaryDirectory() as build:
            with open(f"{build}/CTestTestfile.cmake", "w", encoding="utf-8") as file:
                for n, command in enumerate(commands):
                    file.write(f'add_test(test_{n} sh -c [=[{command}]=])\n')
            subprocess.run(("ctest", "--test-dir", build, *options), stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, check=False)
            done = subprocess.run((ALONE, build), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  text=True, check=False)
            return done.returncode, done.stdout

    def test_what_passes_alone_is_named(self):
        status, output = self.status_and_output(PASSES, FAILS_ONCE)
        self.assertEqual(0, status, output)
        self.assertIn("passed alone only: test_1\n", output)

    def test_what_fails_again_has_failed(self):
        status, output = self.status_and_output(PASSES, FAILS_ONCE, FAILS)
        self.assertNotEqual(0, status)
        self.assertNotIn("passed alone", output)

    def test_failed_one_runs_although_others_were_left_out(self):
        status, output = self.status_and_output(PASSES, PASSES, FAILS, PASSES, options=("-E", "test_0"))
        self.assertNotEqual(0, status)
        self.assertIn("test_2", output)

    def test_report_of_a_sanitizer_counts_at_once(self):
        for report in REPORTS:
            with self.subTest(report):
                status, output = self.status_and_output(PASSES, FAILS_ONCE.replace("late", report))
                self.assertNotEqual(0, status)
                self.assertIn("reported by a sanitizer: test_1", output)

    def test_report_of_another_test_does_not_count(self):
        status, output = self.status_and_output(f"echo '{REPORTS[0]}'", FAILS_ONCE)
        self.assertEqual(0, status, output)

    def test_many_failures_are_not_the_loads_doing(self):
        status, output = self.status_and_output(FAILS_ONCE, FAILS, FAILS, FAILS)
        self.assertNotEqual(0, status)
        self.assertIn("4 tests have failed", output)


if __name__ == "__main__":
    unittest.main()

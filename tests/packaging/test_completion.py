"""Completion of kestrel-arm: bash offers what the program takes."""

import os
import subprocess
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
ARM = os.environ["KESTREL_ARM"]


def complete(*words):
    """What bash offers for the last word."""
    script = f'source {SOURCE}/packaging/completion/kestrel-arm; COMP_WORDS=("$@"); ' \
             'COMP_CWORD=$(($# - 1)); _kestrel_arm; printf "%s\\n" "${COMPREPLY[@]}"'
    done = subprocess.run(["bash", "-c", script, "bash", ARM, *words], capture_output=True, text=True,
                          check=True, cwd=f"{SOURCE}/packaging")
    return set(done.stdout.split())


class Completion(unittest.TestCase):
    def test_commands_and_options_are_the_programs(self):
        self.assertEqual({"check", "firmware", "home", "jog", "journal", "level", "measure", "move", "off", "pause",
                          "reset", "resume", "run", "status", "stop", "support", "unlock", "watch"}, complete(""))
        self.assertEqual({"check"}, complete("ch"))
        self.assertEqual({"dark", "motion"}, complete("level", ""))
        self.assertEqual({"--help", "--version", "--help-all"}, complete("--"))
        self.assertEqual({"--help", "--help-all", "--url", "--token", "--json", "--guard"},
                         complete("off", "--"))
        self.assertEqual({"--mend"}, complete("check", "job.gcode", "--me"))

    def test_files_are_offered_where_a_file_is_meant(self):
        self.assertIn("kestrel-guard.toml", complete("check", "kestrel-gu"))
        self.assertIn("kestrel-guard.toml", complete("check", "--configuration", "kestrel-gu"))
        self.assertIn("kestrel-guard.toml", complete("run", "kestrel-gu"))
        self.assertEqual(set(), complete("off", "--url", ""))
        self.assertEqual(set(), complete("jog", "--x", ""))
        self.assertEqual(set(), complete("off", "kestrel-gu"))


if __name__ == "__main__":
    unittest.main()

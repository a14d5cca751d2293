"""The description of the operator's interface, and the linter that checks it, on damaged copies."""

import os
import subprocess
import tempfile
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
API = f"{SOURCE}/docs/api.yaml"


def check(path):
    done = subprocess.run([f"{SOURCE}/scripts/lib/check-api", path], capture_output=True, text=True, check=False)
    return done.returncode, done.stdout + done.stderr


class Api(unittest.TestCase):
    def test_nothing_is_wrong_with_it(self):
        status, told = check(API)

        self.assertEqual(0, status, told)
        self.assertIn(", 0 wrong", told)

    def test_damage_is_noticed(self):
        with open(API, encoding="utf-8") as file:
            text = file.read()
        for former, damaged, complaint in (
                ("components/schemas/Health\"", "components/schemas/Healt\"", "Can't resolve $ref"),
                ("operationId: home", "operationId: watch", "unique `operationId`"),
                ("    get:\n      operationId: getState", "    put:\n      operationId: getState",
                 "neither GET nor POST"),
                ("x-problems: [full]\n", "x-nothing: 1\n", "GET /events: no x-problems"),
                ("      additionalProperties: false\n      required: [status]", "      required: [status]",
                 "may hold anything"),
                ("required: [status]", "required: [statu]", "required, but not there: statu")):
            with self.subTest(complaint), tempfile.NamedTemporaryFile("w", suffix=".yaml", encoding="utf-8") as copy:
                self.assertIn(former, text)
                copy.write(text.replace(former, damaged, 1))
                copy.flush()

                status, told = check(copy.name)

                self.assertEqual(1, status, told)
                self.assertIn(complaint, told)


if __name__ == "__main__":
    unittest.main()

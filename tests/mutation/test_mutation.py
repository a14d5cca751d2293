"""The mutation run itself: which changes it finds, and what it says of a small program."""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import mutants
import mutation_run
import trial


def found(source):
    """The changes as (kind, before, after)."""
    return [(mutant.kind, source[mutant.start:mutant.end], mutant.text)
            for mutant in mutants.mutantsOf("x.cpp", source)]


def body(text):
    return f"void f()\n{{\n{text}\n}}\n"


class Finding(unittest.TestCase):
    def kinds(self, text, kind):
        return [(before, after) for name, before, after in found(body(text)) if name == kind]

    def test_relational(self):
        self.assertEqual([("<", "<="), ("!=", "==")],
                         self.kinds("x = a < b && c != d;", "relational"))

    def test_logical(self):
        self.assertEqual([("&&", "||")], self.kinds("x = a < b && c != d;", "logical"))

    def test_arithmetic(self):
        self.assertEqual([("+", "-"), ("*", "/"), ("++", "--")],
                         self.kinds("x = a + b * c;\n++i;", "arithmetic"))

    def test_constants_have_neighbours_and_large_ones_leap(self):
        self.assertEqual([("0", "1"), ("1", "0"), ("1", "2"), ("7", "8"), ("7", "6"),
                          ("500", "1500"), ("500", "166"), ("true", "false"),
                          ("RET_SUCCESS", "RET_FAILED")],
                         self.kinds("f(0, 1, 7, 500, true, RET_SUCCESS);", "constant"))

    def test_names_with_digits_and_other_bases_are_no_constants(self):
        self.assertEqual([], self.kinds("x2 = 0x80 + u8Name + 0755;", "constant"))

    def test_flags(self):
        self.assertEqual([(" | O_CLOEXEC", "")], self.kinds("x = open(p, O_RDWR | O_CLOEXEC);", "flag"))

    def test_negated_condition(self):
        self.assertEqual([("a && (b)", "!(a && (b))")],
                         self.kinds("if (a && (b)) {\n}", "negated condition"))

    def test_dropped_statements_are_calls_and_assignments(self):
        self.assertEqual([("break;", ";"), ("f(1);", ";"), ("m_x = y;", ";"), ("(void)g();", ";"),
                          ("p->q(r)[2] = 3;", ";")],
                         self.kinds("int n = 4;\nconst Time t(5);\nf(1);\nm_x = y;\n(void)g();\nreturn h();\n"
                                    "p->q(r)[2] = 3;\nwhile (x) {\nbreak;\n}\nstd::string s;",
                                    "dropped statement"))

    def test_dropped_lock_guard(self):
        self.assertEqual([("MutexGuard guard(m_mtx);", ";")],
                         self.kinds("MutexGuard guard(m_mtx);\nf();", "dropped lock guard"))

    def test_swapped_neighbours_only(self):
        self.assertEqual([("f();\ng();", "g();\nf();")],
                         self.kinds("f();\ng();\nint n = 1;\nh();", "swapped statements"))

    def test_no_swap_across_a_block(self):
        self.assertEqual([], self.kinds("f();\nif (x) {\ng();\n}\nh();", "swapped statements"))

    def test_texts_comments_and_directives_are_left_alone(self):
        source = body('log("a < b, 5"); // a < 7\n/* x = 3; */\nc = \'0\';')
        changed = [(kind, before) for kind, before, _ in found("#define A 5\n" + source)]
        self.assertEqual([("dropped statement", 'log("a < b, 5");'), ("dropped statement", "c = '0';")],
                         [pair for pair in changed if pair[0] != "swapped statements"])

    def test_each_change_is_one_place(self):
        source = body("x = a < b;\nf(1, 2);\nif (c) {\ng();\n}")
        for mutant in mutants.mutantsOf("x.cpp", source):
            changed = mutants.applied(source, mutant)
            self.assertNotEqual(source, changed)
            self.assertEqual(source[:mutant.start], changed[:mutant.start])
            self.assertTrue(changed.endswith(source[mutant.end:]))

    def test_keys_stay_when_lines_come_before(self):
        def keys(source):
            return [mutant.key for mutant in mutants.mutantsOf("x.cpp", source)]

        source = body("x = a < b;\nx = a < b;")
        self.assertEqual(keys(source), keys("// new\n\n" + source))
        self.assertEqual(len(set(keys(source))), len(keys(source)))

    def test_larger_share_holds_the_smaller(self):
        part = mutants.mutantsOf("x.cpp", body("\n".join(f"f({i});" for i in range(50))))
        tenth = mutation_run.chosen(part, 10, 7)
        half = mutation_run.chosen(part, 50, 7)
        self.assertTrue(set(tenth) < set(half))
        self.assertNotEqual(tenth, mutation_run.chosen(part, 10, 8))


class Planted(unittest.TestCase):
    """The whole run on a program whose survivor is known."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="kestrel-mutation-")
        cls.root = f"{cls.folder}/root"
        shutil.copytree(f"{HERE}/planted", cls.root)
        subprocess.run(["git", "init", "-q", cls.root], check=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder)

    def mutate(self, *options):
        result = subprocess.run(
            [f"{HERE}/../../scripts/mutate", "--root", self.root, "--folder", f"{self.folder}/run",
             *options], check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.output = result.stdout
        return result.returncode

    def results(self):
        """(line, diff's last line) -> result"""
        with open(f"{self.folder}/run/results.jsonl", encoding="utf-8") as file:
            records = [json.loads(line) for line in file]
        return {(record["line"], record["diff"].split("\n")[-2].strip("+ ")): record["result"]
                for record in records}

    def test_known_changes(self):
        file = "application/planted/Planted.cpp"
        self.assertEqual(0, self.mutate("--kind", "relational", "--kind", "arithmetic",
                                        "--kind", "negated condition", file), self.output)
        self.assertIn("left out, fails unchanged: Planted.PassesInTheWholeOnly\n", self.output)
        results = self.results()
        self.assertEqual("survived", results[(7, "return (nFirst >= nSecond) ? nFirst : nSecond;")])
        self.assertEqual("killed", results[(13, "while (nValue >= 0) {")])
        with open(f"{self.folder}/run/report.txt", encoding="utf-8") as report:
            text = report.read()
        self.assertIn(f"{file}:7: relational\n-    return (nFirst > nSecond)", text)
        self.assertIn("tried: ", text)
        with open(f"{self.root}/{file}", encoding="utf-8") as source:
            self.assertIn("nFirst > nSecond", source.read())

        # What has been tried is not tried again.
        begun = os.path.getsize(f"{self.folder}/run/results.jsonl")
        self.assertEqual(0, self.mutate("--kind", "relational", file), self.output)
        self.assertEqual(begun, os.path.getsize(f"{self.folder}/run/results.jsonl"))
        self.assertEqual(0, self.mutate("--kind", "dropped statement", file), self.output)
        self.assertEqual("timed out", self.results()[(14, "; // without it there is no end")])
        self.assertIn("killed", self.output)

    def test_tests_that_fail_unchanged_are_told(self):
        path = f"{self.root}/application/planted/Planted.cpp"
        with open(path, encoding="utf-8") as file:
            source = file.read()
        try:
            with open(path, "w", encoding="utf-8") as file:
                file.write(source.replace("bool step", "bool stumble"))
            self.assertEqual(2, self.mutate("--folder", f"{self.folder}/broken",
                                            "application/planted/Planted.cpp"), self.output)
        finally:
            with open(path, "w", encoding="utf-8") as file:
                file.write(source)


class Contained(unittest.TestCase):
    def test_nothing_else_is_writable_and_nothing_outlives_it(self):
        with tempfile.TemporaryDirectory(dir=HERE) as folder:
            contain = f"{HERE}/contain"
            self.assertEqual(0, subprocess.run([contain, folder, "touch", "mine"], check=False).returncode)
            self.assertTrue(os.path.exists(f"{folder}/mine"))
            outside = subprocess.run([contain, folder, "touch", f"{HERE}/outside"], check=False,
                                     stderr=subprocess.DEVNULL)
            self.assertNotEqual(0, outside.returncode)
            self.assertFalse(os.path.exists(f"{HERE}/outside"))
            # A signal to every process ends those inside only: this one goes on.
            subprocess.run([contain, folder, "sh", "-c", "kill -9 -1"], check=False)


class Watching(unittest.TestCase):
    def test_late_when_far_longer_than_usual(self):
        with tempfile.TemporaryFile() as output:
            watch = trial.Watch(output, {"Suite.Quick": 0.1, "Suite.Slow": 30})
            output.write(b"[ RUN      ] Suite.Quick\n")
            output.flush()
            self.assertFalse(watch.late())
            watch.begin -= 11
            self.assertTrue(watch.late())
            output.write(b"[       OK ] Suite.Quick (100 ms)\n[ RUN      ] Suite.Slow\n")
            output.flush()
            self.assertFalse(watch.late())
            watch.begin -= 100
            self.assertFalse(watch.late())

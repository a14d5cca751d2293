"""The mutation run itself: which changes it finds, and what it says of a small program."""

import contextlib
import json
import os
import shutil
import subprocess
import sys
import tempfile
import types
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import blocks
import guards
import mutants
import mutation_run
import trial
from box import Box
from trial import OVER


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


class Blocks(unittest.TestCase):
    def heads(self, source):
        return [head.strip() for head, _, _ in blocks.bodies(source)]

    def test_bodies_of_functions(self):
        self.assertEqual(["void f()", "A::A()\n: m_n{1}, m_m(2)", "bool A::g() const REQUIRES(m_mtx)",
                          "int h()"],
                         self.heads("void f()\n{\nif (a) {\n}\n}\nA::A()\n: m_n{1}, m_m(2)\n{\n}\n"
                                    "bool A::g() const REQUIRES(m_mtx)\n{\n}\n"
                                    "namespace x {\nclass B : C\n{\npublic:\nint h() { return 1; }\n};\n}\n"))

    def test_values_are_no_bodies(self):
        self.assertEqual([], self.heads("const int a[] = {1, f(2), 3};\nenum class E\n{\nA = 1\n};\n"
                                        "std::atomic<bool> b{false};\nstruct S\n{\nint n{g(1)};\n};\n"))

    def statements(self, text):
        source = body(text)
        _, opening, end = blocks.bodies(source)[0]
        begins = blocks.points(blocks.masked(source), opening, end)
        return [source[place:].split("\n", 1)[0] for place, _ in begins]

    def test_statements(self):
        self.assertEqual(["int n = 1;", "if (a) {", "f();", "g();", "return h();"],
                         self.statements("int n = 1;\nif (a) {\nf();\n} else {\ng();\n}\nreturn h();"))

    def test_statements_of_loops_cases_and_lambdas(self):
        self.assertEqual(["do {", "f();", "switch (x) {", "g();", "for (int i = 0; i < n; ++i) {",
                          "h([&] {", "k();", "int a[] = {1, 2};"],
                         self.statements("do {\nf();\n} while (b);\nswitch (x) {\ncase A::B:\ng();\n}\n"
                                         "for (int i = 0; i < n; ++i) {\n}\nh([&] {\nk();\n});\n"
                                         "int a[] = {1, 2};"))

    def reaching(self, text, place):
        source = body(text)
        _, opening, end = blocks.bodies(source)[0]
        code = blocks.masked(source)
        begins = blocks.points(code, opening, end)
        index = blocks.reaching(code, opening, begins, source.index(place))
        return source[begins[index][0]:].split("\n", 1)[0]

    def test_what_is_always_come_by_before(self):
        text = "f();\nif (a) {\ng(1);\n} else if (b) {\nh();\n}\nk(2);"
        self.assertEqual("g(1);", self.reaching(text, "1"))
        self.assertEqual("if (a) {", self.reaching(text, "b)"))
        self.assertEqual("k(2);", self.reaching(text, "2"))

    def test_former_cases_are_not_come_by(self):
        self.assertEqual("f();", self.reaching("f();\nswitch (x) {\ncase 1:\ng();\nbreak;\ncase 2:\nh();\n}",
                                               "2:"))


class Guarding(unittest.TestCase):
    def guarded(self, source):
        numbers = {mutant: number for number, mutant in enumerate(mutants.mutantsOf("x.cpp", source), 1)}
        return guards.Guards("x.cpp", source, numbers, 0)

    def test_each_change_has_its_copy(self):
        text = self.guarded(body("f(7);")).text()
        for number, changed in enumerate(("f(8);", "f(6);", ";"), 1):
            self.assertIn(f'case {number}: {{\n#line 2 "change-{number}"\n\n{changed}\n', text)
        self.assertIn('default: {\n#line 2 "x.cpp"\n\nmutation::reached[0] = 1; f(7);\n', text)

    def test_constants_have_their_other_values_beside_them(self):
        text = self.guarded("static const int A = 7;\n").text()
        self.assertIn("static inline const int A = (mutation::chosen == 2 ? 6 : "
                      "(mutation::chosen == 1 ? 8 : 7));", text)

    def test_constants_of_one_statement_leave_the_rest_of_it_alone(self):
        text = self.guarded("struct S\n{\n    static const int A = 3U * 7 * 10;\n};\n").text()
        self.assertIn("    static inline const int A = 3U * (mutation::chosen == 4 ? 6 : "
                      "(mutation::chosen == 3 ? 8 : 7)) * (", text)

    def test_constant_expressions_are_compiled_alone(self):
        guarded = self.guarded("constexpr int f()\n{\nreturn 7;\n}\n")
        self.assertEqual(set(guarded.numbers), guarded.alone)

    def test_next_run_leaves_out_what_this_one_has(self):
        source = "struct S {\nMutex m_m ACQUIRED_AFTER(m_n){f(7)};\n};\n" + body("f(7);")
        guarded = self.guarded(source)
        while guarded.bodyOf(next(iter(guarded.numbers))):
            self.assertTrue(guarded.blame(2))

        next_one = self.guarded(source)
        next_one.restore(json.loads(json.dumps(guarded.state())))
        self.assertEqual(guarded.text(), next_one.text())


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
        cache = {"CMAKE_CXX_COMPILER_LAUNCHER": "ccache", "CCACHE_BASEDIR": self.folder,
                 "CCACHE_NOHASHDIR": "1"} if shutil.which("ccache") else {}
        result = subprocess.run(
            [f"{HERE}/../../scripts/mutate", "--root", self.root, "--folder", f"{self.folder}/run",
             *options], check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            env={**os.environ, **cache})
        self.output = result.stdout
        return result.returncode

    def results(self, run="run"):
        """(line, diff's last line) -> result"""
        with open(f"{self.folder}/{run}/results.jsonl", encoding="utf-8") as file:
            records = [json.loads(line) for line in file]
        return {(record["line"], record["diff"].split("\n")[-2].strip("+ ")): record["result"]
                for record in records}

    def test_known_changes(self):
        file = "application/planted/Planted.cpp"
        self.assertEqual(0, self.mutate("--kind", "relational", "--kind", "arithmetic",
                                        "--kind", "negated condition", file), self.output)
        self.assertIn("left out, fails unchanged: Planted.PassesInTheWholeOnly\n", self.output)
        self.assertNotIn("IsLeftOut", self.output)
        results = self.results()
        self.assertEqual("survived", results[(7, "return (nFirst >= nSecond) ? nFirst : nSecond;")])
        self.assertEqual("killed", results[(13, "while (nValue >= 0) {")])
        with open(f"{self.folder}/run/report.txt", encoding="utf-8") as report:
            text = report.read()
        self.assertIn(f"{file}:7: relational\n-    return (nFirst > nSecond)", text)
        self.assertIn("tried: ", text)
        with open(f"{self.root}/{file}", encoding="utf-8") as source:
            self.assertIn("nFirst > nSecond", source.read())

        # What has been tried is not tried again, but survivors are when that is asked for.
        begun = os.path.getsize(f"{self.folder}/run/results.jsonl")
        self.assertEqual(0, self.mutate("--kind", "relational", file), self.output)
        self.assertEqual(begun, os.path.getsize(f"{self.folder}/run/results.jsonl"))
        self.assertEqual(0, self.mutate("--kind", "relational", "--survivors", file), self.output)
        self.assertIn("Planted.cpp:7: relational: survived", self.output)
        self.assertNotIn("killed Planted", self.output)
        self.assertEqual(0, self.mutate("--patience", "2", "--kind", "dropped statement", file), self.output)
        self.assertEqual("timed out", self.results()[(14, "; // without it there is no end")])
        self.assertIn("killed", self.output)

    def test_values_outside_of_functions_and_what_does_not_compile(self):
        file = "application/planted/Planted.cpp"
        self.assertEqual(0, self.mutate("--folder", f"{self.folder}/values", "--kind", "constant",
                                        "--kind", "arithmetic", "--jobs", "2", file), self.output)
        results = self.results("values")
        for limit in (8, 10):
            self.assertEqual("killed", results[(20, f"static const int LIMIT = {limit};")])
        slots = [result for (line, _), result in results.items() if line == 21]
        self.assertEqual(["killed", "killed"], slots)
        self.assertEqual("not compiled", results[(39, "return pEnd + pBegin;")])
        self.assertEqual("survived", results[(44, "return nValue / 2;")])

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


class Patience(unittest.TestCase):
    """Whether a test that took too long hangs, or the machine was busy."""

    def hangs(self, needs, takes):
        """
        @param needs  seconds that the test takes without a change, each time that it is asked
        @param takes  seconds that it takes with the change, each time
        """
        bench = trial.Bench.__new__(trial.Bench)
        bench.sounds = {}
        bench.patience = 10
        program = trial.Program("program", [], {}, {"test": 1})
        needs, takes = iter(needs), iter(takes)

        def run(_command, environment, seconds, _processor):
            took = next(takes) if environment.get("MUTATION_CHOSEN") else next(needs)
            return (None if took > seconds else 0), "", took

        @contextlib.contextmanager
        def box():
            yield types.SimpleNamespace(run=run)

        bench.box = box
        return bench.hangs(program, "test", 5)

    def test_test_without_end_hangs(self):
        self.assertTrue(self.hangs([1, 1], [1e9]))

    def test_busy_machine_gives_more_time(self):
        self.assertFalse(self.hangs([20], [60]))

    def test_machine_that_became_busy_is_asked_again(self):
        self.assertFalse(self.hangs([1, 20], [20, 60]))
        self.assertTrue(self.hangs([1, 20, 20], [20, 1e9]))

    def test_test_that_fails_without_a_change_says_nothing(self):
        self.assertFalse(self.hangs([1e9], []))


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


class Boxed(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(dir=HERE)
        self.addCleanup(folder.cleanup)
        self.box = Box(folder.name)
        self.addCleanup(self.box.close)

    def test_one_program_sees_nothing_of_the_former(self):
        status, output, _ = self.box.run(["sh", "-c", "echo a; echo b >&2; touch /tmp/left; exit 3"],
                                         {"NAME": "value"}, 20, 20)
        self.assertEqual((3, "a\nb\n"), (status, output))
        status, output, _ = self.box.run(["sh", "-c", "ls /tmp; echo $NAME"], {"NAME": "value"}, 20, 20)
        self.assertEqual((0, "value\n"), (status, output))

    def test_container_that_has_ended_is_made_anew(self):
        self.box.run(["true"], {}, 20, 20)
        process = self.box.process
        process.kill()
        process.wait()
        process.poll = lambda: None # it has ended since it was looked at
        self.assertEqual((0, "a\n"), self.box.run(["echo", "a"], {}, 20, 20)[:2])

    def test_too_long_and_too_busy_ones_are_ended(self):
        status, _, took = self.box.run(["sleep", "60"], {}, 0.2, 20)
        self.assertIsNone(status)
        self.assertLess(took, 30)
        status, _, _ = self.box.run(["sh", "-c", "while :; do :; done"], {}, 60, 1)
        self.assertIn(status, OVER)

"""Builds the changed sources and puts each change to the tests that come by it."""

import itertools
import json
import os
import queue
import re
import shutil
import signal
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from dataclasses import dataclass, field

import mutants
from box import Box
from guards import MOST_POINTS, AllGuards, written

# Sources that no unit test's program is linked from, and the tests of the whole service.
WHOLE_SERVICE = re.compile(r"application/[^/]+\.(cpp|h)$")
SERVICE_TESTS = ("system.test_main", "system.test_start")
SERVICE_TARGETS = ("kestrel-server", "kestrel-server-console", "kestrel-server-scripted",
                   "kestrel_camera_preload", "kestrel-camera", "kestrel-camera-ctl",
                   "kestrel_fault_preload")

BUILD_SECONDS = 1800
MOST_ROUNDS = 30 # of leaving out what doesn't compile
TIERS = (0.1, 0.3, 1, 3) # seconds; tests of a tier run in one process
SOUND_SECONDS = 120 # so long holds that a test passes without any change
MOST_PATIENCE = 5 # times that a busy machine is given before a test counts as passed


OVER = (-signal.SIGXCPU, 128 + signal.SIGXCPU) # its processor time was used up


class Broken(Exception):
    """The tests do not pass without any change, or the unchanged sources do not build."""


@dataclass
class Program:
    """A GoogleTest program, or one other test of ctest."""

    name: str
    command: list
    environment: dict
    usual: dict = field(default_factory=dict)   # test -> seconds; "" for a test that is no GoogleTest
    reached: dict = field(default_factory=dict) # test -> the numbers of the statements it comes by
    tests: list = field(default_factory=list)   # all that ctest runs of it


def copied(root, to, instead):
    """Bring a copy of the working tree up to date, touching only what differs; some have another text."""
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z", "."], cwd=root,
                           check=True, stdout=subprocess.PIPE).stdout.decode().split("\0")
    kept = set()
    for name in filter(None, names):
        source = f"{root}/{name}"
        if not os.path.isfile(source) or os.path.islink(source):
            continue
        target = f"{to}/{name}"
        kept.add(target)
        if name in instead:
            written(target, instead[name].encode())
            continue
        with open(source, "rb") as file:
            if written(target, file.read()):
                shutil.copymode(source, target)
    for folder, _, files in os.walk(to):
        for name in files:
            if f"{folder}/{name}" not in kept:
                os.remove(f"{folder}/{name}")


class Bench:
    """A copy of the sources with all changes in them, its build, and what its tests come by."""

    def __init__(self, root, folder, parts, read, jobs=1, patience=10):
        """
        @param parts     file -> its changes
        @param read      gives the text of a file
        @param patience  seconds that a test has at least, before it counts as one that hangs
        """
        self.read = read
        self.root = root
        self.foreign = {}  # name of a class without tests of its own -> those that use it
        self.source = f"{folder}/source"
        self.build = f"{folder}/build"
        self.scratch = f"{folder}/scratch"
        self.jobs = jobs
        self.patience = patience
        self.programs = {} # by build target, or the name in ctest
        self.sounds = {}   # (program, test) -> when it last passed without a change
        self.lonely = set() # tests that fail beside others only
        self.boxes = queue.SimpleQueue()
        self.lock = threading.Lock() # for what is printed
        for path in (self.source, self.build):
            os.makedirs(path, exist_ok=True)
        for number in range(jobs):
            self.boxes.put(Box(f"{self.scratch}/{number}"))
        self.guards = AllGuards(parts, read, f"{folder}/guards.json")
        copied(root, self.source, self.guards.texts())
        linker = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"] if shutil.which("ld.lld") else []
        self.call("cmake", "-G", "Ninja", "-S", self.source, "-B", self.build,
                  # No warning stops a change, and nothing is compiled for a debugger.
                  "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=-w", "-DCMAKE_C_FLAGS=-w",
                  "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_C_FLAGS_DEBUG=-O0",
                  "-DKESTREL_VISION=OFF", *linker)
        listed = self.call("ninja", "-C", self.build, "-t", "targets", "all")
        self.executables = re.findall(r"^(tests/\S+): CXX_EXECUTABLE_LINKER", listed, re.M)
        libraries = re.findall(r"^(application/\S+): CXX_STATIC_LIBRARY_LINKER", listed, re.M)
        self.inputs = {}
        self.covering = {file: [name for name in self.executables if self.covers(name, file)]
                         for file in parts}
        whole = os.path.isdir(f"{self.source}/tests/system")
        for file, names in self.covering.items():
            if whole and WHOLE_SERVICE.match(file):
                names += SERVICE_TESTS
            if not names:
                raise Broken(f"no test covers {file}")
        wanted = set(itertools.chain(*self.covering.values()))
        self.targets = sorted(wanted.difference(SERVICE_TESTS))
        if wanted.intersection(SERVICE_TESTS):
            self.targets += SERVICE_TARGETS
        needed = set(itertools.chain(*(self.inputs.get(name, ()) for name in wanted)))
        libraries = [name for name in libraries
                     if name in needed or wanted.intersection(SERVICE_TESTS)]
        if libraries:
            self.compileAll(libraries) # what doesn't compile shows here, before the tests see it
        self.compileAll(self.targets)
        self.learn(wanted)

    def close(self):
        while not self.boxes.empty():
            self.boxes.get().close()

    @contextmanager
    def box(self):
        box = self.boxes.get()
        try:
            yield box
        finally:
            self.boxes.put(box)

    def say(self, text):
        with self.lock:
            print(text, flush=True)

    def call(self, *command):
        result = subprocess.run(command, check=False, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
        if result.returncode != 0:
            raise Broken(f"{' '.join(command)}\n{result.stdout[-4000:]}")
        return result.stdout

    # Building.

    def compiled(self, targets, *options):
        """@return whether that worked, and what was printed"""
        try:
            result = subprocess.run(
                ["ninja", "-C", self.build, f"-j{self.jobs}", *options, *targets], check=False,
                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=BUILD_SECONDS)
        except subprocess.TimeoutExpired:
            return False, ""
        return result.returncode == 0, result.stdout

    def compileAll(self, targets):
        """Build all changes together, without those that don't compile."""
        for _ in range(MOST_ROUNDS):
            done, output = self.compiled(targets, "-k", "0")
            if done:
                self.guards.keep()
                return
            if not self.guards.leaveOut(output):
                raise Broken(output[-4000:])
            self.say("once more, without what does not compile")
            for file, text in self.guards.texts().items():
                written(f"{self.source}/{file}", text.encode())
        raise Broken(output[-4000:])

    # Which tests cover a source.

    def covers(self, executable, source):
        """Whether a program is linked from a test that stands where the source does, or has its name."""
        if executable not in self.inputs:
            self.inputs[executable] = self.call("ninja", "-C", self.build, "-t", "inputs",
                                                executable).split("\n")
        folder = os.path.dirname(source).replace("/include", "", 1)
        folder = "application/application" if folder == "application" else folder
        stem = os.path.splitext(os.path.basename(source))[0]
        tests = [name[len(self.source) + 1:] for name in self.inputs[executable]
                 if name.startswith(f"{self.source}/tests/") and name.endswith("Test.cpp")]
        mirrored = folder.replace("application", "tests", 1)
        return any(os.path.dirname(name) == mirrored or os.path.basename(name).startswith(stem) or
                   name in self.foreignTests(stem) for name in tests)

    def foreignTests(self, stem):
        """The tests that use a class without tests of its own."""
        if stem not in self.foreign:
            listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "tests/*Test.cpp"],
                                    cwd=self.root, check=True, stdout=subprocess.PIPE, text=True)
            names = listed.stdout.split()
            own = any(os.path.basename(name).startswith(stem) for name in names)
            mark = f'#include "{stem}.h"\n'
            self.foreign[stem] = set() if own else {
                name for name in names if mark in open(f"{self.root}/{name}", encoding="utf-8").read()}
        return self.foreign[stem]

    # What the tests come by.

    def listed(self):
        for left in range(5, -1, -1):
            try:
                return json.loads(self.call("ctest", "--test-dir", self.build, "--show-only=json-v1"))
            except Broken:
                if left == 0: # a busy machine may be too slow for ctest, which asks each program
                    raise
        return None

    def learn(self, wanted):
        """Ask ctest how the tests are run, and run each by itself: that is what has to pass."""
        listed = self.listed()
        for test in listed["tests"]:
            command = test.get("command", [])
            paths = [os.path.relpath(word, self.build) for word in command]
            name = next((path for path in paths if path in wanted),
                        test["name"] if test["name"] in wanted else None)
            if name is None:
                continue
            properties = {item["name"]: item["value"] for item in test.get("properties", [])}
            environment = dict(pair.split("=", 1) for pair in properties.get("ENVIRONMENT", []) if pair)
            single = [word.partition("=")[2] for word in command if word.startswith("--gtest_filter=")]
            if name in SERVICE_TESTS:
                command = ["sh", "-c", 'cd "$0" && exec "$@"', properties["WORKING_DIRECTORY"], *command]
            else:
                command = [word for word in command if not word.startswith("--gtest")]
            program = self.programs.setdefault(name, Program(name, command, environment))
            # A program that ctest runs in two ways takes part in the first.
            if environment == program.environment and not properties.get("DISABLED"):
                program.tests += single or [""]
        with ThreadPoolExecutor(self.jobs) as pool:
            for program in self.programs.values():
                self.measure(program, pool)
        if not any(program.usual for program in self.programs.values()):
            raise Broken("every test fails unchanged")

    def measure(self, program, pool):
        """Fill in times and statements of a program's tests. One that fails by itself is not used."""
        stored = f"{self.build}/{program.name.replace('/', '_')}.reached.json"
        newest = max(os.path.getmtime(f"{self.build}/{name}")
                     for name in self.targets if os.path.exists(f"{self.build}/{name}"))
        if os.path.exists(stored) and os.path.getmtime(stored) > newest:
            with open(stored, encoding="utf-8") as file:
                program.usual, reached = json.load(file)
            program.reached = {test: frozenset(numbers) for test, numbers in reached.items()}
            return
        for test, took, reached in pool.map(lambda test: self.come(program, test), program.tests):
            if reached is not None:
                program.usual[test] = took
                program.reached[test] = reached
        with open(stored, "w", encoding="utf-8") as file:
            json.dump([program.usual, {test: sorted(numbers)
                                       for test, numbers in program.reached.items()}], file)

    def come(self, program, test):
        """@return (test, seconds, the statements it comes by, or None when it does not pass)"""
        with self.box() as box:
            path = f"{box.folder}/reached"
            with open(path, "wb") as file:
                file.write(bytes(MOST_POINTS))
            os.chmod(path, 0o666)
            status, output, took = box.run(self.narrowed(program, [test]),
                                           {**program.environment, "MUTATION_REACHED": path}, 900, 900)
            with open(path, "rb") as file:
                reached = frozenset(number for number, byte in enumerate(file.read()) if byte)
        if status != 0:
            self.say(f"left out, fails unchanged: {test or program.name}")
        if status != 0 or "[  SKIPPED ]" in output:
            return test, took, None
        self.sounds[(program.name, test)] = time.monotonic()
        return test, took, reached

    @staticmethod
    def narrowed(program, tests):
        if tests == [""]:
            return program.command
        return [*program.command, "--gtest_fail_fast", f"--gtest_filter={':'.join(tests)}"]

    # One change.

    def attempt(self, mutant, slowest):
        """@return (killed, survived, not compiled or timed out; program and test that noticed or None)"""
        if mutant in self.guards.files[mutant.file].refused:
            return "not compiled", None
        return self.noticed(mutant, self.guards.numbers[mutant], slowest, self.confirmed)

    def isAlone(self, mutant):
        return mutant in self.guards.files[mutant.file].alone

    def attemptAlone(self, some, slowest):
        """
        Compile some changes of a file one after another.
        @return (change, result, who noticed) of each whose notice holds without any change, too
        """
        found = []
        for mutant in some:
            path = f"{self.source}/{mutant.file}"
            written(path, mutants.applied(self.read(mutant.file), mutant).encode())
            done, _ = self.compiled(self.targets)
            result = ("not compiled", None)
            if done:
                result = self.noticed(mutant, 0, slowest, self.again)
            written(path, self.guards.files[mutant.file].text().encode())
            found.append((mutant, *result))
        self.compiled(self.targets)
        return [(mutant, result, who) for mutant, result, who in found
                if who is None or self.holds(result, self.programs[who[0]], who[1])]

    def holds(self, result, program, test):
        """Whether a notice is to be believed now that the test runs without any change."""
        if result != "timed out":
            return self.sound(program, test)
        needed = self.needed(program, test)
        return needed is not None and needed <= 2 * program.usual[test] + 1 # the machine isn't too busy

    def candidates(self, mutant, slowest):
        """The tests that come by a change, as (program, test)."""
        number = self.guards.files[mutant.file].reaching(mutant)
        several = self.guards.files[mutant.file].points
        for name in self.covering[mutant.file]:
            program = self.programs.get(name)
            for test, took in program.usual.items() if program else ():
                reached = program.reached[test]
                # A value outside of functions is put to all tests that come by the file.
                comes = (number in reached if number is not None else
                         mutant.file.endswith(".h") or any(point in reached for point in several))
                if comes and took <= slowest:
                    yield program, test

    def stages(self, mutant, slowest):
        """The quick tests of the file's class first, and of the others the slow ones at last."""
        stem = os.path.splitext(os.path.basename(mutant.file))[0]

        def rank(pair):
            program, test = pair
            took = program.usual[test]
            tier = next((index for index, most in enumerate(TIERS) if took <= most), len(TIERS))
            own = tier == 0 and stem in test.split(".", 1)[0]
            single = tier == len(TIERS) or (program.name, test) in self.lonely
            return tier, not own, program.name, (took, test) if single else ()

        for _, group in itertools.groupby(sorted(self.candidates(mutant, slowest), key=rank), rank):
            group = list(group)
            yield group[0][0], [test for _, test in group]

    def noticed(self, mutant, number, slowest, stands):
        """@param stands  whether a failure is the change's, by program, test, number and what is known"""
        for program, tests in self.stages(mutant, slowest):
            while tests:
                who, result = self.failing(program, tests, number)
                if who is None:
                    break
                test = who if who in tests else tests[0]
                if stands(program, test, number, result):
                    return result, (program.name, test)
                self.lonely.add((program.name, test))
                tests.remove(test)
        return "survived", None

    def confirmed(self, program, test, number, result):
        """Whether a test fails once more with a change, by itself, and passes without."""
        if result == "timed out":
            return self.hangs(program, test, number)
        return self.again(program, test, number, result) and self.sound(program, test)

    def again(self, program, test, number, _):
        return self.failing(program, [test], number)[0] is not None

    def sound(self, program, test):
        passed = self.sounds.get((program.name, test))
        if passed is None or time.monotonic() - passed > SOUND_SECONDS:
            begun = time.monotonic()
            if self.failing(program, [test], 0)[0] is not None:
                return False
            self.sounds[(program.name, test)] = begun
        return True

    def hangs(self, program, test, number):
        """
        Whether a test takes far too long with a change, and not because the machine is busy: it is
        given a multiple of what it needs at the time without any change, before and behind.
        """
        needed = self.needed(program, test)
        for _ in range(MOST_PATIENCE):
            if needed is None:
                return False
            if self.failing(program, [test], number, needed)[0] is None:
                return False
            former = needed
            needed = self.needed(program, test)
            if needed is not None and needed <= 2 * former + 1: # as busy as before
                self.sounds[(program.name, test)] = time.monotonic()
                return True
        return False

    def needed(self, program, test):
        """The seconds that a test takes now without any change; None when it fails."""
        with self.box() as box:
            status, _, took = box.run(self.narrowed(program, [test]), program.environment, 900, 900)
        return took if status == 0 else None

    def failing(self, program, tests, number, usual=0):
        """
        @param usual  the seconds that they take at this time, when that is known
        @return (the first test that fails, or what is known of it; how), None when all pass
        """
        usual = max(usual, sum(program.usual[test] for test in tests))
        environment = {**program.environment, "MUTATION_CHOSEN": str(number)}
        with self.box() as box:
            status, output, _ = box.run(self.narrowed(program, tests), environment,
                                        self.patience + 4 * usual, round(5 + 2 * usual))
        if status == 0:
            return None, ""
        failed = re.search(r"\[  FAILED  \] (\w[\w/]*\.[\w/]+)", output)
        running = re.findall(r"\[ RUN      \] (\S+)", output)
        if status is not None and failed:
            return failed.group(1), "killed"
        who = running[-1] if running else program.name
        return who, "timed out" if status is None or status in OVER else "killed"

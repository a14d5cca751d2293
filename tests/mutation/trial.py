"""Builds one changed source and puts it to the tests that cover it."""

import json
import os
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time
from dataclasses import dataclass, field

import mutants

HERE = os.path.dirname(os.path.abspath(__file__))

# Sources that no unit test's program is linked from, and the tests of the whole service.
WHOLE_SERVICE = re.compile(r"application/[^/]+\.(cpp|h)$")
SERVICE_TESTS = ("system.test_main", "system.test_start")
SERVICE_TARGETS = ("kestrel-server", "kestrel-server-console", "kestrel-server-scripted",
                   "kestrel_camera_preload", "kestrel-camera", "kestrel-camera-ctl")

BUILD_SECONDS = 600


class Broken(Exception):
    """The tests do not pass without any change, or the unchanged sources do not build."""


@dataclass
class Program:
    """A GoogleTest program, or one other test of ctest, with the seconds that each test takes."""

    name: str
    command: list
    environment: dict
    tests: dict = field(default_factory=dict) # name -> seconds; "" for a test that is no GoogleTest


def copied(root, to):
    """Bring a copy of the working tree up to date, touching only what differs."""
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z", "."], cwd=root,
                           check=True, stdout=subprocess.PIPE).stdout.decode().split("\0")
    kept = set()
    for name in filter(None, names):
        source = f"{root}/{name}"
        if not os.path.isfile(source) or os.path.islink(source):
            continue
        target = f"{to}/{name}"
        kept.add(target)
        with open(source, "rb") as file:
            content = file.read()
        if os.path.exists(target):
            with open(target, "rb") as file:
                if file.read() == content:
                    continue
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, "wb") as file:
            file.write(content)
        shutil.copymode(source, target)
    for folder, _, files in os.walk(to):
        for name in files:
            if f"{folder}/{name}" not in kept:
                os.remove(f"{folder}/{name}")


class Watch:
    """Tells when a test of a GoogleTest program has taken far too long, or floods its output."""

    MOST_OUTPUT = 1 << 28

    def __init__(self, output, usual):
        self.output = output
        self.usual = usual
        self.seen = 0
        self.test = None
        self.begin = time.monotonic()

    def late(self):
        if os.fstat(self.output.fileno()).st_size > self.MOST_OUTPUT:
            return True
        if self.usual is None:
            return False
        text = os.pread(self.output.fileno(), 1 << 20, self.seen)
        begun = re.findall(rb"\[ RUN      \] (\S+)", text)
        end = text.rfind(b"\n") + 1
        self.seen += end if end > 0 or len(text) < 1 << 20 else len(text)
        if begun:
            self.test = begun[-1].decode(errors="replace")
            self.begin = time.monotonic()
        return time.monotonic() - self.begin > 10 + 4 * self.usual.get(self.test, 0)


class Bench:
    """A copy of the sources and a build of it, in which one source at a time is changed."""

    def __init__(self, root, folder, options=(), jobs=1):
        self.source = f"{folder}/source"
        self.build = f"{folder}/build"
        self.scratch = f"{folder}/scratch"
        self.jobs = jobs
        self.programs = {} # by build target, as far as they have been looked at
        for path in (self.source, self.build, self.scratch):
            os.makedirs(path, exist_ok=True)
        copied(root, self.source)
        linker = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"] if shutil.which("ld.lld") else []
        self.call("cmake", "-G", "Ninja", "-S", self.source, "-B", self.build,
                  # No warning stops a change, and nothing is compiled for a debugger.
                  "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=-w", "-DCMAKE_C_FLAGS=-w",
                  "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_C_FLAGS_DEBUG=-O0",
                  "-DKESTREL_VISION=OFF", *linker, *options)
        listed = self.call("ninja", "-C", self.build, "-t", "targets", "all")
        self.executables = re.findall(r"^(tests/\S+): CXX_EXECUTABLE_LINKER", listed, re.M)
        self.inputs = {}

    def call(self, *command):
        result = subprocess.run(command, check=False, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
        if result.returncode != 0:
            raise Broken(f"{' '.join(command)}\n{result.stdout[-4000:]}")
        return result.stdout

    def compiled(self, changed=True):
        """Build what self.targets names. @return whether that worked"""
        environment = dict(os.environ)
        if changed:
            environment["CCACHE_READONLY"] = "1" # nobody compiles this again
        try:
            result = subprocess.run(["ninja", "-C", self.build, f"-j{self.jobs}", *self.targets],
                                    check=False, env=environment, stdout=subprocess.PIPE,
                                    stderr=subprocess.STDOUT, text=True, timeout=BUILD_SECONDS)
        except subprocess.TimeoutExpired:
            return False
        if result.returncode != 0 and not changed:
            raise Broken(result.stdout[-4000:])
        return result.returncode == 0

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
        return any(os.path.dirname(name) == mirrored or os.path.basename(name).startswith(stem)
                   for name in tests)

    def select(self, file):
        """Choose and build the programs for a source: those with tests in the folder that mirrors its."""
        chosen = [name for name in self.executables if self.covers(name, file)]
        whole = bool(WHOLE_SERVICE.match(file)) and os.path.isdir(f"{self.source}/tests/system")
        self.targets = chosen + (list(SERVICE_TARGETS) if whole else [])
        if not self.targets:
            raise Broken(f"no test covers {file}")
        self.compiled(changed=False)
        self.learn(chosen, SERVICE_TESTS if whole else ())
        stem = os.path.splitext(os.path.basename(file))[0]
        found = [self.programs[name] for name in chosen if name in self.programs]
        found.sort(key=lambda program: not any(self.isOf(stem, test) for test in program.tests))
        return stem, found + [self.programs[name] for name in SERVICE_TESTS
                              if whole and name in self.programs]

    @staticmethod
    def isOf(stem, test):
        """Whether a test is of the class that a file has the name of."""
        return stem in test.split(".", 1)[0]

    def learn(self, executables, others):
        """Ask ctest how the tests are run, and run those that are new: that is what has to pass."""
        wanted = [name for name in (*executables, *others) if name not in self.programs]
        if not wanted:
            return
        listed = json.loads(self.call("ctest", "--test-dir", self.build, "--show-only=json-v1"))
        for test in listed["tests"]:
            command = test.get("command", [])
            name = next((os.path.relpath(word, self.build) for word in command
                         if os.path.relpath(word, self.build) in wanted), None)
            if name is None and test["name"] in wanted:
                name = test["name"]
            if name is None or name in self.programs:
                continue
            environment = {}
            for item in test.get("properties", []):
                if item["name"] == "ENVIRONMENT":
                    environment = dict(pair.split("=", 1) for pair in item["value"] if pair)
                if item["name"] == "WORKING_DIRECTORY":
                    folder = item["value"]
            if name in others:
                command = ["sh", "-c", 'cd "$0" && exec "$@"', folder, *command]
            else:
                command = [word for word in command if not word.startswith("--gtest")]
            self.programs[name] = self.measured(Program(name, command, environment))

    def measured(self, program):
        """Fill in the tests and their times. Which fail together and alone are not used."""
        stored = f"{self.build}/{program.name.replace('/', '_')}.times.json"
        path = f"{self.build}/{program.name}"
        if os.path.exists(stored) and (not os.path.exists(path) or
                                       os.path.getmtime(stored) > os.path.getmtime(path)):
            with open(stored, encoding="utf-8") as file:
                program.tests = json.load(file)
            return program
        if not os.path.exists(path):
            begin = time.monotonic()
            status, output = self.contained(program.command, program.environment, 900)
            if status != 0:
                raise Broken(f"{program.name} fails unchanged\n{output[-2000:]}")
            program.tests = {"": time.monotonic() - begin}
        else:
            report = f"{self.scratch}/report.json"
            status, output = self.contained(
                [*program.command, "--gtest_brief=1", f"--gtest_output=json:{report}"],
                program.environment, 1800)
            if not os.path.exists(report):
                raise Broken(f"{program.name} does not run unchanged\n{output[-2000:]}")
            with open(report, encoding="utf-8") as file:
                suites = json.load(file)["testsuites"]
            os.remove(report)
            for suite in suites:
                for test in suite["testsuite"]:
                    name = f"{suite['name']}.{test['name']}"
                    if test.get("result") == "SKIPPED":
                        continue
                    if "failures" in test:
                        print(f"left out, fails unchanged: {name}", flush=True)
                    else:
                        program.tests[name] = float(test["time"].rstrip("s"))
        with open(stored, "w", encoding="utf-8") as file:
            json.dump(program.tests, file)
        return program

    def contained(self, command, environment, seconds, usual=None):
        """
        @param usual  the seconds that each test takes; one that takes far longer ends the program
        @return (status or None for a time-out, output)
        """

        def limits():
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

        with tempfile.TemporaryFile() as output:
            process = subprocess.Popen([f"{HERE}/contain", self.scratch, *command],
                                       env={**os.environ, **environment}, stdout=output,
                                       stderr=output, stdin=subprocess.DEVNULL,
                                       start_new_session=True, preexec_fn=limits)
            watch = Watch(output, usual)
            end = time.monotonic() + seconds
            try:
                while process.poll() is None and time.monotonic() < end and not watch.late():
                    time.sleep(0.02)
                status = process.poll()
            finally:
                try:
                    os.killpg(process.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
                process.wait()
            size = os.fstat(output.fileno()).st_size
            start = max(0, size - 200000)
            return status, os.pread(output.fileno(), size - start, start).decode(errors="replace")

    # One change.

    def attempt(self, mutant, stem, programs, slowest):
        """@return (result, who noticed): killed, survived, not compiled or timed out"""
        path = f"{self.source}/{mutant.file}"
        with open(path, encoding="utf-8") as file:
            source = file.read()
        try:
            with open(path, "w", encoding="utf-8") as file:
                file.write(mutants.applied(source, mutant))
            if not self.compiled():
                return "not compiled", ""
            return self.noticed(stem, programs, slowest)
        finally:
            with open(path, "w", encoding="utf-8") as file:
                file.write(source)

    def control(self, stem, programs, slowest):
        """Leave out what fails without any change when it is run as the changes are."""
        for name, program, tests in list(self.stages(stem, programs, slowest)):
            left = list(tests)
            while left:
                who, _ = self.failing(name, program, left)
                if who is None:
                    break
                if who not in left:
                    raise Broken(f"{name} fails unchanged: {who}")
                print(f"left out, fails unchanged: {who}", flush=True)
                left.remove(who)
                del program.tests[who]

    def noticed(self, stem, programs, slowest):
        for name, program, tests in self.stages(stem, programs, slowest):
            left = list(tests)
            while left:
                who, result = self.failing(name, program, left)
                if who is None:
                    break
                # Once more by itself: a busy machine is no test that notices.
                again = self.failing(name, program, [who])[0] if who in left else who
                if again is not None:
                    return result, who
                left.remove(who)
        return "survived", ""

    def failing(self, name, program, tests):
        """@return (the first test that fails, or what is known of it; how), None when all pass"""
        command = program.command
        if tests != [""]:
            command = [*command, "--gtest_fail_fast", f"--gtest_filter={':'.join(tests)}"]
        usual = sum(program.tests.get(test, 1) for test in tests)
        status, output = self.contained(command, program.environment, 3 * usual + 20,
                                        program.tests if tests != [""] else None)
        if status == 0:
            return None, ""
        if status is None:
            running = re.findall(r"\[ RUN      \] (\S+)", output)
            return running[-1] if running else name, "timed out"
        failed = re.search(r"\[  FAILED  \] (\w[\w/]*\.[\w/]+)", output)
        return failed.group(1) if failed else f"{name}, status {status}", "killed"

    def stages(self, stem, programs, slowest):
        """The class's own quick tests first, then the other quick ones, the slow ones at last."""
        later = []
        for program in programs:
            quick = [test for test, took in program.tests.items() if took <= 1]
            own = [test for test in quick if self.isOf(stem, test)]
            others = [test for test in quick if test not in own]
            slow = sorted((took, test) for test, took in program.tests.items() if 1 < took <= slowest)
            if own:
                yield f"{program.name}, own", program, own
            later += [(f"{program.name}, quick", program, others)] if others else []
            later += [(program.name, program, [test]) for took, test in slow]
        later.sort(key=lambda stage: sum(stage[1].tests[test] for test in stage[2]))
        yield from later

"""kestrel-arm check: its text, its JSON, its files and its statuses."""

import hashlib
import json
import lzma
import os
import shlex
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

ARM = shlex.split(os.environ["KESTREL_ARM"])

CONFIGURATION = """
[controller]
port = "/dev/null"
language = "grbl"
[service]
link = "/tmp/none"
[operator]
socket = "/tmp/none"
[limits]
min = [0, 0, -10]
max = [200, 100, 10]
feed = 6000
power = 1000
acceleration = 500
rapid_feed = 6000
"""

GOOD = "G21 G90\nM4 S500\nG0 X10 Y10\nG1 X110 F3000\nM5\n"

JOBS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "jobs")

WORD, FEED, POWER, BOX = "word not allowed", "feed", "power", "outside the box"
BYTE, REAL_TIME, NO_WORD, NO_END = ("byte outside printable ASCII", "real-time byte", "no word",
                                    "last line without a line end")

# What other programs have written: lines, how many of the findings can be mended, findings by reason.
WRITTEN = {
    "dxf2gcode-dots.ngc": (1149, 1, {NO_END: 1, POWER: 1, WORD: 2}),
    "dxf2gcode-plate.ngc": (55, 1, {NO_END: 1, POWER: 1, WORD: 2}),
    "dxf2gcode-umlaut.ngc": (55, 2, {BYTE: 1, NO_END: 1, POWER: 1, WORD: 2}),
    "gcodetools-crlf.ngc": (66, 67, {BYTE: 66, NO_END: 1}),
    "gcodetools-frame.ngc": (66, 3, {NO_END: 1, NO_WORD: 2}),
    "gcodetools-inch.ngc": (66, 3, {FEED: 20, NO_END: 1, NO_WORD: 2, BOX: 11}),
    "gcodetools-laser.ngc": (50, 0, {}),
    "repsnapper-box.gcode": (3660, 1, {FEED: 69, REAL_TIME: 1, WORD: 3415}),
    "repsnapper-disc.gcode": (4272, 1, {FEED: 17, REAL_TIME: 1, WORD: 4176}),
    "repsnapper-nut.gcode": (4081, 1, {FEED: 57, REAL_TIME: 1, WORD: 3878}),
    "slic3r-box.gcode": (1412, 0, {FEED: 158, WORD: 948}),
    "slic3r-disc.gcode": (5483, 0, {FEED: 101, WORD: 5122}),
    "slic3r-gear.gcode": (55985, 0, {FEED: 886, WORD: 54110}),
}


class Check(unittest.TestCase):
    """Each test has a folder of its own with the configuration in it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.write("guard.toml", CONFIGURATION)

    def path(self, name):
        """A path in the test's folder."""
        return os.path.join(self.folder, name)

    def write(self, name, content):
        """@return the path of the new file"""
        with open(self.path(name), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        return self.path(name)

    def read(self, name):
        """The content of a file in the test's folder."""
        with open(self.path(name), "rb") as file:
            return file.read()

    def check(self, job, *options, configuration="guard.toml"):
        """Run the command; @return its status, standard output and standard error"""
        done = subprocess.run([*ARM, "check", job, "--configuration", self.path(configuration), *options],
                              capture_output=True, text=True, timeout=120, check=False)
        return done.returncode, done.stdout, done.stderr

    def test_good_job_passes_with_its_figures(self):
        job = self.write("job.gcode", GOOD)
        status, out, err = self.check(job)
        self.assertEqual((0, ""), (status, err))
        lines = out.splitlines()
        self.assertIn("size        44 bytes, 5 lines", lines)
        self.assertIn("SHA-256     " + hashlib.sha256(GOOD.encode()).hexdigest(), lines)
        self.assertIn("box         X 0.000 to 110.000, Y 0.000 to 10.000, Z 0.000 to 0.000 mm", lines)
        self.assertIn("path        114.1 mm, burning 100.0 mm, rapid with the beam switched on 14.1 mm",
                      lines)
        self.assertIn("at most     feed 3000 mm/min, power 500", lines)
        self.assertEqual(job + ": passes", lines[-1])

    def test_json_has_the_same_figures(self):
        status, out, _ = self.check(self.write("job.gcode", GOOD), "--json")
        told = json.loads(out)
        self.assertEqual(0, status)
        self.assertIs(True, told["passes"])
        self.assertEqual([], told["findings"])
        self.assertEqual({"min": [0, 0, 0], "max": [110, 10, 0]}, told["box"])
        self.assertEqual((114.142, 100, 14.142), (told["path_mm"], told["burn_mm"], told["lit_travel_mm"]))
        self.assertEqual((3000, 500), (told["max_feed"], told["max_power"]))
        self.assertEqual(hashlib.sha256(GOOD.encode()).hexdigest(), told["sha256"])
        self.assertAlmostEqual(2.4, told["seconds"], delta=0.2)

    def test_refused_job_is_told_with_line_and_reason(self):
        job = self.write("job.gcode", b"G0 X201\r\nG28\n\xff\n")
        status, out, _ = self.check(job)
        self.assertEqual(1, status)
        lines = out.splitlines()
        self.assertEqual(job + ":1: refused: byte outside printable ASCII: G0 X201\\x0D", lines[0])
        self.assertEqual(job + ":2: refused: word not allowed: G28", lines[1])
        self.assertEqual(job + ":3: refused: byte outside printable ASCII: \\xFF", lines[2])
        self.assertEqual(job + ": refused, 3 places, 0 can be mended", lines[-1])

    def test_mended_copy_passes_and_decides_on_the_status(self):
        job = self.write("job.gcode", "%\r\nM3 S5 (grün)\r\nG1 X1 F60")
        status, out, _ = self.check(job, "--json", "--mend", self.path("mended.gcode"))
        told = json.loads(out)
        self.assertEqual(0, status)
        self.assertIs(False, told["passes"])
        self.assertEqual([(1, True), (2, True), (3, True), (3, True)],
                         [(finding["line"], finding["mendable"]) for finding in told["findings"]])
        self.assertEqual(b"\nM3 S5\nG1 X1 F60\nM5\n", self.read("mended.gcode"))
        self.assertEqual({"file": self.path("mended.gcode"), "passes": True, "refused": 0,
                          "sha256": hashlib.sha256(self.read("mended.gcode")).hexdigest()}, told["mended"])
        self.assertEqual(0, self.check(self.path("mended.gcode"))[0])

    def test_mended_copy_that_is_still_refused_keeps_the_status(self):
        status, out, _ = self.check(self.write("job.gcode", "G28\nM5\r\n"), "--mend", self.path("mended"))
        self.assertEqual(1, status)
        self.assertIn("mended      " + self.path("mended") + ": refused", out)
        self.assertEqual(b"G28\nM5\n", self.read("mended"))

    def test_picture_is_svg_with_the_burnt_path(self):
        status, _, _ = self.check(self.write("job.gcode", GOOD), "--svg", self.path("job.svg"))
        self.assertEqual(0, status)
        root = ElementTree.parse(self.path("job.svg")).getroot()
        self.assertEqual("{http://www.w3.org/2000/svg}svg", root.tag)
        paths = {path.get("class"): path.get("d")
                 for path in root.iter("{http://www.w3.org/2000/svg}path")}
        self.assertEqual({"burn": "M10 10L110 10", "lit": "M0 0L10 10"}, paths)

    def test_start_and_systems_are_taken_into_account(self):
        job = self.write("job.gcode", "G91\nG0 X100\nG90 G55\nG0 X100\n")
        self.assertEqual(0, self.check(job)[0])
        self.assertEqual(1, self.check(job, "--start", "150", "0", "0")[0])
        self.assertEqual(1, self.check(job, "--system", "G55=150,0,0")[0])
        for wrong in ("G55", "G60=1,2,3", "G54=1,2,3x", "G54=nan,0,0"):
            self.assertEqual(2, self.check(job, "--system", wrong)[0], wrong)

    def test_language_is_the_configurations(self):
        self.write("own.toml", CONFIGURATION.replace('"grbl"', '"kestrel"'))
        job = self.write("job.gcode", "G20\n")
        self.assertEqual(0, self.check(job)[0])
        self.assertEqual(1, self.check(job, configuration="own.toml")[0])

    def test_jobs_of_other_programs(self):
        """What is refused in each, and that mending leaves no more than could not be mended."""
        self.write("wide.toml", CONFIGURATION.replace("[200, 100, 10]", "[200, 200, 20]"))
        kept = sorted(name[:-3] for name in os.listdir(JOBS) if name.endswith(".xz"))
        self.assertEqual(sorted(WRITTEN), kept)
        for name, (lines, mendable, reasons) in WRITTEN.items():
            with self.subTest(name), lzma.open(os.path.join(JOBS, name + ".xz")) as packed:
                job = self.write(name, packed.read())
                status, out, _ = self.check(job, "--json", "--mend", self.path("mended"),
                                            configuration="wide.toml")
                told = json.loads(out)
                left = sum(reasons.values()) - mendable
                self.assertEqual(1 if left else 0, status)
                self.assertEqual((lines, mendable, reasons, left),
                                 (told["lines"], told["mendable"], told["reasons"], told["mended"]["refused"]))

    def test_what_cannot_be_read_or_written_is_status_2(self):
        job = self.write("job.gcode", GOOD)
        for arguments in ((self.path("none"),), (self.folder,), (job, "--mend", self.path("no/where")),
                          (job, "--svg", self.path("no/where")), (job, "--mend", job)):
            status, _, err = self.check(*arguments)
            self.assertEqual(2, status, arguments)
            self.assertTrue(err.startswith("kestrel-arm: "), err)
        self.assertEqual(GOOD.encode(), self.read("job.gcode"))
        self.write("wrong.toml", CONFIGURATION + "jerk = 5\n")
        status, _, err = self.check(job, configuration="wrong.toml")
        self.assertEqual(2, status)
        self.assertIn("unknown key limits.jerk", err)
        done = subprocess.run([*ARM, "check"], capture_output=True, timeout=60, check=False)
        self.assertEqual(2, done.returncode)


if __name__ == "__main__":
    unittest.main()

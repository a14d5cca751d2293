"""The drill's judgement, against logs in which something is wrong and logs in which nothing is."""

import math
import unittest

import verdict
from verdict import Run, judge, parse

JOB = ["M3 S500", "G91", "G1 X1 F600", "G1 X2", "G1 X2", "G1 X3", "G1 X4"]

BURNING = """
0.100000 rx M3 S500
0.100100 tx ok\\n
0.101000 rx G91
0.101100 tx ok\\n
0.102000 rx G1 X1 F600
0.102100 tx ok\\n
0.103000 beam on=1 power=500 moving=1
0.104000 rx G1 X2
0.104100 tx ok\\n
0.105000 rx G1 X2
0.105100 tx ok\\n
"""
CUT = """
1.004000 byte \\x18
1.004000 beam on=0 power=0 moving=0
1.005000 tx ready\\n
1.005500 rx $$
"""


def run(log, **words):
    words = {"fault": "service killed", "language": "grbl", "power": "M3", "job": JOB, "injected": 1.0,
             **words}
    return judge(Run(records=[parse(line) for line in log.splitlines() if line], **words))


class Good(unittest.TestCase):
    def test_figure_is_from_the_fault_to_dark(self):
        outcome = run(BURNING + CUT)

        self.assertEqual([], outcome.problems)
        self.assertAlmostEqual(0.004, outcome.figure)

    def test_beam_off_that_arrives_behind_a_controller_that_is_dark_by_itself_counts(self):
        outcome = run(BURNING + "1.001 beam on=0 power=0 moving=0\n1.001 tx ready\\n\n1.009 byte \\x18",
                      seen="answer", pattern="ready")

        self.assertEqual([], outcome.problems)
        self.assertAlmostEqual(0.008, outcome.figure)

    def test_beam_off_that_the_clocks_put_before_the_fault_is_its_own(self):
        outcome = run(BURNING + CUT + "29.7 byte \\x18", injected=1.0045)

        self.assertEqual([], outcome.problems)
        self.assertAlmostEqual(-0.0005, outcome.figure)

    def test_line_that_came_between_fault_and_beam_off_is_passed(self):
        self.assertEqual([], run(BURNING + "1.002 rx G1 X3" + CUT).problems)

    def test_end_of_a_job_is_measured_from_standstill(self):
        outcome = run(BURNING + "0.2 rx G1 X3\n0.3 rx G1 X4\n1.5 beam on=1 power=500 moving=0\n"
                      "1.541 rx M5\n1.541 beam on=0 power=500 moving=0", seen="end", injected=0.1)

        self.assertEqual([], outcome.problems)
        self.assertAlmostEqual(0.041, outcome.figure)


class Times(unittest.TestCase):
    def test_stopped_service_is_seen_two_seconds_after_its_last_answer(self):
        log = BURNING + "2.0 tx ok\\n\n4.003 byte \\x18\n4.003 beam on=0 power=0 moving=0"

        self.assertAlmostEqual(0.003, run(log, seen="service silent").figure)

    def test_lease_is_seen_at_its_end(self):
        self.assertAlmostEqual(0.204, run(BURNING + CUT, seen="lease", injected=0.5, lease_end=0.8).figure)

    def test_silent_controller_is_seen_a_second_after_the_oldest_unanswered_question(self):
        log = BURNING + ("0.2 byte ?\n0.205 tx <Run|FS:0,0>\\r\\n\n0.4 byte ?\n0.6 byte ?\n"
                         "1.402 byte \\x18\n1.402 beam on=0 power=0 moving=0")

        self.assertAlmostEqual(0.002, run(log, seen="reports", injected=0.3).figure)

    def test_line_is_late_two_seconds_after_what_the_controller_has(self):
        # 0, 0, 1, 2 and 2 s of estimate, a fifth more, all in the first 5 ms.
        log = BURNING + "8.107 byte \\x18\n8.107 beam on=0 power=0 moving=0"

        outcome = run(log, seen="lines", injected=0.2, durations=[0, 0, 1.0, 2.0, 2.0, 3.0, 4.0])

        self.assertAlmostEqual(8.107 - (0.102 + 1.2 * 5 + 2), outcome.figure, places=5)

    def test_line_estimates_reach_back_no_further_than_the_queue(self):
        job = [f"G1 X{number}" for number in range(200)]
        log = "".join(f"{number + 1}.0 rx {line}\n" for number, line in enumerate(job))
        log = "0.5 beam on=1 power=1 moving=1\n" + log
        log += "223.7 byte \\x18\n223.7 beam on=0 power=0 moving=0"

        outcome = run(log, job=job, seen="lines", injected=200.5, durations=[1.0] * 200)

        self.assertAlmostEqual(223.7 - (200 + 1.2 * 18 + 2), outcome.figure, places=5)

    def test_trip_before_its_time_is_found(self):
        outcome = run(BURNING + CUT, seen="lease", injected=0.5, lease_end=1.5)

        self.assertIn("before its time", outcome.problems[0])

    def test_trip_before_the_controller_has_said_anything_is_found(self):
        outcome = run(BURNING + CUT, seen="answer", pattern="alarm")

        self.assertEqual(["tripped before the fault could be seen"], outcome.problems)


class Planted(unittest.TestCase):
    def test_doubled_line_is_found(self):
        outcome = run(BURNING + "0.2 rx G1 X2" + CUT)

        self.assertEqual(1, outcome.twice)
        self.assertIn("line 5 came twice: G1 X2", outcome.problems)

    def test_doubled_line_without_blanks_is_found(self):
        self.assertEqual(1, run((BURNING + "0.2 rx G1 X3\n0.3 rx G1 X3" + CUT).replace("G1 X", "G1X")).twice)

    def test_skipped_line_is_found(self):
        outcome = run(BURNING + "0.2 rx G1 X4" + CUT)

        self.assertEqual(1, outcome.skipped)

    def test_job_that_ends_early_is_found(self):
        outcome = run(BURNING + "1.5 beam on=1 power=1 moving=0\n1.54 rx M5\n1.54 beam on=0 power=1 moving=0",
                      seen="end", injected=0.1)

        self.assertEqual(2, outcome.skipped)

    def test_foreign_line_is_found(self):
        self.assertEqual(["not of the job: G0 X99"], run(BURNING + "0.2 rx G0 X99" + CUT).problems)

    def test_pilot_spot_that_the_guard_lights_is_not_foreign(self):
        self.assertEqual([], run("0.01 rx M8\n" + BURNING + CUT).problems)

    def test_line_behind_the_trip_is_found(self):
        outcome = run(BURNING + CUT + "1.1 rx G1 X3")

        self.assertEqual(1, outcome.after)

    def test_motion_behind_the_trip_is_found(self):
        self.assertIn("moves behind the trip", run(BURNING + CUT + "1.1 beam on=0 power=0 moving=1").problems)

    def test_beam_that_stays_on_is_found(self):
        self.assertIn("the beam is on", run(BURNING + "1.004 byte \\x18").problems)

    def test_beam_that_comes_on_again_is_found(self):
        self.assertIn("the beam is on", run(BURNING + CUT + "1.2 beam on=1 power=500 moving=0").problems)

    def test_beam_that_flashes_behind_the_trip_makes_it_late(self):
        outcome = run(BURNING + CUT + "1.2 beam on=1 power=1 moving=0\n1.3 beam on=0 power=0 moving=0")

        self.assertAlmostEqual(0.3, outcome.figure)

    def test_missing_beam_off_is_found(self):
        self.assertIn("no beam off has arrived", run(BURNING + "1.1 beam on=0 power=0 moving=0").problems)

    def test_fault_in_the_dark_is_found(self):
        log = BURNING + "0.9 beam on=0 power=0 moving=1" + CUT

        self.assertIn("the beam was not on when the fault was made", run(log).problems)

    def test_trip_before_the_fault_is_found(self):
        log = BURNING + "0.9 byte \\x18\n0.9 beam on=0 power=0 moving=0" + CUT

        self.assertIn("the beam was not on when the fault was made", run(log).problems)


class Bounds(unittest.TestCase):
    def test_all_in_time_is_passed(self):
        self.assertEqual([], verdict.check_bounds({("alarm", "grbl"): [0.09] * 99 + [0.2],
                                                   ("worker killed", "grbl"): [0.9],
                                                   ("worker stopped", "grbl"): [1.9],
                                                   ("guard killed whole", "grbl"): [9.0]}))

    def test_one_too_late_is_found(self):
        broken = verdict.check_bounds({("alarm", "arm"): [0.001] * 999 + [0.25]})

        self.assertEqual(["arm: worst is 250 ms, the bound 250 ms"], broken)

    def test_two_of_a_hundred_late_are_found(self):
        broken = verdict.check_bounds({("alarm", "arm"): [0.001] * 98, ("cut line", "arm"): [0.11] * 2})

        self.assertEqual(["arm: p99 is 110 ms, the bound 100 ms"], broken)

    def test_languages_are_pooled_apart(self):
        broken = verdict.check_bounds({("alarm", "arm"): [0.001] * 900, ("alarm", "grbl"): [0.12] * 2})

        self.assertEqual(["grbl: p99 is 120 ms, the bound 100 ms"], broken)

    def test_worker_that_is_noticed_late_is_found(self):
        self.assertEqual(["arm, worker stopped: 2.000 s, the bound 2.0 s"],
                         verdict.check_bounds({("worker stopped", "arm"): [1.2, 2.0]}))

    def test_one_run_is_late_by_its_own_bound(self):
        self.assertTrue(verdict.is_late("alarm", 0.25))
        self.assertFalse(verdict.is_late("worker stopped", 1.9))
        self.assertFalse(verdict.is_late("guard killed whole", 9.0))
        self.assertFalse(verdict.is_late("alarm", math.nan))

    def test_percentile_is_the_nearest_rank(self):
        self.assertEqual(99, verdict.percentile(range(1, 101), 0.99))
        self.assertEqual(2, verdict.percentile([1, 2, 3, 4], 0.5))


if __name__ == "__main__":
    unittest.main()

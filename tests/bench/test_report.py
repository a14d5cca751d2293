"""The benchmarks' table and gate."""

import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../bench"))
import report


def row(value, floor=None, goal=None, better="less", figure="CPU", **more):
    return {"piece": "stream", "figure": figure, "value": value, "unit": "us", "floor": floor,
            "ratio": value / floor if floor else None, "goal": goal, "better": better,
            "bound": None, **more}


class Goal(unittest.TestCase):
    def test_bounds_the_ratio_where_there_is_a_floor(self):
        self.assertTrue(report.met(row(125, floor=100, goal=1.25)))
        self.assertFalse(report.met(row(126, floor=100, goal=1.25)))

    def test_bounds_the_value_where_there_is_none(self):
        self.assertTrue(report.met(row(8, goal=8)))
        self.assertFalse(report.met(row(8.1, goal=8)))

    def test_is_a_least_one_where_more_is_better(self):
        self.assertTrue(report.met(row(90, floor=100, goal=0.9, better="more")))
        self.assertFalse(report.met(row(89, floor=100, goal=0.9, better="more")))

    def test_is_neither_met_nor_missed_where_there_is_none(self):
        self.assertIsNone(report.met(row(1)))

    def test_of_zero_is_a_goal(self):
        self.assertFalse(report.met(row(1, goal=0)))


class Gate(unittest.TestCase):
    def compare(self, before, now):
        """What the gate says of the second rows, the first having been stored."""
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "ratios.json")
            report.store(path, before)
            return report.regressions(now, report.load(path))

    def test_passes_the_stored_run_itself(self):
        rows = [row(110, floor=100), row(95, floor=100, better="more", figure="lines"), row(3)]

        self.assertEqual([], self.compare(rows, rows))

    def test_fails_beyond_25_percent(self):
        complaints = self.compare([row(100, floor=100)], [row(126, floor=100)])

        self.assertEqual(["stream: CPU: ratio 1.260, stored 1.000: worse by 26 %"], complaints)

    def test_passes_up_to_25_percent(self):
        self.assertEqual([], self.compare([row(100, floor=100)], [row(125, floor=100)]))

    def test_compares_ratios_whatever_the_machine_does_to_the_values(self):
        self.assertEqual([], self.compare([row(100, floor=100)], [row(900, floor=800)]))

    def test_fails_on_less_where_more_is_better(self):
        before = [row(100, floor=100, better="more")]

        self.assertEqual([], self.compare(before, [row(200, floor=100, better="more")]))
        self.assertEqual([], self.compare(before, [row(80, floor=100, better="more")]))
        self.assertEqual(1, len(self.compare(before, [row(79, floor=100, better="more")])))
        self.assertEqual(1, len(self.compare(before, [row(0, floor=100, better="more")])))

    def test_passes_an_improvement(self):
        self.assertEqual([], self.compare([row(100, floor=100)], [row(10, floor=100)]))

    def test_fails_when_a_stored_ratio_is_not_measured_any_more(self):
        self.assertEqual(["stream: CPU: stored, but not measured any more"],
                         self.compare([row(100, floor=100)], []))

    def test_fails_when_a_ratio_was_never_stored(self):
        self.assertEqual(["stream: CPU: measured, but not stored"],
                         self.compare([], [row(100, floor=100)]))

    def test_leaves_out_what_asks_for_it(self):
        self.assertEqual([], self.compare([row(1, floor=1, gate=False)],
                                          [row(9, floor=1, gate=False)]))


class Table(unittest.TestCase):
    def test_tells_met_and_missed_goals(self):
        text = report.markdown([row(126, floor=100, goal=1.25),
                                row(0.9123, floor=1, goal=0.9, better="more"), row(9600)])

        lines = [[cell.strip() for cell in line.strip("|").split("|")]
                 for line in text.splitlines()]
        self.assertEqual(["stream", "CPU", "126 us", "100", "1.26", "ratio at most 1.25",
                          "**missed**", ""], lines[2][:8])
        self.assertEqual(["stream", "CPU", "0.912 us", "1", "0.91", "ratio at least 0.9", "met",
                          ""], lines[3][:8])
        self.assertEqual(["stream", "CPU", "9,600 us", "", "", "", "", ""], lines[4][:8])


if __name__ == "__main__":
    unittest.main()

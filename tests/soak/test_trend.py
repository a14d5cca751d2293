"""The judgement of trends, against runs that leak and runs that do not."""

import random
import unittest

from trend import check_equal, check_growth, growth, slope


def run(value, count=60, step=5.0):
    """Samples of a run, each value(number)."""
    return [(number * step, value(number)) for number in range(count)]


class Growth(unittest.TestCase):
    def test_slope_is_that_of_the_line(self):
        self.assertAlmostEqual(3.0, slope([(x, 3.0 * x + 7) for x in range(10)]))

    def test_growth_is_the_rise_over_the_last_two_thirds(self):
        self.assertAlmostEqual(400.0, growth([(x, 10.0 * x) for x in range(61)]))

    def test_steady_leak_is_found_in_noise(self):
        chance = random.Random(1)
        samples = run(lambda number: 8000 + 50 * number + chance.uniform(-500, 500))

        self.assertIn("memory: grows", check_growth("memory", samples, 1024))

    def test_noise_without_a_leak_is_passed(self):
        chance = random.Random(2)
        samples = run(lambda number: 8000 + chance.uniform(-500, 500))

        self.assertEqual("", check_growth("memory", samples, 1024))

    def test_warm_up_in_the_first_third_is_passed(self):
        samples = run(lambda number: 8000 + 300 * min(number, 18))

        self.assertEqual("", check_growth("memory", samples, 1024))

    def test_leak_that_begins_in_the_middle_is_found(self):
        samples = run(lambda number: 8000 + 100 * max(0, number - 30))

        self.assertIn("memory: grows", check_growth("memory", samples, 1024))

    def test_one_moment_far_off_is_passed(self):
        samples = run(lambda number: 22000 if number == 50 else 8000 + 10 * (number > 50))

        self.assertEqual("", check_growth("memory", samples, 100))

    def test_falling_memory_is_passed(self):
        self.assertEqual("", check_growth("memory", run(lambda number: 8000 - number), 0))

    def test_too_few_samples_are_no_pass(self):
        self.assertIn("too few", check_growth("memory", run(lambda _: 1, count=4), 1024))
        self.assertIn("too few", check_growth("memory", [], 1024))


class Equal(unittest.TestCase):
    def test_idle_number_at_every_quiet_moment_is_passed(self):
        self.assertEqual("", check_equal("threads", run(lambda _: 6), 6))

    def test_one_too_many_at_one_moment_is_found(self):
        samples = run(lambda number: 7 if number == 40 else 6)

        self.assertEqual("threads: 7 at a quiet moment (200 s), idle is 6",
                         check_equal("threads", samples, 6))

    def test_one_too_few_is_found(self):
        self.assertIn("threads: 5", check_equal("threads", run(lambda _: 5), 6))


if __name__ == "__main__":
    unittest.main()

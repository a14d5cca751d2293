"""Whether what is sampled at quiet moments grows."""

import itertools
import statistics

LEAST_SAMPLES = 4  # in the part of the run that is judged
# What the line through the quiet moments' samples may rise in the last two thirds of a run.
# Allocated bytes come back to what they were: to the byte under AddressSanitizer. In the release
# build small freed blocks that the C library keeps for each thread count as allocated; they grew
# by 14 kB over the last two thirds of five minutes, ever more slowly. Resident memory also has the
# holes that a peak left behind, up to 2 MB at a time; under AddressSanitizer its tables of stacks
# and freed blocks besides.
ALLOCATED_BOUND = 48 * 1024  # bytes
RESIDENT_BOUND = {"": 4096, "asan": 16384}  # kB


def slope(points):
    """The median slope between any two (x, y) points.

    Unlike a least-squares line, it is not tilted by one moment at which the allocator still keeps
    the pages of a record queue; what leaks tilts all of them.
    """
    slopes = [(later[1] - earlier[1]) / (later[0] - earlier[0])
              for earlier, later in itertools.combinations(points, 2) if later[0] != earlier[0]]
    return statistics.median(slopes) if slopes else 0.0


def growth(points):
    """By how much the line through the last two thirds of the time rises over them.

    The first third is the warm-up: allocators reach their high-water marks there.
    """
    judged = last_two_thirds(points)
    return slope(judged) * (judged[-1][0] - judged[0][0])


def last_two_thirds(points):
    start, end = points[0][0], points[-1][0]
    return [point for point in points if point[0] >= start + (end - start) / 3]


def check_growth(name, points, bound):
    """A text that says what is wrong, or '' when the line rises by no more than the bound."""
    if not points or len(last_two_thirds(points)) < LEAST_SAMPLES:
        return f"{name}: too few samples ({len(points)}) to judge"
    risen = growth(points)
    if risen > bound:
        return f"{name}: grows, by {risen:.0f} over the last two thirds; the bound is {bound}"
    return ""


def check_equal(name, points, idle):
    """A text that says when something was not back at its idle number, or ''."""
    for seconds, value in points:
        if value != idle:
            return f"{name}: {value} at a quiet moment ({seconds:.0f} s), idle is {idle}"
    return ""

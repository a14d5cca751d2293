// The arcs of Grbl 1.1.
#include "GrblArc.h"

#include <algorithm>
#include <cmath>
#include <string>

#include <gtest/gtest.h>

namespace {

const Point ORIGIN{{0, 0, 0}};

GrblModes modesOf(int nMotion, int nPlane = 17)
{
    GrblModes modes;
    modes.nMotion = nMotion;
    modes.nPlane = nPlane;
    return modes;
}

int read(GrblArc& arc, const std::string& strLine)
{
    GrblWords words;
    EXPECT_EQ(0, words.read(strLine)) << strLine;
    return arc.read(words);
}

// Farthest that a chord's end is from the circle.
double offCircle(const std::vector<Point>& vecEnd, double dX, double dY, double dRadius)
{
    double dWorst = 0;
    for (const Point& end : vecEnd) {
        dWorst = std::max(dWorst, std::fabs(std::hypot(end[0] - dX, end[1] - dY) - dRadius));
    }
    return dWorst;
}

} // namespace

TEST(GrblArc, ClockwiseAndCounterclockwiseGoOppositeWays)
{
    const Point target{{10, 0, 0}};
    GrblArc clockwise(ORIGIN, target, modesOf(2));
    GrblArc counter(ORIGIN, target, modesOf(3));
    ASSERT_EQ(0, read(clockwise, "X10I5"));
    ASSERT_EQ(0, read(counter, "X10I5"));

    const std::vector<Point> vecUp = clockwise.divide(0.002);
    const std::vector<Point> vecDown = counter.divide(0.002);

    EXPECT_GT(vecUp[vecUp.size() / 2][1], 4.9);
    EXPECT_LT(vecDown[vecDown.size() / 2][1], -4.9);
    EXPECT_EQ(target, vecUp.back());
    EXPECT_LT(offCircle(vecUp, 5, 0, 5), 1e-9);
}

TEST(GrblArc, ChordsAreWithinTheTolerance)
{
    GrblArc arc(ORIGIN, {{10, 0, 0}}, modesOf(2));
    ASSERT_EQ(0, read(arc, "X10I5"));

    for (const double dTolerance : {0.5, 0.02, 0.002}) {
        const std::vector<Point> vecEnd = arc.divide(dTolerance);
        Point former = ORIGIN;
        for (const Point& end : vecEnd) {
            const double dMiddle =
                std::hypot((former[0] + end[0]) / 2 - 5, (former[1] + end[1]) / 2);
            EXPECT_LT(5 - dMiddle, 2 * dTolerance) << dTolerance; // the number is rounded down
            former = end;
        }
    }
    EXPECT_LT(arc.divide(0.02).size(), arc.divide(0.002).size());
}

TEST(GrblArc, ArcToItsStartIsAWholeCircle)
{
    GrblArc arc(ORIGIN, ORIGIN, modesOf(3));
    ASSERT_EQ(0, read(arc, "X0I5"));

    const std::vector<Point> vecEnd = arc.divide(0.01);

    EXPECT_NEAR(10, vecEnd[vecEnd.size() / 2][0], 0.5);
    EXPECT_EQ(ORIGIN, vecEnd.back());
}

TEST(GrblArc, RadiusBelowZeroGoesTheLongWay)
{
    const Point target{{5, 5, 0}};
    GrblArc near(ORIGIN, target, modesOf(2));
    GrblArc far(ORIGIN, target, modesOf(2));
    ASSERT_EQ(0, read(near, "X5Y5R5"));
    ASSERT_EQ(0, read(far, "X5Y5R-5"));

    EXPECT_LT(offCircle(near.divide(0.002), 5, 0, 5), 1e-9);
    EXPECT_LT(offCircle(far.divide(0.002), 0, 5, 5), 1e-9);
    EXPECT_NEAR(3.0,
                static_cast<double>(far.divide(0.002).size()) /
                    static_cast<double>(near.divide(0.002).size()),
                0.1);
}

TEST(GrblArc, ThirdAxisGoesAlongEvenly)
{
    GrblArc arc(ORIGIN, {{10, 0, 4}}, modesOf(2));
    ASSERT_EQ(0, read(arc, "X10Z4I5"));

    const std::vector<Point> vecEnd = arc.divide(0.002);

    for (size_t i = 0; i < vecEnd.size(); ++i) {
        EXPECT_NEAR(4.0 * static_cast<double>(i + 1) / static_cast<double>(vecEnd.size()),
                    vecEnd[i][2], 1e-9);
    }
}

TEST(GrblArc, PlanesHaveAxesAndOffsetsOfTheirOwn)
{
    GrblArc zx(ORIGIN, {{0, 0, 10}}, modesOf(2, 18));
    GrblArc yz(ORIGIN, {{0, 10, 0}}, modesOf(2, 19));
    ASSERT_EQ(0, read(zx, "Z10K5"));
    ASSERT_EQ(0, read(yz, "Y10J5"));

    const std::vector<Point> vecZx = zx.divide(0.002);
    const std::vector<Point> vecYz = yz.divide(0.002);

    EXPECT_GT(vecZx[vecZx.size() / 2][0], 4.9);
    EXPECT_EQ(0, vecZx[vecZx.size() / 2][1]);
    EXPECT_GT(vecYz[vecYz.size() / 2][2], 4.9);
    EXPECT_EQ(0, vecYz[vecYz.size() / 2][0]);
}

TEST(GrblArc, CentreIsInTheUnitsOfTheLine)
{
    GrblModes modes = modesOf(2);
    modes.bInch = true;
    GrblArc arc(ORIGIN, {{25.4, 0, 0}}, modes);
    ASSERT_EQ(0, read(arc, "X1I0.5"));

    EXPECT_LT(offCircle(arc.divide(0.002), 12.7, 0, 12.7), 1e-9);
}

TEST(GrblArc, WhatIsNoArcIsRefused)
{
    GrblArc arc(ORIGIN, {{10, 0, 0}}, modesOf(2));
    EXPECT_EQ(32, read(arc, "Z1I5"));  // no axis of the plane
    EXPECT_EQ(35, read(arc, "X10"));   // no centre
    EXPECT_EQ(35, read(arc, "X10K5")); // of another plane
    EXPECT_EQ(34, read(arc, "X10R4")); // too small
    EXPECT_EQ(33, read(arc, "X10I4")); // not on the circle
    EXPECT_EQ(0, read(arc, "X10I5.001"));
    GrblArc none(ORIGIN, ORIGIN, modesOf(2));
    EXPECT_EQ(33, read(none, "X0R5"));
}

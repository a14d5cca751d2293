// The planner of Grbl 1.1: 100 mm/s at most, 100 mm/s^2 in these tests.
#include "GrblPlanner.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

class GrblPlannerMotion : public testing::Test
{
protected:
    GrblPlannerMotion()
    {
        m_planner.setLimits({{100, 100, 100}}, {{100, 100, 100}}, 0.01);
    }

    void queue(double dX, double dY, double dSpeed, bool bRapid = false)
    {
        GrblBlock block;
        block.target = {{dX, dY, 0}};
        block.dSpeed = dSpeed;
        block.bRapid = bRapid;
        m_planner.queue(block);
    }

    // Seconds until everything is carried out.
    double finish()
    {
        double dSeconds = 0;
        while (!m_planner.isEmpty() && dSeconds < 100) {
            m_planner.advance(0.001);
            dSeconds += 0.001;
        }
        return dSeconds;
    }

    GrblPlanner m_planner;
};

} // namespace

TEST_F(GrblPlannerMotion, LineIsATrapezoid)
{
    queue(10, 0, 10); // 0.1 s up to speed in 0.5 mm, 0.9 s, 0.1 s down

    m_planner.advance(0.05);
    EXPECT_NEAR(5, m_planner.getSpeed(), 1e-6);
    EXPECT_NEAR(0.5, m_planner.getSpeedShare(), 1e-6);
    m_planner.advance(0.05);
    EXPECT_NEAR(10, m_planner.getSpeed(), 1e-6);
    EXPECT_NEAR(0.5, m_planner.getPosition()[0], 1e-6);
    m_planner.advance(0.9);
    EXPECT_NEAR(9.5, m_planner.getPosition()[0], 1e-6);
    EXPECT_NEAR(0.1, m_planner.getTimeToStop(), 1e-6);
    m_planner.advance(0.1001);
    EXPECT_TRUE(m_planner.isEmpty());
    EXPECT_EQ(0, m_planner.getSpeed());
    EXPECT_EQ((Point{{10, 0, 0}}), m_planner.getPosition());
}

TEST_F(GrblPlannerMotion, ShortLineNeverReachesItsSpeed)
{
    queue(1, 0, 100); // half of it up to 10 mm/s in 0.1 s, and down again

    EXPECT_NEAR(0.2, finish(), 0.002);
}

TEST_F(GrblPlannerMotion, AxesLimitsHoldForEachAxis)
{
    m_planner.setLimits({{10, 100, 100}}, {{1000, 1000, 1000}}, 0.01);

    queue(10, 10, 500);
    m_planner.advance(0.5);
    EXPECT_NEAR(10 * std::sqrt(2.0), m_planner.getSpeed(), 1e-6);
    m_planner.clear();
    queue(m_planner.getPosition()[0], 50, 1, true); // a rapid one does not look at its speed
    m_planner.advance(0.15);
    EXPECT_NEAR(100, m_planner.getSpeed(), 1e-6);
}

TEST_F(GrblPlannerMotion, StraightJunctionKeepsTheSpeedAndTurningBackStops)
{
    queue(10, 0, 10);
    queue(20, 0, 10);
    queue(10, 0, 10);

    m_planner.advance(1.05); // 10 mm are passed after 0.1 + 0.95 s
    EXPECT_NEAR(10, m_planner.getSpeed(), 1e-6);
    // Without the stop at 10 mm: 0.1 + 1.9 + 0.1 s to 20 mm, and 1.1 s back.
    EXPECT_NEAR(2.1 + 1.1 - 1.05, finish(), 0.003);
}

TEST_F(GrblPlannerMotion, CornerIsTakenAsFastAsTheDeviationAllows)
{
    queue(10, 0, 50);
    queue(10, 10, 50);
    // sqrt(a * d * s / (1 - s)) with s the sine of 45 degrees
    const double dSine = std::sqrt(0.5);
    const double dExpected = std::sqrt(100 * 0.01 * dSine / (1 - dSine));

    double dAtCorner = 100;
    while (m_planner.getPosition()[1] <= 0 && !m_planner.isEmpty()) {
        dAtCorner = m_planner.getSpeed();
        m_planner.advance(0.0001);
    }

    EXPECT_NEAR(dExpected, dAtCorner, 0.05);
}

TEST_F(GrblPlannerMotion, HoldSlowsDownAndResumeGoesOn)
{
    queue(10, 0, 10);
    m_planner.advance(0.5);

    m_planner.hold();
    EXPECT_TRUE(m_planner.isMoving());
    m_planner.advance(0.2);
    EXPECT_FALSE(m_planner.isMoving());
    EXPECT_EQ(0, m_planner.getSpeed());
    EXPECT_NEAR(5, m_planner.getPosition()[0], 1e-6); // 4.5 mm, and 0.5 mm more to stop
    EXPECT_EQ(-1, m_planner.getNextChange());

    m_planner.resume();
    EXPECT_NEAR(0.6, finish(), 0.002);
}

TEST_F(GrblPlannerMotion, OverridesActOnTheBlockUnderWay)
{
    queue(100, 0, 10);
    m_planner.advance(1);

    m_planner.setOverrides(2, 1);
    m_planner.advance(1);
    EXPECT_NEAR(20, m_planner.getSpeed(), 1e-6);
    m_planner.setOverrides(0.5, 1);
    m_planner.advance(1);
    EXPECT_NEAR(5, m_planner.getSpeed(), 1e-6);
    m_planner.clear();
    queue(100, 0, 10, true);
    m_planner.setOverrides(1, 0.25);
    m_planner.advance(1);
    EXPECT_NEAR(25, m_planner.getSpeed(), 1e-6);
}

TEST_F(GrblPlannerMotion, FifteenBlocksWaitBehindTheOneUnderWay)
{
    EXPECT_EQ(15U, m_planner.getFree());
    for (int i = 1; i <= 16; ++i) {
        EXPECT_FALSE(m_planner.isFull()) << i;
        queue(i, 0, 10);
    }

    EXPECT_TRUE(m_planner.isFull());
    EXPECT_EQ(0U, m_planner.getFree());
    EXPECT_EQ((Point{{16, 0, 0}}), m_planner.getDestination());
}

TEST_F(GrblPlannerMotion, BlockWithoutLengthIsDropped)
{
    queue(0, 0, 10);

    EXPECT_TRUE(m_planner.isEmpty());
}

TEST_F(GrblPlannerMotion, ClearStopsAtOnce)
{
    queue(10, 0, 10);
    m_planner.advance(0.5);

    m_planner.clear();

    EXPECT_TRUE(m_planner.isEmpty());
    EXPECT_EQ(0, m_planner.getSpeed());
    EXPECT_NEAR(4.5, m_planner.getPosition()[0], 1e-6);
}

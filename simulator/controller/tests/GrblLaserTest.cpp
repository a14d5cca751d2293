// The laser of Grbl 1.1.
#include "GrblLaser.h"

#include <gtest/gtest.h>

namespace {

class GrblLaserOutput : public testing::Test
{
protected:
    GrblLaserOutput()
    {
        m_planner.setLimits({{100, 100, 100}}, {{100, 100, 100}}, 0.01);
    }

    // A line of 10 mm: 0.1 s up to 10 mm/s, 0.9 s, 0.1 s down.
    void move(SPINDLE_E eSpindle, double dPower)
    {
        GrblBlock block;
        block.target = {{m_planner.getPosition()[0] + 10, 0, 0}};
        block.dSpeed = 10;
        block.eSpindle = eSpindle;
        block.dPower = dPower;
        m_planner.queue(block);
    }

    void setLaserMode()
    {
        ASSERT_EQ(0, m_settings.set(32, 1));
    }

    GrblSettings m_settings;
    GrblPlanner m_planner;
    GrblLaser m_laser{m_settings, m_planner};
};

} // namespace

TEST_F(GrblLaserOutput, LightIsWhatIsOutput)
{
    EXPECT_FALSE(m_laser.getLight(100).bOn);
    EXPECT_FALSE(m_laser.isOutput());

    m_laser.output(SPINDLE_CONSTANT, 500);
    EXPECT_TRUE(m_laser.getLight(100).bOn);
    EXPECT_EQ(500, m_laser.getPower(100));
    EXPECT_EQ("S", m_laser.format());
    m_laser.output(SPINDLE_CONSTANT, 0);
    EXPECT_FALSE(m_laser.getLight(100).bOn);
    m_laser.output(SPINDLE_CONSTANT, 500);
    m_laser.switchOff();
    EXPECT_FALSE(m_laser.getLight(100).bOn);
    EXPECT_EQ("", m_laser.format());
}

TEST_F(GrblLaserOutput, OverrideAndGreatestPowerBoundIt)
{
    m_laser.output(SPINDLE_CONSTANT, 800); // of 1000 at most

    EXPECT_EQ(400, m_laser.getPower(50));
    EXPECT_EQ(1000, m_laser.getPower(200));
}

TEST_F(GrblLaserOutput, StoppedItIsDarkAndComesOnAgain)
{
    m_laser.output(SPINDLE_CONSTANT, 500);

    m_laser.stop(true);
    EXPECT_FALSE(m_laser.getLight(100).bOn);
    EXPECT_EQ(0, m_laser.getPower(100));
    EXPECT_EQ("", m_laser.format());
    EXPECT_TRUE(m_laser.isOutput());
    m_laser.stop(false);

    EXPECT_TRUE(m_laser.getLight(100).bOn);
}

TEST_F(GrblLaserOutput, WithoutLaserModeBlocksDoNotMatter)
{
    m_laser.output(SPINDLE_CONSTANT, 500);
    move(SPINDLE_DYNAMIC, 900);
    m_planner.advance(0.5);

    m_laser.follow();

    EXPECT_EQ(500, m_laser.getPower(100));
    EXPECT_EQ("S", m_laser.format());
}

TEST_F(GrblLaserOutput, InLaserModeTheBlockUnderWayCounts)
{
    setLaserMode();
    m_laser.output(SPINDLE_CONSTANT, 500);
    move(SPINDLE_CONSTANT, 900);
    m_planner.advance(0.05);

    EXPECT_EQ(900, m_laser.getPower(100)); // constant: whatever the speed
    m_laser.follow();
    m_planner.advance(2);

    EXPECT_EQ(900, m_laser.getPower(100)); // there it stays
}

TEST_F(GrblLaserOutput, DynamicPowerFollowsTheSpeedAndIsDarkAtRest)
{
    setLaserMode();
    m_laser.output(SPINDLE_DYNAMIC, 800);
    EXPECT_FALSE(m_laser.getLight(100).bOn);
    EXPECT_EQ("C", m_laser.format());

    move(SPINDLE_DYNAMIC, 800);
    m_planner.advance(0.05);
    EXPECT_NEAR(400, m_laser.getPower(100), 1e-6); // half the speed
    m_planner.advance(0.5);
    EXPECT_NEAR(800, m_laser.getPower(100), 1e-6);
    EXPECT_GT(m_laser.getTimeToDark(), -1.001);
    m_planner.advance(2);
    EXPECT_FALSE(m_laser.getLight(100).bOn);
}

TEST_F(GrblLaserOutput, DynamicPowerEndsOneSegmentBeforeRest)
{
    setLaserMode();
    m_laser.output(SPINDLE_DYNAMIC, 800);
    move(SPINDLE_DYNAMIC, 800);
    m_planner.advance(1.05); // half-way down: 0.05 s to rest, 10 ms of them dark

    EXPECT_NEAR(0.04, m_laser.getTimeToDark(), 1e-6);
    EXPECT_TRUE(m_laser.getLight(100).bOn);
    m_planner.advance(0.0401);

    EXPECT_FALSE(m_laser.getLight(100).bOn);
    EXPECT_TRUE(m_planner.isMoving());
}

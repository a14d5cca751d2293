// The virtual arm: feed rate, queue, pause and what counts as arrived.
#include "Motion.h"

#include <gtest/gtest.h>

static const int64_t SECOND = 1000000;

TEST(Motion, FeedRateGivesTheTime)
{
    Motion motion(1, 0);

    motion.queueMove({10, 0, 0}, 600, false); // 10 mm at 10 mm per second
    EXPECT_EQ(SECOND, motion.getRemainingUs());
    motion.advance(SECOND / 4);

    EXPECT_DOUBLE_EQ(2.5, motion.getPosition()[0]);
    EXPECT_EQ(SECOND * 3 / 4, motion.getRemainingUs());
}

TEST(Motion, LengthIsThatOfTheStraightLine)
{
    Motion motion(1, 0);

    motion.queueMove({3, 4, 0}, 300, false); // 5 mm at 5 mm per second

    EXPECT_EQ(SECOND, motion.getRemainingUs());
}

TEST(Motion, SpeedUpShortensMovesButNotTheSettling)
{
    Motion motion(10, SECOND / 2);

    motion.queueMove({10, 0, 0}, 600, false);
    motion.queueMove({20, 0, 0}, 600, true);

    EXPECT_EQ(SECOND / 10, motion.getRemainingUs());
    EXPECT_EQ(0U, motion.advance(SECOND / 10 + SECOND / 2 - 1));
    EXPECT_EQ(1U, motion.advance(SECOND / 10 + SECOND / 2));
}

TEST(Motion, MovesFollowEachOtherWithinOneStep)
{
    Motion motion(1, 0);
    motion.queueMove({10, 0, 0}, 600, true);
    motion.queueMove({10, 10, 0}, 600, true);
    motion.queueMove({10, 10, 10}, 600, false);

    const unsigned uEnded = motion.advance(2 * SECOND + SECOND / 2);

    EXPECT_EQ(2U, uEnded);
    EXPECT_EQ((Point{10, 10, 5}), motion.getPosition());
    EXPECT_FALSE(motion.isIdle());
}

TEST(Motion, HeldArmStandsStillAndGoesOn)
{
    Motion motion(1, 0);
    motion.queueMove({10, 0, 0}, 600, false);
    motion.advance(SECOND / 2);

    motion.setHeld(true);
    motion.advance(10 * SECOND);
    EXPECT_DOUBLE_EQ(5, motion.getPosition()[0]);
    EXPECT_EQ(-1, motion.getRemainingUs());
    motion.setHeld(false);
    motion.advance(10 * SECOND + SECOND / 2);

    EXPECT_DOUBLE_EQ(10, motion.getPosition()[0]);
    EXPECT_TRUE(motion.isIdle());
}

TEST(Motion, QueueIsBounded)
{
    Motion motion(1, 0);
    for (size_t i = 0; i <= Motion::MAX_QUEUED; ++i) {
        EXPECT_FALSE(motion.isFull());
        motion.queueMove({1, 0, 0}, 600, false);
    }

    EXPECT_TRUE(motion.isFull());
}

TEST(Motion, ClearedArmStaysWhereItIs)
{
    Motion motion(1, 0);
    motion.queueMove({10, 0, 0}, 600, true);
    motion.advance(SECOND / 2);

    motion.clear();

    EXPECT_EQ(0U, motion.advance(10 * SECOND));
    EXPECT_DOUBLE_EQ(5, motion.getPosition()[0]);
}

TEST(Motion, BeamIsToldWithItsWayAndItsEnergyWhileItIsOn)
{
    Motion motion(10, 0); // ten times as fast as the job says
    std::vector<BeamStroke> vecStroke;
    motion.onBeam([&vecStroke](const BeamStroke& stroke) { vecStroke.push_back(stroke); });
    motion.queueMove({10, 0, 0}, 600, false);
    motion.queueLaser({true, 500});
    motion.queueMove({10, 5, 0}, 600, false);
    motion.queueMove({10, 5, 2}, 600, false);
    motion.queueLaser({false, 500});
    motion.queueMove({0, 0, 0}, 600, false);

    motion.advance(3 * SECOND);

    ASSERT_EQ(2U, vecStroke.size());
    EXPECT_EQ((Point{10, 0, 0}), vecStroke[0].from);
    EXPECT_EQ((Point{10, 5, 0}), vecStroke[0].to);
    EXPECT_DOUBLE_EQ(250, vecStroke[0].dEnergy); // half a second of the job's time
    EXPECT_EQ((Point{10, 5, 2}), vecStroke[1].to);
    EXPECT_DOUBLE_EQ(100, vecStroke[1].dEnergy);
}

TEST(Motion, BeamThatStandsIsToldToo)
{
    Motion motion(10, 0);
    std::vector<BeamStroke> vecStroke;
    motion.onBeam([&vecStroke](const BeamStroke& stroke) { vecStroke.push_back(stroke); });
    motion.queueLaser({true, 100});
    motion.queueDwell(2);
    motion.advance(SECOND);
    motion.setHeld(true);
    motion.advance(2 * SECOND);
    motion.setHeld(false);
    motion.advance(4 * SECOND); // the dwell's other second, and one without anything to do

    ASSERT_EQ(4U, vecStroke.size());
    for (const BeamStroke& stroke : vecStroke) {
        EXPECT_EQ((Point{0, 0, 0}), stroke.from);
        EXPECT_EQ((Point{0, 0, 0}), stroke.to);
        EXPECT_DOUBLE_EQ(100, stroke.dEnergy);
    }
}

// What the beam leaves on the workpiece.
#include "Burner.h"

#include <cmath>
#include <cstdint>
#include <memory>

#include <gtest/gtest.h>

namespace {

const double FEED = 25; // mm/s, 1500 mm/min

class BurnerWorkpiece : public testing::Test
{
protected:
    /** How much of the cell about a place is burnt. */
    double share(double dX, double dY) const
    {
        const auto column = static_cast<size_t>(std::floor(dX / 0.05) + 640);
        const auto row = static_cast<size_t>(std::floor(dY / 0.05) + 480);
        return static_cast<double>(m_pBurnt->afShare[row * 1280 + column].load());
    }

    /** From (-5, 0.025), the middle of a row of cells, to (5, 0.025). */
    void burnLine(double dPower, double dZ = 0)
    {
        m_burner.burn({-5, 0.025, dZ}, {5, 0.025, dZ}, dPower * 10 / FEED);
    }

    std::unique_ptr<BurntState> m_pBurnt = std::make_unique<BurntState>();
    Burner m_burner{*m_pBurnt};
};

} // namespace

TEST_F(BurnerWorkpiece, LineIsCharredInItsMiddleAndEndsAtItsEdge)
{
    burnLine(1000);

    EXPECT_NEAR(1 - std::exp(-4.0), share(0, 0.025), 0.001);
    EXPECT_NEAR(1 - std::exp(-4 * std::exp(-1.0 / 0.72)), share(0, 0.125), 0.001);
    EXPECT_EQ(0, share(0, 0.225));
    EXPECT_GT(share(-4.975, 0.025), 0.5);
    EXPECT_EQ(0, share(-5.175, 0.025));
    EXPECT_EQ(1u, m_pBurnt->u32Changes);
}

TEST_F(BurnerWorkpiece, LessPowerBurnsLessAndAnotherPassMore)
{
    burnLine(200);
    EXPECT_NEAR(1 - std::exp(-0.8), share(0, 0.025), 0.001);

    burnLine(200);

    EXPECT_NEAR(1 - std::exp(-1.6), share(0, 0.025), 0.001);
}

TEST_F(BurnerWorkpiece, ManyShortStretchesBurnAsOneLongOneDoes)
{
    for (int i = 0; i < 1000; ++i) {
        m_burner.burn({-5 + i * 0.01, 0.025, 0}, {-5 + (i + 1) * 0.01, 0.025, 0},
                      1000 * 0.01 / FEED);
    }

    EXPECT_NEAR(1 - std::exp(-4.0), share(0, 0.025), 0.002);
    EXPECT_NEAR(1 - std::exp(-4 * std::exp(-1.0 / 0.72)), share(0, 0.125), 0.03);
}

TEST_F(BurnerWorkpiece, OutOfFocusTheLineIsWiderAndPaler)
{
    burnLine(200, -2); // sigma is doubled

    EXPECT_NEAR(1 - std::exp(-0.4), share(0, 0.025), 0.001);
    EXPECT_GT(share(0, 0.275), 0.01);
}

TEST_F(BurnerWorkpiece, BeamThatStandsBurnsASpotThatDoesNotGrowForEver)
{
    m_burner.burn({1, 1, 0}, {1, 1, 0}, 1e6);

    EXPECT_GT(share(1.12, 1.01), 0.99);
    EXPECT_EQ(0, share(1.17, 1.01));
    EXPECT_EQ(0, share(1.12, 1.12));
}

TEST_F(BurnerWorkpiece, WhatIsOutOfSightIsForgotten)
{
    m_burner.burn({-40, 0.025, 0}, {-30, 0.025, 0}, 1000 * 10 / FEED);
    m_burner.burn({100, 100, 0}, {200, 100, 0}, 1000 * 10 / FEED);
    m_burner.burn({31, 23.975, 0}, {31.9, 30, 0}, 1000 * 10 / FEED);

    EXPECT_GT(share(-31.99, 0.025), 0.9);
    size_t uBurnt = 0;
    for (const std::atomic<float>& fShare : m_pBurnt->afShare) {
        uBurnt += fShare.load() > 0 ? 1 : 0;
    }
    EXPECT_LT(uBurnt, 500u); // 2 mm of the first line and the beginning of the last one
    EXPECT_GT(uBurnt, 200u);
}

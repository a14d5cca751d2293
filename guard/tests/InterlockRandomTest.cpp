// Random events, and what has to hold whatever comes.
#include <cstdint>
#include <cstdio>

#include <gtest/gtest.h>

#include "GrblLanguage.h"
#include "KestrelLanguage.h"
#include "RandomWorld.h"

namespace {

const uint64_t STEPS = KESTREL_RANDOM_STEPS; // for each language

void run(const ILanguage& language)
{
    RandomWorld world(language, 17);
    for (uint64_t u = 0; u < STEPS; ++u) {
        world.step();
        ASSERT_EQ("", world.m_strComplaint) << "step " << u;
    }
    // Worth something only while jobs run, end and are interrupted.
    EXPECT_GT(world.m_u64Jobs, STEPS / 20000);
    EXPECT_GT(world.m_u64JobsDone, STEPS / 100000);
    EXPECT_GT(world.m_u64Trips, STEPS / 20000);
    EXPECT_GT(world.m_u64Repeats, STEPS / 100000);
    printf("%d jobs, %d to their end, %d trips, %d lines, %d repeats\n",
           static_cast<int>(world.m_u64Jobs), static_cast<int>(world.m_u64JobsDone),
           static_cast<int>(world.m_u64Trips), static_cast<int>(world.m_u64Lines),
           static_cast<int>(world.m_u64Repeats));
}

} // namespace

TEST(InterlockRandom, RulesHoldInTheArmsOwnLanguage)
{
    run(KestrelLanguage());
}

TEST(InterlockRandom, RulesHoldInGrbl)
{
    run(GrblLanguage());
}

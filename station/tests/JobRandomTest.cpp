// Random jobs: what the check lets pass passes the guard, and so does each mended copy.
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "GrblLanguage.h"
#include "JobWorld.h"
#include "KestrelLanguage.h"

namespace {

void expectNoFlaw(const ILanguage& language, unsigned uSeed)
{
    std::mt19937 random(uSeed);
    size_t uLines = 0;
    size_t uPassed = 0;
    while (uLines < 500000) {
        std::vector<uint8_t> vecByte(1 + random() % 60);
        const uint32_t u32Pieces = random() % 50; // one in so many; whole lines else
        for (uint8_t& u8Byte : vecByte) {
            const bool bPiece = u32Pieces < 2 || 0 == random() % u32Pieces;
            u8Byte = static_cast<uint8_t>(bPiece ? random() % 128 : 128 + random() % 128);
        }
        const std::string strJob = makeJob(vecByte.data(), vecByte.size());
        bool bPassed = false;
        const std::string strFlaw = findFlaw(language, strJob, bPassed);
        ASSERT_EQ("", strFlaw) << strJob;
        uPassed += bPassed ? 1 : 0;
        uLines += 1 + static_cast<size_t>(std::count(strJob.begin(), strJob.end(), '\n'));
    }
    EXPECT_GT(uPassed, 500U); // else there was nothing to see
}

} // namespace

TEST(JobRandom, WhatPassesTheCheckPassesTheGuardForGrbl)
{
    expectNoFlaw(GrblLanguage(), 1);
}

TEST(JobRandom, WhatPassesTheCheckPassesTheGuardForTheArmsOwnLanguage)
{
    expectNoFlaw(KestrelLanguage(), 2);
}

// The words of a G-code line of Grbl 1.1.
#include "GrblWords.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

int codeOf(const std::string& strLine)
{
    GrblWords words;
    return words.read(strLine);
}

} // namespace

TEST(GrblWords, WordsAreKeptUntilTaken)
{
    GrblWords words;
    ASSERT_EQ(0, words.read("G1X10Y-2.5F300"));
    double dValue = 7;

    EXPECT_EQ(10, words.getG(GrblWords::GROUP_MOTION));
    EXPECT_TRUE(words.hasAxes());
    EXPECT_TRUE(words.get('X', dValue));
    EXPECT_EQ(10, dValue);
    EXPECT_TRUE(words.has('X'));
    EXPECT_TRUE(words.take('Y', dValue));
    EXPECT_EQ(-2.5, dValue);
    EXPECT_FALSE(words.has('Y'));
    EXPECT_FALSE(words.take('Y', dValue));
    EXPECT_EQ(-2.5, dValue);
    words.drop("XYZ");
    EXPECT_FALSE(words.hasAxes());
    EXPECT_FALSE(words.isEmpty());
    EXPECT_TRUE(words.take('F', dValue));
    EXPECT_TRUE(words.isEmpty());
    EXPECT_EQ(10, words.getG(GrblWords::GROUP_MOTION)); // G words stay
}

TEST(GrblWords, EachGroupHasOneCode)
{
    GrblWords words;
    ASSERT_EQ(0, words.read("G2G18G91G91.1G93G20G40G43.1G55G61G28.1M3M8M2"));

    EXPECT_EQ(20, words.getG(GrblWords::GROUP_MOTION));
    EXPECT_EQ(180, words.getG(GrblWords::GROUP_PLANE));
    EXPECT_EQ(910, words.getG(GrblWords::GROUP_DISTANCE));
    EXPECT_EQ(911, words.getG(GrblWords::GROUP_ARC_DISTANCE));
    EXPECT_EQ(930, words.getG(GrblWords::GROUP_FEED));
    EXPECT_EQ(200, words.getG(GrblWords::GROUP_UNITS));
    EXPECT_EQ(400, words.getG(GrblWords::GROUP_CUTTER));
    EXPECT_EQ(431, words.getG(GrblWords::GROUP_TOOL_LENGTH));
    EXPECT_EQ(550, words.getG(GrblWords::GROUP_SYSTEM));
    EXPECT_EQ(610, words.getG(GrblWords::GROUP_PATH));
    EXPECT_EQ(281, words.getNonModal());
    EXPECT_EQ((std::vector<int>{3, 8, 2}), words.getM());
}

TEST(GrblWords, TwoCodesOfOneGroupAreRefused)
{
    for (const char* const pLine : {"G0G1", "G1G80", "G17G19", "G90G91", "G93G94", "G20G21",
                                    "G54G59", "G10G92", "G4G53", "M3M5", "M0M30", "M8M9"}) {
        EXPECT_EQ(21, codeOf(pLine)) << pLine;
    }
}

TEST(GrblWords, WhatIsNoWordIsRefused)
{
    EXPECT_EQ(1, codeOf("1X"));
    EXPECT_EQ(1, codeOf("G1 X1"));
    EXPECT_EQ(1, codeOf("x1"));
    EXPECT_EQ(2, codeOf("G"));
    EXPECT_EQ(2, codeOf("G1XY1"));
    EXPECT_EQ(20, codeOf("A1"));
    EXPECT_EQ(20, codeOf("H1"));
    EXPECT_EQ(20, codeOf("G5"));
    EXPECT_EQ(20, codeOf("G1.05"));
    EXPECT_EQ(20, codeOf("G-1"));
    EXPECT_EQ(20, codeOf("M6"));
    EXPECT_EQ(20, codeOf("M-1"));
    EXPECT_EQ(23, codeOf("M3.5"));
    EXPECT_EQ(25, codeOf("X1X2"));
}

TEST(GrblWords, NegativeIsRefusedWhereItHasNoSense)
{
    for (const char* const pLine : {"F-1", "N-1", "P-1", "S-1", "T-1"}) {
        EXPECT_EQ(4, codeOf(pLine)) << pLine;
    }
    for (const char* const pLine : {"X-1", "Y-1", "Z-1", "I-1", "J-1", "K-1", "R-1", "L-1"}) {
        EXPECT_EQ(0, codeOf(pLine)) << pLine;
    }
}

TEST(GrblWords, JogsModesAreUnitsAndDistance)
{
    for (const auto& [pLine, bAllowed] :
         std::vector<std::pair<const char*, bool>>{{"X1F1", true},
                                                   {"G20G91X1", true},
                                                   {"G1X1", false},
                                                   {"G55X1", false},
                                                   {"G93", false}}) {
        GrblWords words;
        ASSERT_EQ(0, words.read(pLine));
        EXPECT_EQ(bAllowed, words.hasOnlyJogModes()) << pLine;
    }
}

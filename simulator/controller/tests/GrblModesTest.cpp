// What is modal in Grbl 1.1.
#include "GrblModes.h"

#include <string>

#include <gtest/gtest.h>

namespace {

int apply(GrblModes& modes, const std::string& strLine)
{
    GrblWords words;
    EXPECT_EQ(0, words.read(strLine)) << strLine;
    return modes.apply(words);
}

} // namespace

TEST(GrblModes, NewOnesAreThoseOfAReset)
{
    EXPECT_EQ("[GC:G0 G54 G17 G21 G90 G94 M5 M9 T0 F0 S0]\r\n", GrblModes().format());
}

TEST(GrblModes, WordsHoldOn)
{
    GrblModes modes;
    EXPECT_EQ(0, apply(modes, "G1G59G19G91G93M4M8T7F2S333"));
    EXPECT_EQ("[GC:G1 G59 G19 G21 G91 G93 M4 M8 T7 F2 S333]\r\n", modes.format());

    EXPECT_EQ(0, apply(modes, "M3"));
    EXPECT_EQ(SPINDLE_CONSTANT, modes.eSpindle);
    EXPECT_EQ(0, apply(modes, "M5M9"));
    EXPECT_EQ("[GC:G1 G59 G19 G21 G91 G93 M5 M9 T7 F2 S333]\r\n", modes.format());
}

TEST(GrblModes, FeedIsKeptInMillimetres)
{
    GrblModes modes;
    EXPECT_EQ(0, apply(modes, "G20F10"));

    EXPECT_DOUBLE_EQ(254, modes.dFeed);
    EXPECT_DOUBLE_EQ(25.4, modes.getUnit());
    EXPECT_EQ("[GC:G0 G54 G17 G20 G90 G94 M5 M9 T0 F10.0 S0]\r\n", modes.format());
    EXPECT_EQ(0, apply(modes, "G21"));
    EXPECT_DOUBLE_EQ(254, modes.dFeed);
    EXPECT_EQ(1, modes.getUnit());
}

TEST(GrblModes, ChangeOfTheFeedsMeaningForgetsIt)
{
    GrblModes modes;
    EXPECT_EQ(0, apply(modes, "F300"));
    EXPECT_EQ(0, apply(modes, "G94"));
    EXPECT_EQ(300, modes.dFeed);

    EXPECT_EQ(0, apply(modes, "G93"));
    EXPECT_EQ(0, modes.dFeed);

    EXPECT_EQ(0, apply(modes, "G20F4"));
    EXPECT_EQ(4, modes.dFeed); // one over minutes knows no units
}

TEST(GrblModes, ToolIsAWholeNumber)
{
    GrblModes modes;

    EXPECT_EQ(23, apply(modes, "T1.5"));
    EXPECT_EQ(0, apply(modes, "T2"));
}

TEST(GrblModes, EndOfProgramKeepsTheFeedAndLeavesG1)
{
    GrblModes modes;
    EXPECT_EQ(0, apply(modes, "G3G57G18G20G91M3M8T2F10S100"));
    EXPECT_TRUE(modes.isCutting());

    modes.endProgram();

    EXPECT_EQ("[GC:G1 G54 G17 G21 G90 G94 M5 M9 T0 F254 S0]\r\n", modes.format());
}

TEST(GrblModes, LaserIsOnInG1ToG3Only)
{
    GrblModes modes;
    for (const auto& [pLine, bCutting] : {std::pair<const char*, bool>{"G0", false},
                                          {"G1", true},
                                          {"G2", true},
                                          {"G3", true},
                                          {"G80", false}}) {
        EXPECT_EQ(0, apply(modes, pLine));
        EXPECT_EQ(bCutting, modes.isCutting()) << pLine;
    }
}

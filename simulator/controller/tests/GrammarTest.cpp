// What the virtual controller makes of the lines that it receives.
#include "Grammar.h"

#include <string>

#include <gtest/gtest.h>

TEST(Grammar, PositioningMoveHasItsWords)
{
    const ParsedLine line = parseLine("G05 X-12.50 Y3.00 F2000 ");

    EXPECT_EQ(LINE_KIND_POSITION, line.eKind);
    EXPECT_TRUE(line.bHasX && line.bHasY && line.bHasF);
    EXPECT_FALSE(line.bHasZ);
    EXPECT_DOUBLE_EQ(-12.5, line.dX);
    EXPECT_DOUBLE_EQ(3, line.dY);
    EXPECT_DOUBLE_EQ(2000, line.dF);
}

TEST(Grammar, NegativeZeroIsANumber)
{
    const ParsedLine line = parseLine("G05 Z-0.00 F1000 ");

    EXPECT_EQ(LINE_KIND_POSITION, line.eKind);
    EXPECT_TRUE(line.bHasZ);
    EXPECT_DOUBLE_EQ(0, line.dZ);
}

TEST(Grammar, KindsOfLines)
{
    EXPECT_EQ(LINE_KIND_HOME, parseLine("$H").eKind);
    EXPECT_EQ(LINE_KIND_UNLOCK, parseLine("$X").eKind);
    EXPECT_EQ(LINE_KIND_RESUME, parseLine("~").eKind);
    EXPECT_EQ(LASER_ON, parseLine("m3 s500").eLaser);
    EXPECT_EQ(LASER_ON, parseLine("M4").eLaser);
    EXPECT_EQ(LASER_OFF, parseLine("M5").eLaser);
    EXPECT_EQ(LASER_AS_IT_IS, parseLine("G1 X1 S500").eLaser);
    EXPECT_EQ(LINE_KIND_SPOT, parseLine("M18 S1").eKind);
    EXPECT_EQ(LINE_KIND_LOADER, parseLine("M21").eKind);
    EXPECT_EQ(LINE_KIND_MOVE, parseLine("G1X1Y2").eKind);
    EXPECT_EQ(LINE_KIND_MOVE, parseLine("X1").eKind);
    EXPECT_EQ(LINE_KIND_MOVE, parseLine("G91 G1 X1").eKind);
    EXPECT_TRUE(parseLine("G1 G91 X1").bRelative);
    EXPECT_EQ(LINE_KIND_ACCEPTED, parseLine("").eKind);
    EXPECT_EQ(LINE_KIND_ACCEPTED, parseLine("; a comment").eKind);
    EXPECT_EQ(LINE_KIND_ACCEPTED, parseLine("(a comment) G21").eKind);
    EXPECT_EQ(LINE_KIND_ACCEPTED, parseLine("G90\r").eKind);
}

TEST(Grammar, CombinedWordsAreAllKept)
{
    const ParsedLine line = parseLine("G1 X20 F600 M3 S100 G91");

    EXPECT_EQ(LINE_KIND_MOVE, line.eKind);
    EXPECT_EQ(LASER_ON, line.eLaser);
    EXPECT_TRUE(line.bHasX && line.bHasF && line.bHasS && line.bRelative);
    EXPECT_EQ(LINE_KIND_POSITION, parseLine("M5 G05 X5").eKind);
    EXPECT_EQ(LASER_OFF, parseLine("M5 G05 X5").eLaser);
    EXPECT_TRUE(parseLine("M3 S1 G4 P2").bDwell);
    EXPECT_DOUBLE_EQ(2, parseLine("M3 S1 G4 P2").dP);
}

TEST(Grammar, WordsThatDoNotGoTogetherAreRefused)
{
    for (const char* const pLine :
         {"G0 G1 X1", "G05 G1 X1",    "X1 X2",      "F100 F200",   "S1 M3 S2",  "M3 M5",
          "M3 M3",    "G90 G91",      "G91 G91 X1", "G4 P1 G1 X1", "G4 P1 X1",  "G4 G4",
          "P1 P2",    "M18 S1 G1 X1", "G05 X1 M18", "M18 M5",      "M3 S1 M18", "M18 M18",
          "M18 F100", "M21 X1",       "M21 M5",     "M21 S1",      "G1.5 X1"}) {
        EXPECT_EQ(1, parseLine(pLine).nError) << pLine;
    }
}

TEST(Grammar, RefusedLinesSayWhy)
{
    EXPECT_EQ(2, parseLine("hello").nError); // a word without its number
    EXPECT_EQ(1, parseLine("?").nError);
    EXPECT_EQ(1, parseLine("G77").nError);
    EXPECT_EQ(1, parseLine("M999").nError);
    EXPECT_EQ(1, parseLine("Q1").nError);
    EXPECT_EQ(2, parseLine("G05 X-nan Y1").nError);
    EXPECT_EQ(2, parseLine("G1 X").nError);
    EXPECT_EQ(2, parseLine("G1 X.").nError);
    EXPECT_EQ(3, parseLine("$$").nError);
    EXPECT_EQ(4, parseLine("G1 X2000.01").nError);
    EXPECT_EQ(4, parseLine("G1 X" + std::string(200, '9')).nError);
    EXPECT_EQ(4, parseLine("G1 X1 F0").nError);
    EXPECT_EQ(6, parseLine("G1 X1" + std::string(251, ' ')).nError);
    EXPECT_EQ(0, parseLine("G1 X1" + std::string(250, ' ')).nError);
}

TEST(Grammar, AnyBytesAreFine)
{
    for (int nFirst = 0; nFirst < 256; ++nFirst) {
        for (int nSecond = 0; nSecond < 256; ++nSecond) {
            const std::string strLine = {static_cast<char>(nFirst), static_cast<char>(nSecond)};
            const ParsedLine line = parseLine(strLine);
            EXPECT_EQ(LINE_KIND_REFUSED == line.eKind, 0 != line.nError) << nFirst << nSecond;
        }
    }
}

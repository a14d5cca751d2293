// Lines of G-code taken apart.
#include "GcodeLine.h"

#include <string>

#include <gtest/gtest.h>

namespace {

LINE_FAULT_E parse(const std::string& strLine, GcodeLine& line)
{
    return parseGcode(strLine.data(), strLine.size(), line);
}

LINE_FAULT_E parse(const std::string& strLine)
{
    GcodeLine line;
    return parse(strLine, line);
}

} // namespace

TEST(GcodeLine, WordsAreTakenWithoutBlanksAndComments)
{
    GcodeLine line;

    ASSERT_EQ(LINE_GOOD, parse("g01 (fast) x-1 2.50 Y+.5 m3; tail (", line));

    EXPECT_STREQ("G01X-12.50Y+.5M3", line.acText.data());
    EXPECT_TRUE(line.hasG(10));
    EXPECT_TRUE(line.hasM(30));
    EXPECT_FALSE(line.hasM(40));
    EXPECT_DOUBLE_EQ(-12.5, line.get('X'));
    EXPECT_DOUBLE_EQ(0.5, line.get('Y'));
    EXPECT_FALSE(line.has('Z'));
}

TEST(GcodeLine, CodesMayHaveTenths)
{
    GcodeLine line;

    ASSERT_EQ(LINE_GOOD, parse("G92.1", line));

    EXPECT_TRUE(line.hasG(921));
    EXPECT_FALSE(line.hasG(920));
    EXPECT_EQ(LINE_FORBIDDEN, parse("G1.05"));
    EXPECT_EQ(LINE_FORBIDDEN, parse("M-3"));
    EXPECT_EQ(LINE_FORBIDDEN, parse("G1000"));
}

TEST(GcodeLine, SeventyNineCharactersAreTakenAndEightyNot)
{
    const std::string strLine = "X" + std::string(78, '0');

    EXPECT_EQ(LINE_GOOD, parse(strLine));
    EXPECT_EQ(LINE_GOOD, parse(strLine + "   (comment)"));
    EXPECT_EQ(LINE_LONG, parse(strLine + "0"));
}

TEST(GcodeLine, RealTimeBytesCountInCommentsToo)
{
    for (const char* const pLine : {"G1 X1!", "(~)", "G1 ;?", "!", "~", "?"}) {
        EXPECT_EQ(LINE_REAL_TIME, parse(pLine)) << pLine;
    }
}

TEST(GcodeLine, OnlyPrintableAsciiIsTaken)
{
    for (const char* const pLine : {"G1\tX1", "G1 X1\r", "(\xC3\xA4)", "\x18", "G1 X1\x7F"}) {
        EXPECT_EQ(LINE_BYTE, parse(pLine)) << pLine;
    }
    EXPECT_EQ(LINE_BYTE, parse(std::string("G1\0X1", 5)));
}

TEST(GcodeLine, BrokenWordsAreRefused)
{
    for (const char* const pLine : {"G", "X", "1", "G1 X-", "X1.2.3", "X.", "%", "$H", "$X", "/G1",
                                    "[1]", "X--1", "X99999999"}) {
        EXPECT_EQ(LINE_WORD, parse(pLine)) << pLine;
    }
    EXPECT_EQ(LINE_TWICE, parse("G1 X1 X1"));
    EXPECT_EQ(LINE_COMMENT, parse("G1 (X1"));
    EXPECT_EQ(LINE_COMMENT, parse("G1) X1"));
}

TEST(GcodeLine, EmptyAndCommentLinesHaveNoWords)
{
    GcodeLine line;

    EXPECT_EQ(LINE_GOOD, parse("", line));
    EXPECT_EQ(0U, line.uLength);
    EXPECT_EQ(LINE_GOOD, parse(" (x) ;y", line));
    EXPECT_EQ(0U, line.uLength);
}

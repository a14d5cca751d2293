// What is taken out of a job's line.
#include "LineMend.h"

#include <gtest/gtest.h>

TEST(LineMend, CommentsGo)
{
    EXPECT_EQ("G1  X1", mendLine("G1 (to) X1 ; the end"));
    EXPECT_EQ("G1 X1", mendLine("(a;b)G1 X1"));
    EXPECT_EQ("", mendLine("; \xC3\xA4!"));
    EXPECT_EQ("G1X1)", mendLine("G1(a(b)X1)"));
}

TEST(LineMend, OpenCommentKeepsTheLine)
{
    EXPECT_EQ("G1 (X1\r", mendLine("G1 (X1\r"));
}

TEST(LineMend, BlanksAtTheEndsGoAndTabsBecomeBlanks)
{
    EXPECT_EQ("G1 X1", mendLine("  G1\tX1 \r\r"));
    EXPECT_EQ("G1\rX1", mendLine("G1\rX1"));
}

TEST(LineMend, PercentLinesAndByteOrderMarkGo)
{
    EXPECT_EQ("", mendLine("%"));
    EXPECT_EQ("", mendLine(" %O1000\r"));
    EXPECT_EQ("G21", mendLine("\xEF\xBB\xBFG21"));
    EXPECT_EQ("G21%", mendLine("G21%"));
}

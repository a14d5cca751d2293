// Lines out of the bytes that a controller with Grbl 1.1 receives.
#include <string>

#include <gtest/gtest.h>

#include "GrblDialogue.h"

class GrblReceiveBufferDialogue : public GrblDialogue
{
};

TEST_F(GrblReceiveBufferDialogue, EmptyAndCommentLinesAreAcknowledged)
{
    EXPECT_EQ("ok\r\n", say("\n"));
    EXPECT_EQ("ok\r\n", say("  \n"));
    EXPECT_EQ("ok\r\n", say("(a comment)\n"));
    EXPECT_EQ("ok\r\n", say("; a comment\n"));
    EXPECT_EQ("ok\r\nok\r\n", say("G21\r\n"));
}

TEST_F(GrblReceiveBufferDialogue, LineOf79SignificantCharactersIsTheLongest)
{
    const std::string strLine = "G1X1F100" + std::string(71, '0');
    ASSERT_EQ(79U, strLine.size());

    EXPECT_EQ("ok\r\n", say("( a comment ) " + strLine + " \n"));
    EXPECT_EQ("error:11\r\n", say(strLine + "0\n"));
    EXPECT_EQ("error:11\r\n", say(strLine + strLine.substr(0, 30) + "\n"));
    EXPECT_EQ("ok\r\n", say("G21\n"));
}

TEST_F(GrblReceiveBufferDialogue, OverflowIsSilentAndRealtimeBytesPassIt)
{
    say("G4 P1\n");
    for (int i = 0; i < 40; ++i) {
        send("G0X1\n"); // 200 bytes for 128: 25 lines and "G0X"
    }

    EXPECT_TRUE(contains(say("?"), "<Idle|"));
    const std::string strAnswers = wait(60000 * MS);

    EXPECT_EQ(1U + 25, count(strAnswers, "ok\r\n")); // the dwell's among them
    EXPECT_EQ(0U, count(strAnswers, "error"));
    EXPECT_EQ("error:2\r\n", say("G21\n")); // is "G0XG21"
}

TEST_F(GrblReceiveBufferDialogue, RealtimeBytesActInComments)
{
    burn("M3", 500);

    send("(oh no!");
    wait(500 * MS);

    EXPECT_FALSE(beam().bOn || beam().bMoving);
    EXPECT_TRUE(contains(say("is it held?)\n"), "<Hold:0|"));
}

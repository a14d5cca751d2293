// The virtual controller's answers, written and read.
#include "AnswerText.h"

#include <string>

#include <gtest/gtest.h>

TEST(AnswerText, AnswersRoundTrip)
{
    EXPECT_EQ("ready\n", formatGreeting());
    EXPECT_EQ("ok\n", formatOk());
    EXPECT_EQ("done\n", formatDone());
    EXPECT_EQ("error:9\n", formatError(9));
    EXPECT_EQ("alarm:3\n", formatAlarm(3));
    EXPECT_EQ("status:4\n", formatStatus(4));
    EXPECT_TRUE(parseReply(formatOk()).bAck);
    EXPECT_EQ(9, parseReply(formatError(9)).nError);
    EXPECT_EQ(3, parseReply(formatAlarm(3)).nAlarm);
    EXPECT_EQ(4, parseReply(formatStatus(4)).nStatus);
}

TEST(AnswerText, OnlyWholeLinesOfAnAnswerCount)
{
    EXPECT_FALSE(parseReply("ok").bAck);
    EXPECT_FALSE(parseReply("o").bAck);
    EXPECT_FALSE(parseReply("k\n").bAck);
    EXPECT_FALSE(parseReply("not ok\n").bAck);
    EXPECT_FALSE(parseReply("done\n").bAck);
    EXPECT_EQ(0, parseReply("error:9").nError);
    EXPECT_EQ(0, parseReply("error:\n").nError);
    EXPECT_EQ(0, parseReply("error:9x\n").nError);
    EXPECT_EQ(0, parseReply("error:-9\n").nError);
    EXPECT_EQ(0, parseReply("error:99999999999999999999\n").nError);
}

TEST(AnswerText, AnswersOfSeveralLines)
{
    const Reply reply = parseReply("status:1\nstatus:4\nok\nerror:2\n");

    EXPECT_TRUE(reply.bAck);
    EXPECT_EQ(4, reply.nStatus);
    EXPECT_EQ(2, reply.nError);
    EXPECT_EQ(0, reply.nAlarm);
}

TEST(AnswerText, AnyBytesAreFine)
{
    for (int nFirst = 0; nFirst < 256; ++nFirst) {
        for (int nSecond = 0; nSecond < 256; ++nSecond) {
            const std::string strLine = {static_cast<char>(nFirst), static_cast<char>(nSecond)};
            const Reply reply = parseReply(strLine + "\n");
            EXPECT_EQ("ok" == strLine, reply.bAck) << nFirst << nSecond;
            EXPECT_EQ(0, reply.nStatus + reply.nError + reply.nAlarm) << nFirst << nSecond;
        }
    }
}

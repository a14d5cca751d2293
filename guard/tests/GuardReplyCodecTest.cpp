// The arm's own language behind the functions that the print service calls.
#include <string>

#include <gtest/gtest.h>

#include "ReplyCodec.h"

TEST(GuardReplyCodec, CodesOfReplies)
{
    EXPECT_EQ(3, ReplyCodec::getStatusCode("status:3\n"));
    EXPECT_EQ(9, ReplyCodec::getErrorCode("error:9\n"));
    EXPECT_EQ(1, ReplyCodec::getAlarmCode("alarm:1\n"));
    EXPECT_EQ(0, ReplyCodec::getStatusCode("ok\n"));
    EXPECT_EQ(0, ReplyCodec::getErrorCode(""));
    EXPECT_EQ(0, ReplyCodec::getAlarmCode("status:1\n"));
}

TEST(GuardReplyCodec, AcknowledgedIsWhatHasBeenTaken)
{
    EXPECT_TRUE(ReplyCodec::isAck("ok\n"));
    EXPECT_TRUE(ReplyCodec::isAck("status:4\nok\n"));
    EXPECT_TRUE(ReplyCodec::isAck("done\nok\n"));
    EXPECT_FALSE(ReplyCodec::isAck(""));
    EXPECT_FALSE(ReplyCodec::isAck("o"));
    EXPECT_FALSE(ReplyCodec::isAck("done\n"));
    EXPECT_FALSE(ReplyCodec::isAck("error:1\n"));
    EXPECT_FALSE(ReplyCodec::isAck("status:1\n"));
    EXPECT_FALSE(ReplyCodec::isAck("not ok\n"));
}

TEST(GuardReplyCodec, OnlyWholeLinesOfAReplyCount)
{
    EXPECT_FALSE(ReplyCodec::isAck("ok"));
    EXPECT_FALSE(ReplyCodec::isAck("k\n"));
    EXPECT_EQ(0, ReplyCodec::getErrorCode("error:9"));
    EXPECT_EQ(0, ReplyCodec::getErrorCode("error:\n"));
    EXPECT_EQ(0, ReplyCodec::getErrorCode("error:9x\n"));
    EXPECT_EQ(0, ReplyCodec::getErrorCode("error:-9\n"));
    EXPECT_EQ(0, ReplyCodec::getErrorCode("error:99999999999999999999\n"));
}

TEST(GuardReplyCodec, LastOfSeveralCodesHolds)
{
    const std::string strReply = "status:1\nstatus:4\nstatus:0\nok\nerror:2\n";

    EXPECT_TRUE(ReplyCodec::isAck(strReply));
    EXPECT_EQ(4, ReplyCodec::getStatusCode(strReply));
    EXPECT_EQ(2, ReplyCodec::getErrorCode(strReply));
    EXPECT_EQ(0, ReplyCodec::getAlarmCode(strReply));
}

TEST(GuardReplyCodec, AnyBytesAreFine)
{
    for (int nFirst = 0; nFirst < 256; ++nFirst) {
        for (int nSecond = 0; nSecond < 256; ++nSecond) {
            const std::string strLine = {static_cast<char>(nFirst), static_cast<char>(nSecond)};
            const std::string strReply = strLine + "\n";
            EXPECT_EQ("ok" == strLine, ReplyCodec::isAck(strReply)) << nFirst << nSecond;
            EXPECT_EQ(0, ReplyCodec::getStatusCode(strReply) + ReplyCodec::getErrorCode(strReply) +
                             ReplyCodec::getAlarmCode(strReply))
                << nFirst << nSecond;
        }
    }
}

TEST(GuardReplyCodec, CommandsLoseTheirLastLineEndOnly)
{
    EXPECT_EQ("$H", ReplyCodec::encodeCommand("$H\n"));
    EXPECT_EQ("$X", ReplyCodec::encodeCommand("$X"));
    EXPECT_EQ("G05 X-12.50 Y3.00 F2000 \nM18 S1",
              ReplyCodec::encodeCommand("G05 X-12.50 Y3.00 F2000 \nM18 S1\n"));
    EXPECT_EQ("", ReplyCodec::encodeCommand(""));
}

TEST(GuardReplyCodec, IdleReportNamesItsNumbers)
{
    EXPECT_EQ("idle:1,-2", ReplyCodec::encodeIdleReport({}, 1, -2));
    EXPECT_EQ("idle:0,0,7,8", ReplyCodec::encodeIdleReport({7, 8}, 0, 0));
}

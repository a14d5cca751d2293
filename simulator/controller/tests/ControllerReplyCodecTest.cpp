// The virtual controller's language behind the functions that the print service calls.
#include <string>

#include <gtest/gtest.h>

#include "ReplyCodec.h"

TEST(ControllerReplyCodec, CodesOfReplies)
{
    EXPECT_EQ(3, ReplyCodec::getStatusCode("status:3\n"));
    EXPECT_EQ(9, ReplyCodec::getErrorCode("error:9\n"));
    EXPECT_EQ(1, ReplyCodec::getAlarmCode("alarm:1\n"));
    EXPECT_EQ(0, ReplyCodec::getStatusCode("ok\n"));
    EXPECT_EQ(0, ReplyCodec::getErrorCode(""));
    EXPECT_EQ(0, ReplyCodec::getAlarmCode("status:1\n"));
}

TEST(ControllerReplyCodec, AcknowledgedIsWhatHasBeenTaken)
{
    EXPECT_TRUE(ReplyCodec::isAck("ok\n"));
    EXPECT_TRUE(ReplyCodec::isAck("status:4\nok\n"));
    EXPECT_TRUE(ReplyCodec::isAck("done\nok\n"));
    EXPECT_FALSE(ReplyCodec::isAck(""));
    EXPECT_FALSE(ReplyCodec::isAck("o"));
    EXPECT_FALSE(ReplyCodec::isAck("done\n"));
    EXPECT_FALSE(ReplyCodec::isAck("error:1\n"));
    EXPECT_FALSE(ReplyCodec::isAck("status:1\n"));
}

TEST(ControllerReplyCodec, CommandsLoseTheirLastLineEndOnly)
{
    EXPECT_EQ("$H", ReplyCodec::encodeCommand("$H\n"));
    EXPECT_EQ("$X", ReplyCodec::encodeCommand("$X"));
    EXPECT_EQ("G05 X-12.50 Y3.00 F2000 \nM18 S1",
              ReplyCodec::encodeCommand("G05 X-12.50 Y3.00 F2000 \nM18 S1\n"));
    EXPECT_EQ("", ReplyCodec::encodeCommand(""));
}

TEST(ControllerReplyCodec, IdleReportNamesItsNumbers)
{
    EXPECT_EQ("idle:1,-2", ReplyCodec::encodeIdleReport({}, 1, -2));
    EXPECT_EQ("idle:0,0,7,8", ReplyCodec::encodeIdleReport({7, 8}, 0, 0));
}

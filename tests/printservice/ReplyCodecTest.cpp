// The placeholder codec: every reply is fine, every command is empty.
#include "ReplyCodec.h"

#include <string>

#include <gtest/gtest.h>

TEST(ReplyCodec, DeliberatePlaceholderSeesNoCodes)
{
    for (const char* const pReply :
         {"", "ok\n", "error:9\n", "alarm:1\n", "status:3\n", "garbage"}) {
        EXPECT_EQ(0, ReplyCodec::getStatusCode(pReply));
        EXPECT_EQ(0, ReplyCodec::getErrorCode(pReply));
        EXPECT_EQ(0, ReplyCodec::getAlarmCode(pReply));
        EXPECT_TRUE(ReplyCodec::isAck(pReply));
    }
}

TEST(ReplyCodec, DeliberatePlaceholderEncodesNothing)
{
    EXPECT_EQ("", ReplyCodec::encodeCommand("M5"));
    EXPECT_EQ("", ReplyCodec::encodeCommand(""));
    EXPECT_EQ("", ReplyCodec::encodeIdleReport({1, 2}, 3, 4));
}

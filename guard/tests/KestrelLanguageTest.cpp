// The language of the arm's own controller.
#include "KestrelLanguage.h"

#include <string>

#include <gtest/gtest.h>

namespace {

Reply parse(const std::string& strLine)
{
    return KestrelLanguage().parse(strLine.data(), strLine.size());
}

} // namespace

TEST(KestrelLanguage, RepliesAreUnderstoodToTheLetter)
{
    EXPECT_EQ(REPLY_OK, parse("ok").eKind);
    EXPECT_EQ(REPLY_DONE, parse("done").eKind);
    EXPECT_EQ(REPLY_GREETING, parse("ready").eKind);
    EXPECT_EQ(REPLY_ERROR, parse("error:9").eKind);
    EXPECT_EQ(9, parse("error:9").nCode);
    EXPECT_EQ(REPLY_STATUS, parse("status:4").eKind);
    EXPECT_EQ(4, parse("status:4").nCode);
    EXPECT_EQ(REPLY_ALARM, parse("alarm:123456").eKind);
    EXPECT_EQ(123456, parse("alarm:123456").nCode);
}

TEST(KestrelLanguage, AnythingElseIsGarbage)
{
    for (const char* const pLine : {"", "o", "okk", "OK", "error:", "error:x", "error:1234567",
                                    "status:-1", "ook", "?", "<Idle|FS:0,0>"}) {
        EXPECT_EQ(REPLY_GARBAGE, parse(pLine).eKind) << pLine;
    }
}

TEST(KestrelLanguage, LinesGoOutAsTheyCame)
{
    const std::string strLine = "G1 X1 (a) ";
    GcodeLine line;
    ASSERT_EQ(LINE_GOOD, parseGcode(strLine.data(), strLine.size(), line));
    char acOut[64] = {0};

    const size_t uOut =
        KestrelLanguage().encodeLine(strLine.data(), strLine.size(), line, acOut, sizeof(acOut));

    EXPECT_EQ("G1 X1 (a) \n", std::string(acOut, uOut));
    EXPECT_EQ(0U, KestrelLanguage().encodeLine(strLine.data(), strLine.size(), line, acOut, 10));
}

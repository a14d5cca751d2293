// The virtual controller's answers.
#include "AnswerText.h"

#include <gtest/gtest.h>

TEST(AnswerText, AnswersAreWholeLines)
{
    EXPECT_EQ("ready\n", formatGreeting());
    EXPECT_EQ("ok\n", formatOk());
    EXPECT_EQ("done\n", formatDone());
    EXPECT_EQ("error:9\n", formatError(9));
    EXPECT_EQ("alarm:3\n", formatAlarm(3));
    EXPECT_EQ("status:4\n", formatStatus(4));
}

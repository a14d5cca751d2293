// Answers of Grbl 1.1 on their way over the wire: 2.5 ms until the first byte, 87 us for each.
#include "GrblTransmitter.h"

#include <string>

#include <gtest/gtest.h>

namespace {

const Fault NONE;

Fault fault(FAULT_E eKind, int nValue = 0)
{
    Fault result;
    result.eKind = eKind;
    result.nValue = nValue;
    return result;
}

// What is whole at a moment, each answer followed by "|".
std::string takeAll(GrblTransmitter& transmitter, int64_t s64NowUs)
{
    std::string strAll;
    for (std::string strText; transmitter.take(s64NowUs, strText);) {
        strAll += strText + "|";
    }
    return strAll;
}

} // namespace

TEST(GrblTransmitter, AnswerIsWholeOnceItsBytesHavePassed)
{
    GrblTransmitter transmitter;
    EXPECT_EQ(-1, transmitter.getDueUs());

    transmitter.say("ok\r\n", 1000);

    EXPECT_EQ(1000 + 2500 + 4 * 87, transmitter.getDueUs());
    EXPECT_EQ("", takeAll(transmitter, 3847));
    EXPECT_EQ("ok\r\n|", takeAll(transmitter, 3848));
    EXPECT_EQ(-1, transmitter.getDueUs());
}

TEST(GrblTransmitter, AnswersWaitForThoseBefore)
{
    GrblTransmitter transmitter;
    transmitter.say("ok\r\n", 0);
    transmitter.say("ok\r\n", 0);

    EXPECT_EQ("ok\r\n|", takeAll(transmitter, 2848));
    EXPECT_EQ(2848 + 348, transmitter.getDueUs());
}

TEST(GrblTransmitter, FaultsChangeTheAnswer)
{
    GrblTransmitter transmitter;

    transmitter.sayWithFault("ok\r\n", NONE, 0);
    EXPECT_EQ("ok\r\n|", takeAll(transmitter, 1000000));
    transmitter.sayWithFault("ok\r\n", fault(FAULT_NO_ANSWER), 0);
    EXPECT_EQ("", takeAll(transmitter, 1000000));
    transmitter.sayWithFault("ok\r\n", fault(FAULT_HALF), 0);
    EXPECT_EQ("ok|", takeAll(transmitter, 1000000));
    transmitter.sayWithFault("ok\r\n", fault(FAULT_DOUBLE), 0);
    EXPECT_EQ("ok\r\n|ok\r\n|", takeAll(transmitter, 1000000));
    transmitter.sayWithFault("ok\r\n", fault(FAULT_GARBAGE), 0);
    const std::string strGarbage = takeAll(transmitter, 1000000);
    EXPECT_EQ(64U + 1, strGarbage.size());
    EXPECT_EQ(std::string::npos, strGarbage.find("ok"));
}

TEST(GrblTransmitter, LateAnswerHoldsTheNextOnesBack)
{
    GrblTransmitter transmitter;
    transmitter.sayWithFault("ok\r\n", fault(FAULT_LATE, 100), 0);
    transmitter.say("ok\r\n", 0);

    EXPECT_EQ(102848, transmitter.getDueUs());
    EXPECT_EQ("ok\r\n|", takeAll(transmitter, 102848));
    EXPECT_EQ("ok\r\n|", takeAll(transmitter, 102848 + 348));
}

TEST(GrblTransmitter, ReportDoesNotWaitForALateAnswer)
{
    GrblTransmitter transmitter;
    transmitter.say("ok\r\n", 0);
    transmitter.sayWithFault("late\r\n", fault(FAULT_LATE, 100), 0);

    transmitter.sayNow("<Run>\r\n", 0);

    EXPECT_EQ("ok\r\n|", takeAll(transmitter, 2848));
    EXPECT_EQ("<Run>\r\n|", takeAll(transmitter, 2848 + 7 * 87));
    EXPECT_EQ(2848 + 6 * 87 + 100000, transmitter.getDueUs());
}

TEST(GrblTransmitter, MutedAnswersAreLost)
{
    GrblTransmitter transmitter;
    transmitter.say("lost\r\n", 0);
    transmitter.say("heard\r\n", 1000000);

    transmitter.mute(true);
    EXPECT_EQ("", takeAll(transmitter, 900000));
    transmitter.mute(false);

    EXPECT_EQ("heard\r\n|", takeAll(transmitter, 2000000));
}

TEST(GrblTransmitter, DroppedAnswersStillKeepTheWireBusy)
{
    GrblTransmitter transmitter;
    transmitter.say(std::string(100, 'x'), 0);

    transmitter.drop();
    EXPECT_EQ(-1, transmitter.getDueUs());
    transmitter.say("ok\r\n", 3000);

    EXPECT_EQ(2500 + 100 * 87 + 348, transmitter.getDueUs());
}

// The language of Grbl 1.1.
#include "GrblLanguage.h"

#include <string>

#include <gtest/gtest.h>

namespace {

Reply parse(const std::string& strLine)
{
    return GrblLanguage().parse(strLine.data(), strLine.size());
}

std::string encodeMove(const std::string& strLine)
{
    GcodeLine line;
    EXPECT_EQ(LINE_GOOD, parseGcode(strLine.data(), strLine.size(), line));
    char acOut[96] = {0};
    const size_t uOut =
        GrblLanguage().encodeMove(strLine.data(), strLine.size(), line, acOut, sizeof(acOut));
    return std::string(acOut, uOut);
}

} // namespace

TEST(GrblLanguage, AnswersAndGreetingAreUnderstood)
{
    EXPECT_EQ(REPLY_OK, parse("ok").eKind);
    EXPECT_EQ(REPLY_ERROR, parse("error:20").eKind);
    EXPECT_EQ(20, parse("error:20").nCode);
    EXPECT_EQ(REPLY_ALARM, parse("ALARM:3").eKind);
    EXPECT_EQ(3, parse("ALARM:3").nCode);
    EXPECT_EQ(REPLY_GREETING, parse("Grbl 1.1h ['$' for help]").eKind);
    EXPECT_EQ(REPLY_NOTE, parse("[MSG:'$H'|'$X' to unlock]").eKind);
    EXPECT_EQ(REPLY_NOTE, parse("$0=10").eKind);
    EXPECT_EQ(REPLY_NOTE, parse(">G20:ok").eKind);
}

TEST(GrblLanguage, AnythingElseIsGarbage)
{
    for (const char* const pLine : {"", "k", "okok", "Ok", "alarm:1", "done", "<Idle", "<>",
                                    "<Idle|MPos:0,0,0>", "<What|FS:0,0>", "<Idle|FS:0,x>"}) {
        EXPECT_EQ(REPLY_GARBAGE, parse(pLine).eKind) << pLine;
    }
}

TEST(GrblLanguage, ReportTellsMotionPositionAndBeam)
{
    const Reply reply = parse("<Run|MPos:1.500,-2.000,0.250|Bf:15,128|FS:300,500|Ov:100,100,100>");

    EXPECT_EQ(REPLY_REPORT, reply.eKind);
    EXPECT_EQ(RUN_MOVING, reply.eRun);
    EXPECT_TRUE(reply.bSpindle);
    ASSERT_TRUE(reply.bPosition);
    EXPECT_DOUBLE_EQ(1.5, reply.position[0]);
    EXPECT_DOUBLE_EQ(-2, reply.position[1]);
    EXPECT_DOUBLE_EQ(0.25, reply.position[2]);
}

TEST(GrblLanguage, StatesAreToldApart)
{
    EXPECT_EQ(RUN_IDLE, parse("<Idle|FS:0,0>").eRun);
    EXPECT_EQ(RUN_HELD, parse("<Hold:0|FS:0,0>").eRun);
    EXPECT_EQ(RUN_SLOWING, parse("<Hold:1|FS:0,0>").eRun);
    EXPECT_EQ(RUN_SLOWING, parse("<Door:2|FS:0,0>").eRun);
    EXPECT_EQ(RUN_ALARM, parse("<Alarm|FS:0,0>").eRun);
    EXPECT_EQ(RUN_MOVING, parse("<Home|FS:0,0>").eRun);
    EXPECT_FALSE(parse("<Hold:0|FS:0,0>").bSpindle);
    EXPECT_TRUE(parse("<Hold:0|FS:0,1>").bSpindle);
}

TEST(GrblLanguage, SettingsTellLaserModeAndOrigins)
{
    EXPECT_EQ(REPLY_LASER_MODE, parse("$32=1").eKind);
    EXPECT_TRUE(parse("$32=1").bSpindle);
    EXPECT_EQ(REPLY_LASER_MODE, parse("$32=0").eKind);
    EXPECT_FALSE(parse("$32=0").bSpindle);
    const Reply reply = parse("[G55:1.000,2.000,-3.000]");
    EXPECT_EQ(REPLY_SYSTEM, reply.eKind);
    EXPECT_EQ(1, reply.nCode);
    EXPECT_DOUBLE_EQ(-3, reply.position[2]);
    EXPECT_EQ(6, parse("[G92:0.000,0.000,0.000]").nCode);
    EXPECT_EQ(REPLY_NOTE, parse("[G28:0.000,0.000,0.000]").eKind);
}

TEST(GrblLanguage, LinesGoOutWithoutBlanksAndComments)
{
    const std::string strLine = "g1 X1 (a long comment) Y2 ; and more";
    GcodeLine line;
    ASSERT_EQ(LINE_GOOD, parseGcode(strLine.data(), strLine.size(), line));
    char acOut[64] = {0};

    const size_t uOut =
        GrblLanguage().encodeLine(strLine.data(), strLine.size(), line, acOut, sizeof(acOut));

    EXPECT_EQ("G1X1Y2\n", std::string(acOut, uOut));
}

TEST(GrblLanguage, MovesGoStraightInMachineCoordinates)
{
    EXPECT_EQ("G90G21G53G1X-12.50Y3.00F2000\n", encodeMove("G05 X-12.50 Y3.00 F2000 "));
    EXPECT_EQ("G90G21G53G1Z-0.00F1000\n", encodeMove("G05 Z-0.00 F1000 "));
}

TEST(GrblLanguage, PilotIsTheOutputOfChoice)
{
    EXPECT_STREQ("M8\n", GrblLanguage().getPilot(true));
    EXPECT_STREQ("M9\n", GrblLanguage().getPilot(false));
    EXPECT_STREQ("M7\n", GrblLanguage("M7", "M9").getPilot(true));
}

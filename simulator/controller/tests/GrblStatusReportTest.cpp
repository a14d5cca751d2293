// The status report of Grbl 1.1.
#include "GrblStatusReport.h"

#include <string>

#include <gtest/gtest.h>

namespace {

GrblStatusReport::Status status()
{
    GrblStatusReport::Status result;
    result.strState = "Idle";
    result.uMask = 1;
    result.machine = {{1, 2, 3}};
    result.offset = {{0.5, 0, -1}};
    result.uBlocks = 15;
    result.uBytes = 128;
    result.dFeed = 300;
    result.dPower = 12;
    result.strOverrides = "100,90,80";
    return result;
}

const char* const PLAIN = "<Idle|MPos:1.000,2.000,3.000|FS:300,12>\r\n";
const char* const OFFSET = "<Idle|MPos:1.000,2.000,3.000|FS:300,12|WCO:0.500,0.000,-1.000>\r\n";
const char* const OVERRIDES = "<Idle|MPos:1.000,2.000,3.000|FS:300,12|Ov:100,90,80>\r\n";

} // namespace

TEST(GrblStatusReport, OffsetAndOverridesComeOneAfterTheOtherAndThenOnceInTen)
{
    GrblStatusReport report;

    for (int nRound = 0; nRound < 3; ++nRound) {
        EXPECT_EQ(OFFSET, report.format(status())) << nRound;
        EXPECT_EQ(OVERRIDES, report.format(status())) << nRound;
        for (int i = 0; i < 8; ++i) {
            EXPECT_EQ(PLAIN, report.format(status())) << nRound << ", " << i;
        }
    }
}

TEST(GrblStatusReport, BusyMachineTellsThemMoreRarely)
{
    GrblStatusReport report;
    GrblStatusReport::Status busy = status();
    busy.bBusy = true;
    (void)report.format(busy);
    std::string strKinds;

    for (int i = 0; i < 61; ++i) {
        const std::string strText = report.format(busy);
        strKinds += std::string::npos != strText.find("WCO")   ? 'W'
                    : std::string::npos != strText.find("|Ov") ? 'O'
                                                               : '.';
    }

    EXPECT_EQ("O...................O........W..........O..................WO", strKinds);
}

TEST(GrblStatusReport, ChangesAreToldInTheNextReports)
{
    GrblStatusReport report;
    for (int i = 0; i < 4; ++i) {
        (void)report.format(status());
    }

    report.tellOverrides();
    EXPECT_EQ(OVERRIDES, report.format(status()));
    report.tellOffset();
    report.tellOverrides();
    EXPECT_EQ(OFFSET, report.format(status()));
    EXPECT_EQ(OVERRIDES, report.format(status()));
    EXPECT_EQ(PLAIN, report.format(status()));
}

TEST(GrblStatusReport, MaskChoosesWorkPositionsAndBuffers)
{
    GrblStatusReport report;
    (void)report.format(status());
    (void)report.format(status());
    GrblStatusReport::Status masked = status();

    masked.uMask = 0;
    EXPECT_EQ("<Idle|WPos:0.500,2.000,4.000|FS:300,12>\r\n", report.format(masked));
    masked.uMask = 2;
    EXPECT_EQ("<Idle|WPos:0.500,2.000,4.000|Bf:15,128|FS:300,12>\r\n", report.format(masked));
    masked.uMask = 3;
    EXPECT_EQ("<Idle|MPos:1.000,2.000,3.000|Bf:15,128|FS:300,12>\r\n", report.format(masked));
}

TEST(GrblStatusReport, WhatIsOnStandsBesideTheOverrides)
{
    GrblStatusReport report;
    (void)report.format(status());
    GrblStatusReport::Status on = status();
    on.strOn = "SF";

    EXPECT_EQ("<Idle|MPos:1.000,2.000,3.000|FS:300,12|Ov:100,90,80|A:SF>\r\n", report.format(on));
}

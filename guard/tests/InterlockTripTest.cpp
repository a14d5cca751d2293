// Faults: the beam goes off first, and stays off.
#include <functional>

#include <gtest/gtest.h>

#include "InterlockDesk.h"

namespace {

const KestrelLanguage KESTREL;
const GrblLanguage GRBL;

const char* const JOB = "M3 S500\nG1 X50 F6000\nG1 X0\nG1 X50\nM5\n";
const char* const RUNNING = "<Run|MPos:1.000,0.000,0.000|FS:6000,500>\n";

/** A burning job: two lines taken. */
void burn(InterlockDesk& desk, int64_t s64LeaseMs = 0)
{
    desk.open(JOB, s64LeaseMs);
    desk.report(RUNNING);
    for (const char* const pLine : {"M3 S500\n\n", "G1 X50 F6000\n\n"}) {
        desk.service(pLine);
        desk.controller("ok\n");
    }
    desk.forget();
}

/** In both languages: the fault cuts the beam at once, before anything else, and trips. */
void expectTrip(TRIP_E eReason, const std::function<void(InterlockDesk&)>& fault)
{
    for (const ILanguage* const pLanguage :
         {static_cast<const ILanguage*>(&KESTREL), static_cast<const ILanguage*>(&GRBL)}) {
        InterlockDesk desk(*pLanguage);
        burn(desk);

        fault(desk);

        EXPECT_TRUE(desk.tripped(eReason));
        EXPECT_EQ(CUT, desk.sent().substr(0, 1));
        EXPECT_FALSE(desk.m_interlock.isBeamSeenOff());
        EXPECT_FALSE(desk.m_interlock.isHomed());
        desk.forget();
        desk.service("G1 X0\n\n"); // and nothing passes any more
        EXPECT_EQ("", desk.sent());
        EXPECT_EQ("error:20\n", desk.told());
    }
}

} // namespace

TEST(InterlockTrip, ServiceHangsUp)
{
    expectTrip(TRIP_SERVICE_GONE,
               [](InterlockDesk& desk) { desk.m_interlock.onServiceGone(desk.m_s64NowUs); });
}

TEST(InterlockTrip, ServiceIsSilentForTwoSecondsAfterAnAnswer)
{
    expectTrip(TRIP_SERVICE_SILENT, [](InterlockDesk& desk) {
        desk.pass(1999);
        EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
        desk.pass(1);
    });
}

TEST(InterlockTrip, LineIsNotTakenInItsTime)
{
    expectTrip(TRIP_LINE_LATE, [](InterlockDesk& desk) {
        desk.service("G1 X0\n\n"); // 0.7 s of motion each, a fifth more, and 2 s
        (void)desk.sent();
        desk.pass(3679);
        EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
        desk.pass(1);
    });
}

TEST(InterlockTrip, LineIsLateByWhatTheControllerCanHaveNotByTheWholeJob)
{
    InterlockDesk desk(KESTREL);
    std::string strJob = "M3 S500\nG1 X1 F600\n";
    for (int n = 0; n < 100; ++n) { // of 0.1 s, which the controller takes at that pace
        strJob += "G1 X0\nG1 X1\n";
    }
    desk.open(strJob);
    desk.service("M3 S500\n\n");
    desk.controller("ok\n");
    for (int n = 0; n < 200; ++n) {
        desk.service((0 == n) ? "G1 X1 F600\n\n" : (0 == n % 2) ? "G1 X1\n\n" : "G1 X0\n\n");
        desk.controller("ok\n");
        desk.pass(100);
    }

    desk.service("G1 X1\n\n");
    desk.pass(4580); // 18 of 0.144 s, and two seconds

    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    desk.pass(20);
    EXPECT_TRUE(desk.tripped(TRIP_LINE_LATE));
}

TEST(InterlockTrip, LineOfAMinuteHasItsTime)
{
    InterlockDesk desk(KESTREL);
    desk.open("M3 S500\nG1 X60 F60\nG1 X61\n");
    for (const char* const pLine : {"M3 S500\n\n", "G1 X60 F60\n\n"}) {
        desk.service(pLine);
        desk.controller("ok\n");
    }
    for (int n = 0; n < 7; ++n) { // 59.5 s with the queue full
        desk.service("G1 X61\n\n");
        desk.pass(8500);
    }
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    desk.service("G1 X61\n\n");
    desk.pass(8500);
    desk.service("G1 X61\n\n");
    desk.pass(8500);
    EXPECT_TRUE(desk.tripped(TRIP_LINE_LATE));
}

TEST(InterlockTrip, ControllerIsSilentToQuestionsForASecond)
{
    InterlockDesk desk(GRBL);
    burn(desk);
    desk.pass(300);
    desk.service("G1 X0\n\n");
    desk.controller("ok\n");
    desk.report("");
    desk.forget();

    desk.pass(999);
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    desk.pass(201);
    EXPECT_TRUE(desk.tripped(TRIP_CONTROLLER_SILENT));
    EXPECT_EQ(CUT, desk.sent());
}

TEST(InterlockTrip, SilentControllerIsHeldInResetAtOnce)
{
    InterlockDesk grbl(GRBL);
    burn(grbl);
    grbl.report("");
    grbl.pass(1200);
    ASSERT_TRUE(grbl.tripped(TRIP_CONTROLLER_SILENT));
    EXPECT_TRUE(grbl.m_actions.m_bReset);

    InterlockDesk own(KESTREL);
    burn(own);
    own.service("G1 X0\n\n");
    own.pass(3680);
    ASSERT_TRUE(own.tripped(TRIP_LINE_LATE));
    EXPECT_TRUE(own.m_actions.m_bReset);

    InterlockDesk talking(KESTREL);
    burn(talking);
    talking.controller("alarm:1\n");
    ASSERT_TRUE(talking.tripped(TRIP_ALARM));
    EXPECT_FALSE(talking.m_actions.m_bReset);
}

TEST(InterlockTrip, CableIsPulled)
{
    for (const ILanguage* const pLanguage :
         {static_cast<const ILanguage*>(&KESTREL), static_cast<const ILanguage*>(&GRBL)}) {
        InterlockDesk desk(*pLanguage);
        burn(desk);

        desk.m_interlock.onPortLost(desk.m_s64NowUs);
        EXPECT_TRUE(desk.tripped(TRIP_CONTROLLER_GONE));
        EXPECT_TRUE(desk.m_actions.m_bReset);
        EXPECT_EQ("", desk.sent());
        desk.pass(5000);
        EXPECT_EQ("", desk.sent());

        desk.m_interlock.onPortUp(desk.m_s64NowUs);
        EXPECT_EQ(CUT, desk.sent()); // before anything else
        EXPECT_TRUE(desk.m_actions.m_bReset);
        desk.m_interlock.clearReset();
        EXPECT_FALSE(desk.m_actions.m_bReset);
        EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    }
}

TEST(InterlockTrip, ControllerResetsByItself)
{
    expectTrip(TRIP_CONTROLLER_RESET, [](InterlockDesk& desk) {
        desk.controller(desk.m_language.hasReports() ? "\r\nGrbl 1.1h ['$' for help]\r\n"
                                                     : "ready\n");
    });
}

TEST(InterlockTrip, Alarm)
{
    expectTrip(TRIP_ALARM, [](InterlockDesk& desk) {
        desk.controller(desk.m_language.hasReports() ? "ALARM:1\r\n" : "alarm:1\n");
        EXPECT_EQ(1, desk.count(NOTICE_DETAIL, 1));
    });
}

TEST(InterlockTrip, ErrorInAJob)
{
    expectTrip(TRIP_ERROR, [](InterlockDesk& desk) {
        desk.service("G1 X0\n\n");
        (void)desk.sent();
        desk.controller("error:2\n");
        EXPECT_EQ("error:26\n", desk.told());
        EXPECT_EQ(1, desk.count(NOTICE_DETAIL, 2));
    });
}

TEST(InterlockTrip, GarbageFromTheController)
{
    expectTrip(TRIP_GARBAGE, [](InterlockDesk& desk) { desk.controller("\x80"); });
    expectTrip(TRIP_GARBAGE, [](InterlockDesk& desk) { desk.controller("o\nk\n"); });
    expectTrip(TRIP_GARBAGE,
               [](InterlockDesk& desk) { desk.controller(std::string(300, 'o') + "\n"); });
}

TEST(InterlockTrip, AnswerTooMany)
{
    expectTrip(TRIP_ANSWER, [](InterlockDesk& desk) { desk.controller("ok\n"); });
}

TEST(InterlockTrip, LineInPieces)
{
    expectTrip(TRIP_LINE_CUT, [](InterlockDesk& desk) {
        desk.service("G1 ");
        desk.pass(29);
        EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
        desk.pass(1);
        EXPECT_EQ(CUT, desk.sent());
        desk.service("X0\n\n"); // the rest is no line
        EXPECT_EQ("ok\n", desk.told());
        desk.m_actions.m_strController = CUT;
    });
}

TEST(InterlockTrip, LineInPiecesOfOneWritePasses)
{
    InterlockDesk desk(KESTREL);
    burn(desk);

    desk.service("G1 ");
    desk.service("X0\n");
    desk.service("\n");

    EXPECT_EQ("G1 X0\n", desk.sent());
}

TEST(InterlockTrip, LineThatIsNotTheNext)
{
    for (const char* const pLine :
         {"G1 X50\n\n", "G1 X0 \n\n", "M3 S1000\n\n", "M5\n", "\n", "M18 S1\n", "hello\n",
          "G28\n\n", "$$\n", "G1 X0?\n\n", "!\n"}) {
        expectTrip(TRIP_LINE_FOREIGN, [=](InterlockDesk& desk) { desk.service(pLine); });
    }
}

TEST(InterlockTrip, BytesOutsidePrintableAscii)
{
    for (const char* const pLine : {"G1 X0\r\n\n", "\x18\n", "G1\tX0\n\n", "(\xC3\xA4)\n\n"}) {
        expectTrip(TRIP_LINE_BAD, [=](InterlockDesk& desk) {
            desk.service(pLine);
            EXPECT_EQ(1, desk.count(NOTICE_DETAIL, LINE_BYTE));
        });
    }
}

TEST(InterlockTrip, LinesOfTheJobThatMustNotPass)
{
    struct Case
    {
        const char* pLine;
        LINE_FAULT_E eFault;
    };
    for (const Case& each :
         {Case{"G1 X101 F100", LINE_BOX}, Case{"G1 X1 F6001", LINE_FEED},
          Case{"M3 S1001", LINE_POWER}, Case{"G28", LINE_FORBIDDEN}, Case{"M0", LINE_FORBIDDEN},
          Case{"M1", LINE_FORBIDDEN}, Case{"G10 L2 P1 X1", LINE_FORBIDDEN},
          Case{"G30", LINE_FORBIDDEN}, Case{"G38.2 X1", LINE_FORBIDDEN},
          Case{"G53 G0 X1", LINE_FORBIDDEN}, Case{"$32=0", LINE_WORD},
          Case{"G1 X1 (!)", LINE_REAL_TIME}, Case{"G1 X1 (~)", LINE_REAL_TIME},
          Case{"G1 X1 (?)", LINE_REAL_TIME}}) {
        InterlockDesk desk(GRBL);
        desk.open(std::string("M5\n") + each.pLine + "\n");
        desk.service("M5\n\n");
        desk.controller("ok\n");
        desk.forget();

        desk.service(std::string(each.pLine) + "\n\n");

        EXPECT_TRUE(desk.tripped(TRIP_LINE_BAD)) << each.pLine;
        EXPECT_EQ(1, desk.count(NOTICE_DETAIL, each.eFault)) << each.pLine;
        EXPECT_EQ(CUT, desk.sent()) << each.pLine;
    }
}

TEST(InterlockTrip, LineOverLength)
{
    const std::string strLine = "G1 X" + std::string(76, '0') + "1";
    InterlockDesk desk(GRBL);
    desk.open(strLine + "\n");

    desk.service(strLine + "\n\n");

    EXPECT_TRUE(desk.tripped(TRIP_LINE_BAD));
    EXPECT_EQ(1, desk.count(NOTICE_DETAIL, LINE_LONG));
    InterlockDesk other(KESTREL);
    burn(other);
    other.service(std::string(256, 'X') + "\n");
    EXPECT_TRUE(other.tripped(TRIP_LINE_BAD));
}

TEST(InterlockTrip, LeaseIsNotRenewed)
{
    InterlockDesk desk(KESTREL);
    desk.open("G1 X60 F60\nG1 X61\n", 10000);
    desk.service("G1 X60 F60\n\n");
    desk.controller("ok\n");
    desk.service("G1 X61\n\n");
    desk.pass(7000);
    ASSERT_EQ(WISH_DONE, desk.m_interlock.renewLease(desk.m_s64NowUs));
    desk.pass(1500);
    desk.service("G1 X61\n\n");
    desk.forget();

    desk.pass(8499);
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    desk.pass(1);
    EXPECT_TRUE(desk.tripped(TRIP_LEASE));
    EXPECT_EQ(WISH_LEVEL, desk.m_interlock.renewLease(desk.m_s64NowUs));
}

TEST(InterlockTrip, LeaseRunsInAPauseToo)
{
    InterlockDesk desk(GRBL);
    burn(desk, 5000);
    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,0>\n");

    desk.pass(5000);

    EXPECT_TRUE(desk.tripped(TRIP_LEASE));
}

TEST(InterlockTrip, OperatorAndShutdown)
{
    expectTrip(TRIP_OPERATOR, [](InterlockDesk& desk) { desk.m_interlock.off(desk.m_s64NowUs); });
    expectTrip(TRIP_OPERATOR,
               [](InterlockDesk& desk) { (void)desk.m_interlock.drop(desk.m_s64NowUs); });
    expectTrip(TRIP_SHUTDOWN,
               [](InterlockDesk& desk) { desk.m_interlock.shutdown(desk.m_s64NowUs); });
}

TEST(InterlockTrip, MotionTripsToo)
{
    for (const ILanguage* const pLanguage :
         {static_cast<const ILanguage*>(&KESTREL), static_cast<const ILanguage*>(&GRBL)}) {
        InterlockDesk desk(*pLanguage);
        desk.home();
        desk.service("G05 X50.00 Y0.00 F2000 \n");
        desk.controller("ok\n");
        desk.forget();

        desk.m_interlock.onServiceGone(desk.m_s64NowUs);

        EXPECT_TRUE(desk.tripped(TRIP_SERVICE_GONE));
        EXPECT_EQ(CUT, desk.sent());
        EXPECT_FALSE(desk.m_interlock.isHomed());
    }
}

TEST(InterlockTrip, BeamSeenInMotion)
{
    InterlockDesk desk(GRBL);
    desk.home();

    desk.report("<Idle|MPos:0.000,0.000,0.000|FS:0,500>\n");
    desk.pass(200);

    EXPECT_GE(desk.count(NOTICE_TRIP, TRIP_BEAM_SEEN), 1);
    EXPECT_EQ(CUT, desk.sent().substr(0, 1));
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
}

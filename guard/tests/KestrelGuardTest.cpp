// The guard's program on the virtual controller, in both languages.
#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "GuardBench.h"

namespace {

// The machine that runs the tests may be busy; how fast it is, is measured elsewhere.
const double SOON = 1.0;

class KestrelGuard : public testing::TestWithParam<bool>
{
};

/** What the controller carried out behind a moment: nothing but the guard's own questions. */
size_t countBeam(GuardBench& bench, double dAfter)
{
    size_t uCount = 0;
    for (const VirtualController::Record& record : bench.controller().readJournal()) {
        const bool bLine = "rx" == record.strKind && record.dSeconds > dAfter;
        uCount += (bLine && std::string::npos != record.strText.find("G1")) ? 1 : 0;
    }
    return uCount;
}

size_t countCuts(GuardBench& bench)
{
    const std::vector<std::string> vecByte = bench.controller().readTexts("byte");
    return static_cast<size_t>(std::count(vecByte.begin(), vecByte.end(), "\x18"));
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Languages, KestrelGuard, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& param) {
                             return param.param ? "Grbl" : "Kestrel";
                         });

TEST(KestrelGuardUnhomed, ArmWithoutSwitchesBurnsFromWhereItStands)
{
    GuardBench bench(true, {"--setting", "22=0"}, "homing = false\n");
    bench.openService();
    ASSERT_TRUE(bench.home());
    EXPECT_EQ(0, bench.controller().getState("homed"));

    EXPECT_NE(std::string::npos, bench.openJob("M3 S500\nG1 X10 F6000\nM5\n").find("\"ok\":true"));
    EXPECT_EQ("ok\n", bench.run("M3 S500"));
    EXPECT_EQ("ok\n", bench.run("G1 X10 F6000"));
    EXPECT_EQ("ok\n", bench.run("M5"));

    EXPECT_TRUE(bench.waitForState("\"level\":\"dark\""));
    EXPECT_EQ(10, bench.controller().getState("x"));
    const std::vector<std::string> vecLine = bench.controller().readTexts("rx");
    EXPECT_EQ(0, std::count(vecLine.begin(), vecLine.end(), "$H"));
    kill(bench.guard().pid(), SIGTERM);
    EXPECT_NE(std::string::npos,
              bench.guard().wait().strOutput.find(
                  "THE ARM IS NOT HOMED: THE BOX IS WHERE THE CONTROLLER COUNTS FROM\n"));
}

TEST_P(KestrelGuard, JobRunsToItsEndAndDark)
{
    GuardBench bench(GetParam());
    bench.openService();
    ASSERT_TRUE(bench.home());
    ASSERT_NE(std::string::npos,
              bench.openJob("M3 S500\nG1 X-10 Y-5 F6000\nG1 X-5\nM5\n").find("\"ok\":true"));

    EXPECT_EQ("ok\n", bench.run("M3 S500"));
    EXPECT_EQ("ok\n", bench.run("G1 X-10 Y-5 F6000"));
    EXPECT_EQ("ok\n", bench.run("G1 X-5"));
    EXPECT_EQ("ok\n", bench.run("M5"));

    EXPECT_TRUE(bench.waitForState("\"level\":\"dark\""));
    EXPECT_FALSE(bench.isBeamOn());
    EXPECT_NEAR(-5, bench.controller().getState("x"), 0.01);
    EXPECT_NE(std::string::npos, bench.op().ask("{\"do\":\"state\"}").find("\"homed\":true"));
}

TEST_P(KestrelGuard, ServiceThatHangsUpTurnsBeamOff)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());

    const double dFault = bench.now();
    bench.closeService();
    const double dDark = bench.waitForDark();

    EXPECT_GE(dDark, 0);
    EXPECT_LT(dDark - dFault, SOON);
    EXPECT_TRUE(bench.waitForState("\"level\":\"dark\""));
    EXPECT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    bench.openService(); // a new terminal, whose user gets nothing of the former one's
    bench.send("G1 X-5\n\n");
    EXPECT_EQ("error:20\n", bench.receive());
    EXPECT_EQ(0U, countBeam(bench, dDark));
}

TEST_P(KestrelGuard, WorkerThatIsKilledTurnsBeamOff)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());

    const double dFault = bench.now();
    kill(bench.worker(), SIGKILL);
    const double dDark = bench.waitForDark();

    EXPECT_GE(dDark, 0);
    EXPECT_LT(dDark - dFault, SOON);
    EXPECT_EQ(1, bench.guard().wait().nStatus);
}

TEST_P(KestrelGuard, WorkerThatIsStoppedTurnsBeamOff)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());

    const double dFault = bench.now();
    kill(bench.worker(), SIGSTOP);
    const double dDark = bench.waitForDark();

    EXPECT_GE(dDark, 0);
    EXPECT_LT(dDark - dFault, 1.0 + SOON);
    EXPECT_EQ(1, bench.guard().wait().nStatus);
}

TEST_P(KestrelGuard, ParentThatIsKilledTurnsBeamOff)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());

    const double dFault = bench.now();
    kill(bench.guard().pid(), SIGKILL);
    const double dDark = bench.waitForDark();

    EXPECT_GE(dDark, 0);
    EXPECT_LT(dDark - dFault, SOON);
}

TEST_P(KestrelGuard, SignalTurnsBeamOffAndEnds)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());

    kill(bench.guard().pid(), SIGTERM);

    EXPECT_EQ(0, bench.guard().wait().nStatus);
    EXPECT_FALSE(bench.isBeamOn());
    struct stat status = {};
    EXPECT_NE(0, lstat(bench.path("ttyACM").c_str(), &status));
}

TEST_P(KestrelGuard, PulledCableIsSeenAndBeamOffSentFirst)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());
    const size_t uCuts = countCuts(bench);

    ASSERT_EQ("ok", bench.controller().command("unplug"));
    EXPECT_TRUE(bench.waitForState("\"level\":\"dark\""));
    EXPECT_TRUE(bench.waitForState("\"controller\":false"));
    const double dBack = bench.now();
    ASSERT_EQ("ok", bench.controller().command("plug"));
    EXPECT_TRUE(bench.waitForState("\"beam_seen_off\":true"));

    EXPECT_FALSE(bench.isBeamOn());
    EXPECT_EQ(uCuts + 1, countCuts(bench));
    EXPECT_EQ(0U, countBeam(bench, dBack));
}

TEST_P(KestrelGuard, ControllerThatResetsByItselfTrips)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());

    ASSERT_EQ("ok", bench.controller().command("restart"));

    EXPECT_TRUE(bench.waitForState("\"level\":\"dark\""));
    EXPECT_GE(bench.waitForDark(), 0);
}

TEST_P(KestrelGuard, AlarmAndRefusalTurnBeamOff)
{
    for (const char* const pFault : {"alarm-now 2", "refuse 20"}) {
        GuardBench bench(GetParam());
        ASSERT_TRUE(bench.burn());

        ASSERT_EQ("ok", bench.controller().command(pFault));
        bench.send("G1 X-5\n\n");

        EXPECT_GE(bench.waitForDark(), 0) << pFault;
        EXPECT_TRUE(bench.waitForState("\"level\":\"dark\"")) << pFault;
    }
}

TEST_P(KestrelGuard, CutLineTurnsBeamOff)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());

    bench.send("G1 X-");

    EXPECT_GE(bench.waitForDark(), 0);
    EXPECT_TRUE(bench.waitForState("\"level\":\"dark\""));
}

TEST_P(KestrelGuard, LostLeaseTurnsBeamOff)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn(2000));

    OperatorClient other(bench.path("socket"));
    EXPECT_NE(std::string::npos, other.ask("{\"do\":\"lease\"}").find("another"));

    EXPECT_GE(bench.waitForDark(), 0);
    EXPECT_TRUE(bench.waitForState("\"level\":\"dark\""));
}

TEST_P(KestrelGuard, PauseIsDarkAndResumeGoesOn)
{
    GuardBench bench(GetParam());
    ASSERT_TRUE(bench.burn());

    ASSERT_EQ("{\"ok\":true}", bench.op().ask("{\"do\":\"pause\"}"));
    EXPECT_TRUE(bench.waitForState("\"paused\":true"));
    EXPECT_FALSE(bench.isBeamOn());
    bench.send("M5\n"); // the service's own pause
    EXPECT_EQ("ok\n", bench.receive());
    ASSERT_EQ("{\"ok\":true}", bench.op().ask("{\"do\":\"resume\"}"));
    EXPECT_TRUE(eventually([&bench] { return bench.isBeamOn(); }));
    EXPECT_EQ("ok\n", bench.run("G1 X-5"));
    EXPECT_NE(std::string::npos, bench.op().ask("{\"do\":\"state\"}").find("\"level\":\"job\""));
}

TEST_P(KestrelGuard, MeasurementsMoveInMotion)
{
    GuardBench bench(GetParam());
    bench.openService();
    ASSERT_TRUE(bench.home());

    bench.send("G05 X-12.50 Y-3.00 F2000 \nM18 S1\n");
    EXPECT_EQ("ok\n", bench.receive());
    EXPECT_EQ("done\nok\n", bench.receive());

    EXPECT_NEAR(-12.5, bench.controller().getState("x"), 0.01);
    EXPECT_NEAR(-3, bench.controller().getState("y"), 0.01);
}

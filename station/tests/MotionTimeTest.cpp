// How long a job takes, beside what the virtual Grbl controller takes for it.
#include "MotionTime.h"

#include <cmath>
#include <cstdio>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "GrblController.h"
#include "JobDesk.h"

namespace {

const double TOLERANCE = 0.01; // of the controller's own time

/** Seconds that the virtual controller needs, from the first byte until the head stands. */
double runOnController(const std::string& strJob)
{
    ControllerJournal journal;
    GrblController controller({}, journal);
    for (int n = 0; n < 3; ++n) { // as jobLimits() has it
        EXPECT_TRUE(controller.preset(110 + n, 6000));
        EXPECT_TRUE(controller.preset(120 + n, 500));
    }
    EXPECT_TRUE(controller.preset(32, 1));
    int64_t s64NowUs = 0;
    size_t uAnswered = 0;
    const auto advance = [&](int64_t s64ToUs) {
        s64NowUs = s64ToUs;
        controller.advance(s64NowUs);
        for (std::string strAnswer; controller.takeAnswer(s64NowUs, strAnswer);) {
            EXPECT_EQ(std::string::npos, strAnswer.find("rror")) << strAnswer;
            for (size_t u = strAnswer.find("ok"); std::string::npos != u;
                 u = strAnswer.find("ok", u + 1)) {
                ++uAnswered;
            }
        }
    };
    advance(1000000); // greeted
    const int64_t s64BeginUs = s64NowUs;
    int64_t s64EndUs = s64NowUs;
    size_t uSent = 0;
    for (size_t uPlace = 0;
         uPlace < strJob.size() || uAnswered < uSent || controller.getBeam().get().bMoving;) {
        // At most two lines unanswered: its buffer never overflows, and never runs dry.
        while (uPlace < strJob.size() && uSent < uAnswered + 2) {
            const size_t uEnd = strJob.find('\n', uPlace) + 1;
            controller.receive(strJob.substr(uPlace, uEnd - uPlace), s64NowUs);
            uPlace = uEnd;
            ++uSent;
        }
        const int64_t s64DueUs = controller.nextDueUs(s64NowUs);
        advance((s64DueUs > s64NowUs) ? s64DueUs : s64NowUs + 1000);
        s64EndUs = s64NowUs;
        if (s64NowUs > 7200LL * 1000000) {
            ADD_FAILURE() << "does not end";
            break;
        }
    }
    return static_cast<double>(s64EndUs - s64BeginUs) / 1e6;
}

void expectSameTime(const std::string& strJob)
{
    const JobReport report = checkGrbl(strJob);
    ASSERT_TRUE(report.passes()) << report.vecFinding[0].pReason << " in line "
                                 << report.vecFinding[0].uLine;
    const double dController = runOnController(strJob);

    EXPECT_NEAR(dController, report.dSeconds, TOLERANCE * dController + 0.05);
    testing::Test::RecordProperty("controller", std::to_string(dController));
    testing::Test::RecordProperty("check", std::to_string(report.dSeconds));
}

std::string word(char cLetter, double dValue)
{
    std::array<char, 64> acText{};
    snprintf(acText.data(), acText.size(), "%c%.3f", cLetter, dValue);
    return acText.data();
}

std::string place(double dX, double dY)
{
    return word('X', dX) + word('Y', dY);
}

} // namespace

TEST(MotionTime, LineTakesItsRampsAndItsWay)
{
    MotionTime time(500, 0);
    GcodeMove move;
    move.to = {100, 0, 0};
    move.nMotion = 1;
    move.dFeed = 3000; // 50 mm/s
    move.dLength = 100;

    time.add(move);

    EXPECT_NEAR(100.0 / 50 + 50.0 / 500, time.finish(), 1e-9);
}

TEST(MotionTime, ShortLineNeverReachesItsFeed)
{
    MotionTime time(500, 0);
    GcodeMove move;
    move.to = {1, 0, 0};
    move.nMotion = 1;
    move.dFeed = 6000;
    move.dLength = 1;

    time.add(move);

    EXPECT_NEAR(2 * std::sqrt(1.0 / 500), time.finish(), 1e-9);
}

TEST(MotionTime, SquaresTakeAsLongAsOnTheController)
{
    std::string strJob = "M4 S500 F3000\n";
    for (int n = 1; n <= 10; ++n) {
        strJob += "G0" + place(5.0 * n, 2.0 * n) + "\nG1" + word('X', 5.0 * n + 40) + "\nG1" +
                  word('Y', 2.0 * n + 40) + "\nG1" + word('X', 5.0 * n) + "\nG1" +
                  word('Y', 2.0 * n) + "\n";
    }

    expectSameTime(strJob + "M5\n");
}

TEST(MotionTime, ArcsTakeAsLongAsOnTheController)
{
    std::string strJob = "M3 S500\nG0 X100 Y50\n";
    for (int n = 1; n <= 8; ++n) {
        strJob += "G2 X100 Y50 J0" + word('I', 3.0 * n) + word('F', 600.0 * n) + "\nG3" +
                  place(100 - 4.0 * n, 50) + word('R', 2.5 * n) + "\nG1 X100\n";
    }

    expectSameTime(strJob + "M5\n");
}

TEST(MotionTime, ShortChordsTakeAsLongAsOnTheController)
{
    std::string strJob = "M3 S500\nG1 F6000\n";
    for (int n = 0; n <= 3000; ++n) {
        strJob += "G1" +
                  place(100 + 40 * std::cos(n * 0.02) * std::cos(n * 0.003),
                        50 + 40 * std::sin(n * 0.02)) +
                  "\n";
    }

    expectSameTime(strJob + "M5\n");
}

TEST(MotionTime, StopsForDwellsAndTheBeamTakeAsLongAsOnTheController)
{
    std::string strJob = "G91 F3000\n";
    for (int n = 0; n < 20; ++n) {
        strJob += "M3 S100\nG1 X5\nM5\nG4 P0.1\nG0 X-5\nS200\nG1 Y1 S300\nG1 Y1 S50\n";
    }

    expectSameTime(strJob);
}

TEST(MotionTime, RandomWaysTakeAsLongAsOnTheController)
{
    std::mt19937 random(7);
    std::string strJob = "M4 S500\n";
    for (int n = 0; n < 500; ++n) {
        const auto dX = static_cast<double>(random() % 2000) / 10;
        const auto dY = static_cast<double>(random() % 1000) / 10;
        strJob += ((0 == random() % 3) ? "G0" : "G1F4000") + place(dX, dY) + "\n";
    }

    expectSameTime(strJob + "M5\n");
}

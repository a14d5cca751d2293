// Which waits, pauses, reads and writes the service asks for.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include <sys/resource.h>

#include "CallJournal.h"
#include "EventBus.h"
#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintServiceCallFixture.h"

namespace {

using PrintServiceCall = PrintServiceCallFixture;

} // namespace

TEST_F(PrintServiceCall, StatesHaveTheirNumbers)
{
    EXPECT_EQ(0, PRINT_STATE_IDLE);
    EXPECT_EQ(1, PRINT_STATE_STOPPED);
    EXPECT_EQ(3, PRINT_STATE_FILE_READY);
    EXPECT_EQ(5, PRINT_STATE_PRINTING);
    EXPECT_EQ(6, PRINT_STATE_PAUSED);
}

TEST_F(PrintServiceCall, ItsThreadIsWaitedForAndAsNiceAsItsMaker)
{
    m_pService.reset();
    const CallJournal journal("pthread_create");
    m_pService = std::make_unique<FreshPrintService>();

    EXPECT_EQ(Texts{"pthread_create joinable"}, CallJournal::lines());
    int nFound = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string strName;
        std::getline(std::ifstream(entry.path() / "comm"), strName);
        if ("printservice" == strName) {
            const auto uTid = static_cast<id_t>(atoi(entry.path().filename().c_str()));
            EXPECT_EQ(getpriority(PRIO_PROCESS, 0), getpriority(PRIO_PROCESS, uTid));
            ++nFound;
        }
    }
    EXPECT_EQ(1, nFound);
}

TEST_F(PrintServiceCall, CommandWaitsTwoSecondsForItsReply)
{
    const CallJournal journal("poll select");

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_EQ((Texts{"poll 2000"}), CallJournal::lines());
}

TEST_F(PrintServiceCall, CommandIsOneWriteOfItsTextAndLineEnd)
{
    const CallJournal journal("write");

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_EQ(Texts{write(3)}, CallJournal::lines());
    EXPECT_EQ("M5\n", m_controller.bytes());
}

TEST_F(PrintServiceCall, JobLineWaitsTenSecondsForItsReply)
{
    const CallJournal journal("poll select write");

    startJob("G1 X1\nG1 X2\n");

    ASSERT_TRUE(waitForCalls(6));
    EXPECT_TRUE(m_controller.waitForBytes("G1 X1\n\nG1 X2\n\n\n"));
    EXPECT_EQ((Texts{write(7), "poll 10000", write(7), "poll 10000", write(1), "poll 10000"}),
              CallJournal::lines("printservice"));
}

TEST_F(PrintServiceCall, RefusedLineIsSentAgainAfterHalfASecond)
{
    m_controller.answerWith({"error:5\n"});
    const CallJournal journal("poll select write");

    startJob("G1 X1\n");

    ASSERT_TRUE(waitForCalls(7));
    EXPECT_EQ((Texts{write(7), "poll 10000", "select 0.500000", write(7), "poll 10000", write(1),
                     "poll 10000"}),
              CallJournal::lines("printservice"));
}

TEST_F(PrintServiceCall, LockIsClearedBehindThePauseOfALineThatWasRefused)
{
    m_controller.answerWith({"error:9\n"});
    const CallJournal journal("poll select write");

    startJob("G1 X1\n");

    ASSERT_TRUE(waitForCalls(9));
    EXPECT_EQ((Texts{write(7), "poll 10000", "select 0.500000", write(3), "poll 2000", write(7),
                     "poll 10000", write(1), "poll 10000"}),
              CallJournal::lines("printservice"));
    EXPECT_TRUE(m_controller.waitForBytes("G1 X1\n\n$X\nG1 X1\n\n\n"));
    m_pService.reset(); // the job's thread prints, too
    const std::string strOutput = output();
    EXPECT_NE(std::string::npos, strOutput.find("get error code:9 \n$X\n\nsend length:3\n"))
        << strOutput;
}

TEST_F(PrintServiceCall, SmallestErrorAndAlarmArePrinted)
{
    m_controller.answerWith({"ok error:1 alarm:1\n"});

    startJob("G1 X1\n");

    EXPECT_TRUE(eventually([this] { return PRINT_STATE_STOPPED == service().getState(); }));
    m_pService.reset(); // the job's thread prints, too
    const std::string strOutput = output();
    EXPECT_NE(std::string::npos,
              strOutput.find("get error code:1 \nget alarm code:1 \nprint job finish!\n"))
        << strOutput;
}

TEST_F(PrintServiceCall, StatusIsWaitedForTenSeconds)
{
    m_controller.say("status:5\n");
    const CallJournal journal("poll select");

    service().pollStatus();

    EXPECT_EQ((Texts{"poll 10000"}), CallJournal::lines());
}

TEST_F(PrintServiceCall, DeliberateLoopWithNothingToDoPausesTwentyMilliseconds)
{
    m_controller.say("status:5\n");
    {
        const CallJournal journal("poll select");
        EXPECT_EQ(0, service().printLoop());
        EXPECT_EQ((Texts{"poll 10000", "select 0.020000"}), CallJournal::lines());
    }
    EXPECT_EQ(0, service().pausePrint());

    const CallJournal journal("poll select");
    EXPECT_EQ(0, service().printLoop()); // paused, and no file

    EXPECT_EQ((Texts{"select 0.020000"}), CallJournal::lines());
}

TEST_F(PrintServiceCall, MoveWaitsTwentySecondsForEachArrival)
{
    const LogCapture log;
    const CallJournal journal("poll select");
    std::thread publisher([] {
        MoveLaserEvent event(1, 2);
        EventBus<MoveLaserEvent>::publish(event);
    });

    // Each step is answered once, so that the arrival is waited for until it is told.
    EXPECT_TRUE(eventually([] { return 2 == journalCount(); }));
    EXPECT_EQ("$H\n\n", m_controller.bytes());
    m_controller.say("done\n");
    EXPECT_TRUE(eventually([] { return 4 == journalCount(); }));
    EXPECT_EQ("$H\n\nG05 X-1.00 Y-2.00 F2000 \nM18 S1\n\n", m_controller.bytes());
    EXPECT_EQ("", log.text()) << "it is not there yet";
    m_controller.say("done\n");
    publisher.join();

    EXPECT_EQ((Texts{"poll 2000", "poll 20000", "poll 2000", "poll 20000"}), CallJournal::lines());
}

TEST_F(PrintServiceCall, HeightWaitsTwentySecondsForItsArrival)
{
    const LogCapture log;
    const CallJournal journal("poll select");
    std::thread publisher([] {
        MeasureEvent event(1);
        EventBus<MeasureEvent>::publish(event);
    });

    EXPECT_TRUE(eventually([] { return 2 == journalCount(); }));
    EXPECT_EQ("", log.text()) << "it is not there yet";
    m_controller.say("done\n");
    publisher.join();

    EXPECT_EQ((Texts{"poll 2000", "poll 20000"}), CallJournal::lines());
    EXPECT_EQ("[debug] [printservice/PrintService ] [onMeasureEvent] move Z to (1.000000)\n",
              log.text());
}

TEST_F(PrintServiceCall, AnyHeightFitsTheCommand)
{
    const float LARGE = std::numeric_limits<float>::max();
    char acExpected[128] = {0};
    snprintf(acExpected, sizeof(acExpected), "G05 Z%.2f F1000 \n\n", static_cast<double>(LARGE));
    const CallJournal journal("poll");
    std::thread publisher([LARGE] {
        MeasureEvent event(-LARGE);
        EventBus<MeasureEvent>::publish(event);
    });

    EXPECT_TRUE(eventually([] { return 2 == journalCount(); }));
    EXPECT_EQ(acExpected, m_controller.bytes());
    m_controller.say("done\n");
    publisher.join();
}

TEST_F(PrintServiceCall, AnswerToALoneLineEndIsWaitedForHalfASecond)
{
    const FaultScope fault(
        ("write=" + std::to_string(m_controller.m_uart.getFd()) + ":1:EAGAIN").c_str());
    const CallJournal journal("poll select write");
    EXPECT_EQ(1, service().printSingleCmd("M5", 2));

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_EQ((Texts{write(3), write(1), "poll 500", write(3), "poll 2000"}), CallJournal::lines());
    EXPECT_EQ("\nM5\n", m_controller.bytes());
}

TEST_F(PrintServiceCall, ReadWaitsAsLongAsItIsAskedTo)
{
    m_controller.say("ok\n");
    const CallJournal journal("poll select");
    char acReply[8] = {0};

    service().readUart(acReply, 8, 3, 250000);

    EXPECT_EQ((Texts{"poll 3250"}), CallJournal::lines());
    EXPECT_STREQ("ok\n", acReply);
}

TEST_F(PrintServiceCall, RepliesAreReadSixtyFourBytesAtATime)
{
    const FaultScope fault(
        ("write=" + std::to_string(m_controller.m_uart.getFd()) + ":1:EAGAIN").c_str());
    EXPECT_EQ(1, service().printSingleCmd("M5", 2)); // cut short
    const CallJournal journal("read");

    EXPECT_EQ(0, service().printSingleCmd("M5", 2)); // behind a lone line end
    std::thread publisher([] {
        MeasureEvent event(1);
        EventBus<MeasureEvent>::publish(event);
    });
    EXPECT_TRUE(eventually([] { return 3 == journalCount(); }));
    m_controller.say("done\n"); // the arrival
    publisher.join();
    m_controller.say("status:5\n");
    service().pollStatus();

    EXPECT_EQ(Texts(5, readOf64()), CallJournal::lines());
}

TEST_F(PrintServiceCall, ReplyThatFillsTheBufferIsTakenWholeAndNoMoreOfIt)
{
    const std::string strLong = std::string(70, 'x') + "\n";
    m_controller.say(strLong);
    service().pollStatus();
    EXPECT_EQ(64U, CodecCalls::s_uLongestReply);
    service().pollStatus(); // the rest

    m_controller.answerWith({strLong});
    startJob("G1 X1\n");

    EXPECT_TRUE(eventually([this] { return PRINT_STATE_STOPPED == service().getState(); }));
    EXPECT_EQ(64U, CodecCalls::s_uLongestReply);
}

// Export, direction, value: sysfs refuses any other order, and wants the number without a line end.
TEST_F(PrintServiceCall, ResetLineIsExportedThenDirectedThenDrivenForHalfASecond)
{
    // Not even a machine that has such a line is touched.
    const FaultScope fault("open=/sys/class/gpio/:1-:ENOENT");
    const CallJournal journal("open write select");

    EXPECT_EQ(0, service().resetStm32());

    const std::string strLine = "open /sys/class/gpio/gpio106/";
    EXPECT_EQ((Texts{"open /sys/class/gpio/export", "write -1 3", strLine + "direction",
                     "write -1 3", strLine + "value", "write -1 2", strLine + "value", "write -1 2",
                     "select 0.500000", "write -1 2"}),
              CallJournal::lines());
}

// Which waits and pauses the service asks for, in which order it acts, and what others see of it in
// between. The controller and its language are this program's own, so that nothing else sets a
// pace.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>

#include <poll.h>
#include <pty.h>
#include <sys/syscall.h>

#include "CallJournal.h"
#include "Fault.h"
#include "IdlePrintEvent.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintTest.h"
#include "ReplyCodec.h"

namespace {

using Texts = std::vector<std::string>;

Texts g_vecIdleReport;                  // what the codec was asked to encode
std::atomic<size_t> g_uLongestReply{0}; // that it was given, in bytes

int codeBehind(const std::string& strReply, const char* pName)
{
    const size_t nPos = strReply.find(pName);
    return (std::string::npos == nPos) ? 0 : atoi(strReply.c_str() + nPos + strlen(pName));
}

} // namespace

// The codec of this program.
// NOLINTBEGIN(performance-unnecessary-value-param)

int ReplyCodec::getStatusCode(std::string strReply)
{
    g_uLongestReply = std::max(g_uLongestReply.load(), strReply.size());
    return codeBehind(strReply, "status:");
}

int ReplyCodec::getErrorCode(std::string strReply)
{
    return codeBehind(strReply, "error:");
}

int ReplyCodec::getAlarmCode(std::string strReply)
{
    return codeBehind(strReply, "alarm:");
}

bool ReplyCodec::isAck(std::string strReply)
{
    return std::string::npos != strReply.find("ok");
}

std::string ReplyCodec::encodeCommand(std::string strCommand)
{
    return strCommand;
}

std::string ReplyCodec::encodeIdleReport(std::vector<int32_t> vecValue, int32_t s32Arg1,
                                         int32_t s32Arg2)
{
    std::string strReport = std::to_string(s32Arg1) + " " + std::to_string(s32Arg2) + ":";
    for (const int32_t s32Value : vecValue) {
        strReport += " " + std::to_string(s32Value);
    }
    g_vecIdleReport.push_back(strReport);
    return strReport;
}

// NOLINTEND(performance-unnecessary-value-param)

namespace {

/** A controller at the other end of a pseudo terminal, which keeps every byte. */
class OwnController
{
public:
    OwnController()
    {
        char acPath[64] = {0};
        EXPECT_EQ(0, openpty(&m_nMaster, &m_nSlave, acPath, nullptr, nullptr));
        EXPECT_EQ(1, m_uart.open(acPath));
        m_thread = std::thread([this] { answer(); });
    }
    OwnController(const OwnController&) = delete;
    OwnController& operator=(const OwnController&) = delete;
    ~OwnController()
    {
        m_bQuit = true;
        m_thread.join();
        m_uart.close();
        close(m_nSlave);
        close(m_nMaster);
    }

    /** What the next writes that end a line are answered with; "" for silence; then always "ok". */
    void answerWith(const Texts& vecAnswer)
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        m_queAnswer.assign(vecAnswer.begin(), vecAnswer.end());
    }

    void say(const std::string& strText) const
    {
        EXPECT_EQ(static_cast<long>(strText.size()),
                  syscall(SYS_write, m_nMaster, strText.data(), strText.size()));
    }

    std::string bytes() const
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        return m_strBytes;
    }

    bool waitForBytes(const std::string& strBytes) const
    {
        return eventually([&] { return strBytes == bytes(); });
    }

    UART m_uart;

private:
    /** By bare system calls: the journal is the service's. */
    void answer()
    {
        while (!m_bQuit) {
            pollfd entry{m_nMaster, POLLIN, 0};
            const timespec wait{0, 5000000};
            if (syscall(SYS_ppoll, &entry, 1, &wait, nullptr, 0) <= 0) {
                continue;
            }
            char acPart[4096];
            const long nRead = syscall(SYS_read, m_nMaster, acPart, sizeof(acPart));
            if (nRead <= 0) {
                continue;
            }
            std::string strAnswer = "ok\n";
            {
                const std::lock_guard<std::mutex> guard(m_mtx);
                m_strBytes.append(acPart, static_cast<size_t>(nRead));
                if ('\n' == m_strBytes.back() && !m_queAnswer.empty()) {
                    strAnswer = m_queAnswer.front();
                    m_queAnswer.pop_front();
                }
            }
            if (!strAnswer.empty()) {
                say(strAnswer);
            }
        }
    }

    int m_nMaster = -1;
    int m_nSlave = -1;
    mutable std::mutex m_mtx; // guards what follows
    std::deque<std::string> m_queAnswer;
    std::string m_strBytes;
    std::atomic<bool> m_bQuit{false};
    std::thread m_thread;
};

/** Does something of the test's own whenever a status is reported. */
class OnReport
{
public:
    explicit OnReport(std::function<void(const std::string&)> action) : m_action(std::move(action))
    {
        EventBus<StatusReportEvent>::subscribe(this, &OnReport::onReport);
    }
    OnReport(const OnReport&) = delete;
    OnReport& operator=(const OnReport&) = delete;
    ~OnReport()
    {
        EventBus<StatusReportEvent>::unsubscribe(this, &OnReport::onReport);
    }

    int onReport(Event* pEvent)
    {
        m_action(dynamic_cast<StatusReportEvent&>(*pEvent).m_pCode);
        return 0;
    }

private:
    std::function<void(const std::string&)> m_action;
};

/** Fills the idle event in as the vision host does. */
struct IdleAnswer
{
    int onIdlePrint(Event* pEvent)
    {
        const auto& event = dynamic_cast<IdlePrintEvent&>(*pEvent);
        event.m_pValues->assign({7, 8});
        *event.m_pArg1 = 1;
        *event.m_pArg2 = 2;
        return 0;
    }
};

class PrintServiceCall : public testing::Test
{
protected:
    void SetUp() override
    {
        Log::getInstance().setSinks(0); // standard output is the service's own here
        ASSERT_EQ(0, chdir(m_folder.path().c_str()));
        m_pService = std::make_unique<FreshPrintService>();
        m_pService->setUart(&m_controller.m_uart);
        testing::internal::CaptureStdout();
        m_bCapturing = true;
        g_vecIdleReport.clear();
        g_uLongestReply = 0;
    }

    void TearDown() override
    {
        m_pService.reset();
        (void)output();
        EXPECT_EQ(0, chdir("/"));
    }

    std::string output()
    {
        return std::exchange(m_bCapturing, false) ? testing::internal::GetCapturedStdout()
                                                  : std::string();
    }

    PrintService& service()
    {
        return *m_pService;
    }

    void startJob(const std::string& strJob)
    {
        m_folder.write("tmp.gcode", strJob);
        EXPECT_EQ(0, service().startPrint());
    }

    /** Wait until the job's thread has made so many of the calls that are noted. */
    static bool waitForCalls(size_t uCalls)
    {
        return eventually([uCalls] { return CallJournal::lines("printservice").size() >= uCalls; });
    }

    /** Whether a call was made, by any thread. */
    static bool wasCalled(const std::string& strLine)
    {
        return 0 < CallJournal::count(strLine);
    }

    std::string readOf64() const
    {
        return "read " + std::to_string(m_controller.m_uart.getFd()) + " 64";
    }

    std::string write(size_t uBytes) const
    {
        return "write " + std::to_string(m_controller.m_uart.getFd()) + " " +
               std::to_string(uBytes);
    }

    static size_t countOpen(const std::string& strName)
    {
        size_t uOpen = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error; // the listing's own descriptor is gone by now
            const std::string strTarget =
                std::filesystem::read_symlink(entry.path(), error).string();
            uOpen += (std::string::npos != strTarget.find(strName)) ? 1 : 0;
        }
        return uOpen;
    }

    ScratchFolder m_folder;
    OwnController m_controller;
    std::unique_ptr<FreshPrintService> m_pService;

private:
    bool m_bCapturing = false;
};

} // namespace

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
}

TEST_F(PrintServiceCall, StatusIsWaitedForTenSeconds)
{
    m_controller.say("status:5\n");
    const CallJournal journal("poll select");

    service().pollStatus();

    EXPECT_EQ((Texts{"poll 10000"}), CallJournal::lines());
}

TEST_F(PrintServiceCall, LoopWithNothingToDoPausesTwentyMilliseconds)
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
    m_controller.say("done\n");
    publisher.join();

    EXPECT_EQ((Texts{"poll 2000", "poll 20000", "poll 2000", "poll 20000"}), CallJournal::lines());
}

TEST_F(PrintServiceCall, HeightWaitsTwentySecondsForItsArrival)
{
    const CallJournal journal("poll select");
    std::thread publisher([] {
        MeasureEvent event(1);
        EventBus<MeasureEvent>::publish(event);
    });

    EXPECT_TRUE(eventually([] { return 2 == journalCount(); }));
    m_controller.say("done\n");
    publisher.join();

    EXPECT_EQ((Texts{"poll 2000", "poll 20000"}), CallJournal::lines());
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
    EXPECT_EQ(64U, g_uLongestReply);
    service().pollStatus(); // the rest

    m_controller.answerWith({strLong});
    startJob("G1 X1\n");

    EXPECT_TRUE(eventually([this] { return PRINT_STATE_STOPPED == service().getState(); }));
    EXPECT_EQ(64U, g_uLongestReply);
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

TEST_F(PrintServiceCall, UploadIsReadyOnlyBehindItsHalfSecond)
{
    // The state is looked at in the half second, unless this machine is too slow: then once more.
    bool bIdleMeanwhile = false;
    for (int nTry = 0; nTry < 20 && !bIdleMeanwhile; ++nTry) {
        const CallJournal journal("select");
        m_pService = std::make_unique<FreshPrintService>();
        std::thread saver([this] { EXPECT_EQ(0, service().saveGcode("G1 X1\n", 6)); });
        EXPECT_TRUE(eventually([] { return wasCalled("select 0.500000"); }));
        bIdleMeanwhile = PRINT_STATE_IDLE == service().getState();
        saver.join();
        EXPECT_EQ(PRINT_STATE_FILE_READY, service().getState());
        const Texts vecCall = CallJournal::lines();
        EXPECT_EQ(1, std::count(vecCall.begin(), vecCall.end(), "select 0.500000"));
    }
    EXPECT_TRUE(bIdleMeanwhile);
}

TEST_F(PrintServiceCall, StopActsBehindTheLineUnderWayAndIsStoppedBeforeTheLaserIsOff)
{
    m_controller.answerWith(
        {"ok\n", "", ""}); // neither the second line nor "M5" is answered by itself
    const std::string strLines = "G1 X1\n\nG1 X2\n\n";
    startJob("G1 X1\nG1 X2\n");
    EXPECT_TRUE(m_controller.waitForBytes(strLines));
    const CallJournal journal("select");
    std::thread stopper([this] { EXPECT_EQ(0, service().stopPrint()); });
    EXPECT_TRUE(eventually([] { return wasCalled("select 0.003000"); })); // waits for the thread

    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_EQ(strLines, m_controller.bytes());
    EXPECT_EQ(1U, countOpen("tmp.gcode"));
    m_controller.say("ok\n");
    EXPECT_TRUE(m_controller.waitForBytes(strLines + "M5\n"));
    EXPECT_EQ(PRINT_STATE_STOPPED, service().getState());
    float fProgress = -1;
    EXPECT_EQ(0, service().getProgress(&fProgress));
    EXPECT_EQ(0.0F, fProgress);
    m_controller.say("ok\n");
    stopper.join();

    EXPECT_EQ(0U, countOpen("tmp.gcode"));
    EXPECT_TRUE(std::filesystem::exists("tmp.gcode"));
}

TEST_F(PrintServiceCall, PauseActsBehindTheLineUnderWayAndIsPausedOnceTheLaserIsOff)
{
    m_controller.answerWith({"", ""});
    startJob("G1 X1\nG1 X2\n");
    EXPECT_TRUE(m_controller.waitForBytes("G1 X1\n\n"));
    const CallJournal journal("select");
    std::thread pauser([this] { EXPECT_EQ(0, service().pausePrint()); });
    EXPECT_TRUE(eventually([] { return wasCalled("select 0.003000"); }));

    EXPECT_EQ("G1 X1\n\n", m_controller.bytes());
    m_controller.say("ok\n");
    EXPECT_TRUE(m_controller.waitForBytes("G1 X1\n\nM5\n"));
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    m_controller.say("ok\n");
    pauser.join();

    EXPECT_EQ(PRINT_STATE_PAUSED, service().getState());
    EXPECT_EQ(1U, countOpen("tmp.gcode"));
}

TEST_F(PrintServiceCall, EndOfTheServiceClosesTheJob)
{
    m_controller.answerWith({"status:1\n"});
    startJob("G1 X1\nG1 X2\n");
    EXPECT_TRUE(eventually([this] { return PRINT_STATE_PAUSED == service().getState(); }));
    EXPECT_EQ(1U, countOpen("tmp.gcode"));

    m_pService.reset();

    EXPECT_EQ(0U, countOpen("tmp.gcode"));
}

TEST_F(PrintServiceCall, StatusWhilePrintingIsReportedBehindItsStateAndPrintedLast)
{
    std::mutex mtx;
    Texts vecSeen;
    const OnReport report([this, &mtx, &vecSeen](const std::string& strCode) {
        const std::lock_guard<std::mutex> guard(mtx);
        vecSeen.push_back(strCode + " " + std::to_string(service().getState()));
        puts(("reported " + strCode).c_str());
    });
    m_controller.answerWith({"status:1\n", "status:4\n", "ok status:3\n", "ok status:4\n"});

    startJob("G1 X1\n");

    EXPECT_TRUE(eventually([this] { return PRINT_STATE_STOPPED == service().getState(); }));
    m_pService.reset();
    EXPECT_EQ((Texts{"Wx01 6", "Wx04 5", "Wx03 6", "Wx04 5"}), vecSeen);
    const std::string strOutput = output();
    for (const std::string strCode : {"1", "3"}) {
        const std::string strReported = "reported Wx0" + strCode + "\n";
        const size_t nPrinted = strOutput.find("get status code:" + strCode + " \n");
        EXPECT_EQ(strOutput.find(strReported) + strReported.size(), nPrinted) << strOutput;
    }
}

TEST_F(PrintServiceCall, IdleStatusThreeReportsBeforeItStarts)
{
    EXPECT_EQ(0, service().saveGcode("G1 X1\n", 6));
    Texts vecSeen;
    const OnReport report([this, &vecSeen](const std::string& strCode) {
        vecSeen.push_back(strCode + " " + std::to_string(service().getState()) + " " +
                          m_controller.bytes());
        puts("reported");
    });
    // The answer to "~" is read by the command, the status by the poll before it.
    m_controller.say("status:3\n");

    service().pollStatus();

    EXPECT_EQ(Texts{"Wx03 3 ~\n"}, vecSeen);
    EXPECT_TRUE(m_controller.waitForBytes("~\nG1 X1\n\n\n"));
    m_pService.reset(); // the job's thread prints, too
    const std::string strOutput = output();
    EXPECT_LT(strOutput.find("reported\n"), strOutput.find("start working!\n"));
    EXPECT_LT(strOutput.find("start working!\n"), strOutput.find("get status code:3 \n"));
}

TEST_F(PrintServiceCall, IdleStatusFourPausesBeforeItReports)
{
    Texts vecSeen;
    const OnReport report([this, &vecSeen](const std::string& strCode) {
        vecSeen.push_back(strCode + " " + std::to_string(service().getState()) + " " +
                          m_controller.bytes());
        puts("reported");
    });
    m_controller.say("status:4\n");

    service().pollStatus();

    EXPECT_EQ(Texts{"Wx04 6 M5\n"}, vecSeen);
    EXPECT_EQ("M5\n\nsend length:3\nreported\nget status code:4 \n", output());
}

TEST_F(PrintServiceCall, IdleStatusThreeAsksBeforeItReports)
{
    IdleAnswer subscriber;
    EventBus<IdlePrintEvent>::subscribe(&subscriber, &IdleAnswer::onIdlePrint);
    Texts vecAtReport{"none"};
    const OnReport report([&vecAtReport](const std::string&) { vecAtReport = g_vecIdleReport; });
    m_controller.say("status:3\n");

    service().pollStatus();

    EventBus<IdlePrintEvent>::unsubscribe(&subscriber, &IdleAnswer::onIdlePrint);
    EXPECT_EQ(Texts{"1 2: 7 8"}, g_vecIdleReport); // encoded, though it goes nowhere
    EXPECT_EQ(Texts{"1 2: 7 8"}, vecAtReport);
    EXPECT_EQ("", m_controller.bytes());
}

TEST_F(PrintServiceCall, FirmwareThatIsALinkIsReplacedAndNotFollowed)
{
    m_folder.write("precious", "untouched");
    std::filesystem::create_symlink("precious", "firmware.bin");

    EXPECT_EQ(0, service().updateFirmware("image", 5));

    EXPECT_EQ("untouched", m_folder.read("precious"));
    EXPECT_FALSE(std::filesystem::is_symlink("firmware.bin"));
    EXPECT_EQ("image", m_folder.read("firmware.bin"));
}

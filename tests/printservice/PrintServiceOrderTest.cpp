// The order in which the service acts, and what others see of it in between.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "CallJournal.h"
#include "Descriptors.h"
#include "EventBus.h"
#include "Eventually.h"
#include "IdlePrintEvent.h"
#include "LogCapture.h"
#include "PrintServiceCallFixture.h"
#include "StatusReportEvent.h"

namespace {

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

using PrintServiceOrder = PrintServiceCallFixture;

} // namespace

TEST_F(PrintServiceOrder, UploadIsToldBeforeItsHalfSecond)
{
    const CallJournal journal("select");
    std::thread saver([this] { EXPECT_EQ(0, service().saveGcode("G1 X1\n", 6)); });
    EXPECT_TRUE(eventually([] { return wasCalled("select 0.500000"); }));

    fflush(stdout);
    struct stat told
    {
    };
    EXPECT_EQ(0, fstat(STDOUT_FILENO, &told));
    EXPECT_EQ(24, told.st_size); // all of the line that follows
    saver.join();

    EXPECT_EQ("receive file successed!\n", output());
}

TEST_F(PrintServiceOrder, UploadIsReadyOnlyBehindItsHalfSecond)
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

TEST_F(PrintServiceOrder, StopActsBehindTheLineUnderWayAndIsStoppedBeforeTheLaserIsOff)
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
    EXPECT_EQ(1U, openDescriptors("tmp.gcode").size());
    m_controller.say("ok\n");
    EXPECT_TRUE(m_controller.waitForBytes(strLines + "M5\n"));
    EXPECT_EQ(PRINT_STATE_STOPPED, service().getState());
    float fProgress = -1;
    EXPECT_EQ(0, service().getProgress(&fProgress));
    EXPECT_EQ(0.0F, fProgress);
    m_controller.say("ok\n");
    stopper.join();

    EXPECT_EQ(0U, openDescriptors("tmp.gcode").size());
    EXPECT_TRUE(std::filesystem::exists("tmp.gcode"));
}

TEST_F(PrintServiceOrder, StartWhileAStopWaitsForItsAnswerIsKept)
{
    m_controller.answerWith({"", ""});
    std::thread stopper([this] { EXPECT_EQ(0, service().stopPrint()); });
    EXPECT_TRUE(m_controller.waitForBytes("M5\n"));

    std::string strJob = "G1 X1\n";
    for (int i = 0; i < 20; ++i) {
        strJob += "G1 X2\n";
    }
    startJob(strJob);
    EXPECT_TRUE(m_controller.waitForBytes("M5\nG1 X1\n\n"));
    int nSaid = 0;
    EXPECT_TRUE(eventually([this, &nSaid] {
        if (nSaid < 100) { // an answer goes to the first reader, and there are two
            m_controller.say("ok\n");
            ++nSaid;
        }
        return PRINT_STATE_STOPPED == service().getState();
    }));

    stopper.join();
    EXPECT_FALSE(std::filesystem::exists("tmp.gcode"));
}

TEST_F(PrintServiceOrder, PauseActsBehindTheLineUnderWayAndIsPausedOnceTheLaserIsOff)
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
    EXPECT_EQ(1U, openDescriptors("tmp.gcode").size());
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(m_controller.waitForBytes("G1 X1\n\nM5\nG1 X2\n\n\n"));
}

TEST_F(PrintServiceOrder, GoingOnDoesNotWaitForTheThread)
{
    // The second time the thread has parked before.
    for (int nJob = 1; nJob <= 2; ++nJob) {
        const LogCapture log;
        m_controller.answerWith({"ok status:1\n"});
        startJob("G1 X1\n");
        EXPECT_TRUE(eventually([this] { return PRINT_STATE_PAUSED == service().getState(); }));

        const CallJournal journal("select");
        EXPECT_EQ(0, service().startPrint());

        EXPECT_FALSE(wasCalled("select 0.003000")) << "is at its line, or in the pause behind it";
        EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
        EXPECT_TRUE(eventually(
            [&log] { return std::string::npos != log.text().find("stop thread by myself"); }));
        EXPECT_EQ(PRINT_STATE_STOPPED, service().getState());
    }
    EXPECT_EQ("G1 X1\n\nG1 X1\n\n\nG1 X1\n\nG1 X1\n\n\n", m_controller.bytes());
}

TEST_F(PrintServiceOrder, EndOfTheServiceClosesTheJob)
{
    m_controller.answerWith({"status:1\n"});
    startJob("G1 X1\nG1 X2\n");
    EXPECT_TRUE(eventually([this] { return PRINT_STATE_PAUSED == service().getState(); }));
    EXPECT_EQ(1U, openDescriptors("tmp.gcode").size());

    m_pService.reset();

    EXPECT_EQ(0U, openDescriptors("tmp.gcode").size());
}

TEST_F(PrintServiceOrder, StatusWhilePrintingIsReportedBehindItsStateAndPrintedLast)
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

TEST_F(PrintServiceOrder, IdleStatusThreeReportsBeforeItStarts)
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

TEST_F(PrintServiceOrder, IdleStatusFourPausesBeforeItReports)
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

TEST_F(PrintServiceOrder, DeliberateIdleReportIsEncodedAndGoesNowhere)
{
    IdleAnswer subscriber;
    EventBus<IdlePrintEvent>::subscribe(&subscriber, &IdleAnswer::onIdlePrint);
    Texts vecAtReport{"none"};
    const OnReport report(
        [&vecAtReport](const std::string&) { vecAtReport = CodecCalls::s_vecIdleReport; });
    m_controller.say("status:3\n");

    service().pollStatus();

    EventBus<IdlePrintEvent>::unsubscribe(&subscriber, &IdleAnswer::onIdlePrint);
    EXPECT_EQ(Texts{"1 2: 7 8"}, CodecCalls::s_vecIdleReport); // encoded, though it goes nowhere
    EXPECT_EQ(Texts{"1 2: 7 8"}, vecAtReport);
    EXPECT_EQ("", m_controller.bytes());
}

TEST_F(PrintServiceOrder, FirmwareThatIsALinkIsReplacedAndNotFollowed)
{
    m_folder.write("precious", "untouched");
    std::filesystem::create_symlink("precious", "firmware.bin");

    EXPECT_EQ(0, service().updateFirmware("image", 5));

    EXPECT_EQ("untouched", m_folder.read("precious"));
    EXPECT_FALSE(std::filesystem::is_symlink("firmware.bin"));
    EXPECT_EQ("image", m_folder.read("firmware.bin"));
}

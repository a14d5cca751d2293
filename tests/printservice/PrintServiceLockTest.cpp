// What one thread does to the job while another is in the middle of a start, an upload or parking.
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "CallJournal.h"
#include "Descriptors.h"
#include "EventBus.h"
#include "Eventually.h"
#include "Fault.h"
#include "LogEvent.h"
#include "PrintServiceCallFixture.h"
#include "Threads.h"

namespace {

/** Does something of the test's own, on the thread that logs, for lines with a text. */
class OnLog
{
public:
    OnLog(std::string strText, std::function<void()> action)
        : m_strText(std::move(strText)), m_action(std::move(action))
    {
        EventBus<LogEvent>::subscribe(this, &OnLog::onLog);
    }
    OnLog(const OnLog&) = delete;
    OnLog& operator=(const OnLog&) = delete;
    ~OnLog()
    {
        EventBus<LogEvent>::unsubscribe(this, &OnLog::onLog);
    }

    int onLog(Event* pEvent)
    {
        const auto& event = dynamic_cast<LogEvent&>(*pEvent);
        const std::string strLine(event.m_text.get(), static_cast<size_t>(event.m_s32Length));
        if (std::string::npos != strLine.find(m_strText)) {
            m_action();
        }
        return 0;
    }

private:
    std::string m_strText;
    std::function<void()> m_action;
};

/** A thread that can be looked at. */
class Worker
{
public:
    explicit Worker(const std::function<void()>& work)
        : m_thread([this, work] {
              pthread_setname_np(pthread_self(), "worker"); // for the journal
              m_nTid = static_cast<int32_t>(syscall(SYS_gettid));
              work();
              m_bDone = true;
          })
    {
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker()
    {
        m_thread.join();
    }

    /** Wait until it sleeps behind a pthread_mutex_lock of the journal. @return false: it is done
     */
    bool waitsForALock() const
    {
        return eventually([this] {
                   return m_bDone || (!CallJournal::lines("worker").empty() && isAsleep(m_nTid));
               }) &&
               !m_bDone;
    }

    bool isDone() const
    {
        return m_bDone;
    }

private:
    std::atomic<int32_t> m_nTid{0};
    std::atomic<bool> m_bDone{false};
    std::thread m_thread; // last: it uses the others
};

using PrintServiceLock = PrintServiceCallFixture;

} // namespace

TEST_F(PrintServiceLock, UploadWaitsForAStartUnderWay)
{
    ASSERT_EQ(0, mkfifo("tmp.gcode", 0600)); // opened for reading only once somebody writes
    const Worker starter([this] { EXPECT_EQ(0, service().startPrint()); });
    EXPECT_TRUE(eventually([this] { return PRINT_STATE_PRINTING == service().getState(); }));
    const CallJournal journal("pthread_mutex_lock");
    const Worker saver([this] { EXPECT_EQ(0, service().saveGcode("G1 X2\n", 6)); });

    EXPECT_TRUE(saver.waitsForALock());
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState()) << "the job is not given up half open";

    const int nWriter = open("tmp.gcode", O_WRONLY | O_CLOEXEC);
    EXPECT_LE(0, nWriter);
    EXPECT_TRUE(eventually([&starter] { return starter.isDone(); }));
    close(nWriter);
    EXPECT_TRUE(eventually([&saver] { return saver.isDone(); }));
    EXPECT_EQ(PRINT_STATE_FILE_READY, service().getState());
    EXPECT_EQ("G1 X2\n", m_folder.read("tmp.gcode"));
}

TEST_F(PrintServiceLock, StartWaitsForAnUploadUnderWay)
{
    service().setUart(nullptr);             // a start goes no further than the port
    const std::string strJob(100000, '\n'); // more than a pipe takes
    ASSERT_EQ(0, mkfifo("tmp.gcode.new", 0600));
    const Worker saver([this, &strJob] {
        EXPECT_EQ(0, service().saveGcode(strJob.data(), static_cast<int>(strJob.size())));
    });
    EXPECT_TRUE(eventually([] { return !openDescriptors("tmp.gcode.new").empty(); }));
    const CallJournal journal("pthread_mutex_lock");
    const Worker starter([this] { EXPECT_EQ(1, service().startPrint()); });

    EXPECT_TRUE(starter.waitsForALock());
    EXPECT_EQ(PRINT_STATE_IDLE, service().getState()) << "the file is not there yet";

    const int nReader = open("tmp.gcode.new", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    size_t uTaken = 0;
    EXPECT_TRUE(eventually([nReader, &uTaken, &strJob] {
        char acPart[4096];
        const ssize_t nRead = read(nReader, acPart, sizeof(acPart));
        uTaken += (nRead > 0) ? static_cast<size_t>(nRead) : 0;
        return strJob.size() == uTaken;
    }));
    close(nReader);
    EXPECT_TRUE(eventually([&starter] { return starter.isDone(); }));
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
}

TEST_F(PrintServiceLock, StartWaitsForAnUploadThatIsBeingMeasured)
{
    service().setUart(nullptr); // a start goes no further than the port
    auto pHold = std::make_unique<FaultScope>("stat=tmp.gcode:1:HOLD");
    const Worker saver([this] { EXPECT_EQ(0, service().saveGcode("G1 X1\n", 6)); });
    EXPECT_TRUE(eventually([] { return 1 == faultHits(); }));
    const CallJournal journal("pthread_mutex_lock");
    const Worker starter([this] { EXPECT_EQ(1, service().startPrint()); });

    EXPECT_TRUE(starter.waitsForALock());
    EXPECT_EQ(PRINT_STATE_IDLE, service().getState()) << "else the upload would take it back";

    pHold.reset();
    EXPECT_TRUE(eventually([&starter] { return starter.isDone(); }));
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
}

TEST_F(PrintServiceLock, JobIsStoppedBeforeItsEndIsToldOnStandardOutput)
{
    const FaultScope hold("puts=print job finish!:1:HOLD");
    m_controller.say("ok\n"); // keeps the read behind the line from waiting
    startJob("G1 X1\n");

    EXPECT_TRUE(eventually([] { return 1 == faultHits(); }));

    EXPECT_EQ(PRINT_STATE_STOPPED, service().getState());
}

TEST_F(PrintServiceLock, StartWaitsForAThreadThatIsAboutToPark)
{
    std::atomic<bool> bParking{false};
    std::atomic<bool> bGoOn{false};
    const OnLog park("stop thread by myself", [&bParking, &bGoOn] {
        bParking = true;
        EXPECT_TRUE(eventually([&bGoOn] { return bGoOn.load(); }));
    });
    startJob("G1 X1\n");
    EXPECT_TRUE(eventually([&bParking] { return bParking.load(); }));
    const CallJournal journal("select");
    const Worker starter([this] { startJob("G1 X2\n"); });

    EXPECT_TRUE(
        eventually([&starter] { return starter.isDone() || wasCalled("select 0.003000"); }));
    bGoOn = true;

    EXPECT_TRUE(m_controller.waitForBytes("G1 X1\n\n\nG1 X2\n\n\n")) << "the start was lost";
    EXPECT_TRUE(eventually([&starter] { return starter.isDone(); }));
    m_pService.reset();
}

TEST_F(PrintServiceLock, CutLineIsLoggedBeforeItIsToldOnStandardOutput)
{
    std::atomic<bool> bParking{false};
    const OnLog park("stop thread by myself", [&bParking] { bParking = true; });
    const OnLog cut("total bytes:7, but send 0 bytes", [] { puts("logged"); });
    const FaultScope fault(
        ("write=" + std::to_string(m_controller.m_uart.getFd()) + ":1:EAGAIN").c_str());
    m_controller.say("ok\n"); // keeps the read behind the line from waiting

    startJob("G1 X1\n");

    EXPECT_TRUE(eventually([&bParking] { return bParking.load(); }));
    m_pService.reset();
    const std::string strOutput = output();
    EXPECT_NE(std::string::npos, strOutput.find("nWriteLength:-1\nlogged\nsend failed!\n"))
        << strOutput;
}

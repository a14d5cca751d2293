// Log viewers beside each other: what each gets, coming and going, and not reading.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "Descriptors.h"
#include "Eventually.h"
#include "Fault.h"
#include "ListeningPort.h"
#include "Log.h"
#include "LogCapture.h"
#include "LogClient.h"
#include "LogServer.h"
#include "LogViewer.h"
#include "Threads.h"
#include "Time.h"

namespace {

/** A server as the log server is, that remembers the connection made last. */
class RecordingServer : public TcpServer
{
public:
    ~RecordingServer() override
    {
        endService();
    }
    TcpClient* createClient() override
    {
        auto* pClient = new LogClient;
        m_pLast = pClient;
        return pClient;
    }
    uint16_t open()
    {
        EXPECT_EQ(0, init(0, "127.0.0.1", 4096, 4096));
        (void)start();
        return listeningPort();
    }
    std::atomic<LogClient*> m_pLast{nullptr};
};

/** Lines "thread number": every thread's lines complete and in order. */
void expectAllInOrder(const std::string& strText, int nThreads, int nLines)
{
    std::map<int, int> mapNext;
    size_t uPosition = 0;
    while (uPosition < strText.size()) {
        const size_t uEnd = strText.find('\n', uPosition);
        ASSERT_NE(std::string::npos, uEnd);
        int nThread = -1;
        int nLine = -1;
        if (2 == sscanf(strText.c_str() + uPosition, "%d %d", &nThread, &nLine)) {
            ASSERT_EQ(mapNext[nThread], nLine) << "thread " << nThread;
            ++mapNext[nThread];
        }
        uPosition = uEnd + 1;
    }
    for (int i = 0; i < nThreads; ++i) {
        EXPECT_EQ(nLines, mapNext[i]);
    }
}

} // namespace

class LogServerViewers : public testing::Test
{
protected:
    LogServerViewers()
    {
        Log::getInstance().setLayout(0).setSinks(0).setLevel(5);
        signal(SIGPIPE, SIG_IGN); // as the service does
    }
    ~LogServerViewers() override
    {
        Log::getInstance().setLayout(127).setSinks(LOG_SINK_CONSOLE).setLevel(8);
        signal(SIGPIPE, SIG_DFL);
    }
};

TEST_F(LogServerViewers, TwoViewersGetTheSameLinesInTheSameOrder)
{
    RecordingServer server;
    const uint16_t u16Port = server.open();
    Viewer first(u16Port);
    Viewer second(u16Port);
    first.waitUntilServed();
    second.waitUntilServed();

    std::string strExpected;
    for (int i = 0; i < 100; ++i) {
        const std::string strLine = "line " + std::to_string(i) + "\n";
        logLine(strLine);
        strExpected += strLine;
    }

    ASSERT_TRUE(second.readUntil("line 99\n"));
    EXPECT_EQ(strExpected, second.text());
    ASSERT_TRUE(first.readUntil("line 99\n"));
    // It was served while the second one waited.
    EXPECT_EQ(strExpected, first.text().substr(first.text().size() - strExpected.size()));
}

TEST_F(LogServerViewers, LinesOfBeforeAreNotReplayed)
{
    RecordingServer server;
    const uint16_t u16Port = server.open();
    logLine("before\n");
    Viewer viewer(u16Port);
    viewer.waitUntilServed();

    logLine("after\n");

    ASSERT_TRUE(viewer.readUntil("after\n"));
    EXPECT_EQ("after\n", viewer.text());
}

TEST_F(LogServerViewers, AnyAllocationOfAnAcceptMayFail)
{
    RecordingServer server; // its reactor is this thread
    ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
    const uint16_t u16Port = listeningPort();
    bool bReached = true;
    for (int nWhich = 1; bReached; ++nWhich) {
        const Viewer viewer(u16Port);
        const std::string strPlan = "malloc:" + std::to_string(nWhich) + ":ENOMEM";
        FaultScope fault(strPlan.c_str());

        EXPECT_NO_THROW((void)server.pollOnce()) << strPlan;

        bReached = 0 != faultHits();
        ASSERT_LT(nWhich, 1000);
    }
    (void)server.start();

    Viewer viewer(u16Port);
    viewer.waitUntilServed();
}

TEST_F(LogServerViewers, CutLineIsSentWithItsZeros)
{
    RecordingServer server;
    Viewer viewer(server.open());
    viewer.waitUntilServed();

    logLine(std::string(5000, 'x'));
    logLine("end\n");

    ASSERT_TRUE(viewer.readUntil("end\n"));
    EXPECT_EQ(std::string(4093, 'x') + std::string(907, '\0') + "end\n", viewer.text());
}

TEST_F(LogServerViewers, ThreadHasItsNameAndViewersHaveSmallBuffers)
{
    LogServer& server = LogServer::getInstance();
    ASSERT_EQ(0, server.setUp("127.0.0.1", 0));
    const uint16_t u16Port = listeningPort();
    const LogCapture log;
    {
        const Viewer viewer(u16Port);
        EXPECT_TRUE(eventually([&] { return hasSocketWithBuffers(u16Port, 4096); }));
        EXPECT_EQ(std::string::npos, log.text().find("size error")) << "within the limits";
        EXPECT_TRUE(eventually([] { return 1 == countThreads("LogServer"); }));
    }
    EXPECT_TRUE(eventually([&] { return !hasSocketWithBuffers(u16Port, 4096); }));
    EXPECT_EQ(0, server.stop());
    EXPECT_EQ(0, server.uninit());
}

TEST_F(LogServerViewers, WithoutItsPortTheServerIsNotStarted)
{
    RecordingServer other;
    const uint16_t u16Taken = other.open();
    LogServer& server = LogServer::getInstance();
    LogCapture log;

    EXPECT_EQ(1, server.setUp("127.0.0.1", u16Taken));

    EXPECT_EQ(std::string::npos, log.text().find("start thread("));
    EXPECT_EQ(0, server.uninit());

    EXPECT_EQ(0, server.setUp("127.0.0.1", 0));
    EXPECT_NE(std::string::npos, log.text().find("start thread("));
    EXPECT_EQ(0, server.stop());
    EXPECT_EQ(0, server.uninit());
}

TEST_F(LogServerViewers, ViewersThatStayedHaveEveryLineWhileOthersComeAndGo)
{
    const int THREADS = 4;
    const int LINES = 1000; // what all viewers lag behind by stays inside the clients' memory
    RecordingServer server;
    const uint16_t u16Port = server.open();
    const size_t uDescriptors = openDescriptors().size();
    {
        Viewer first(u16Port);
        Viewer second(u16Port);
        first.waitUntilServed();
        second.waitUntilServed();
        std::atomic<bool> bDone{false};
        std::thread visitors([&] {
            while (!bDone) {
                std::vector<std::unique_ptr<Viewer>> vecViewer;
                for (int i = 0; i < 8; ++i) {
                    vecViewer.push_back(std::make_unique<Viewer>(u16Port));
                }
                (void)vecViewer[0]->readMore(50); // the log may have ended
                while (!vecViewer.empty()) {
                    vecViewer.erase(vecViewer.begin()); // some with unread lines, some with none
                }
            }
        });
        std::thread firstReader([&] { EXPECT_TRUE(first.readUntil("the end\n")); });
        std::thread secondReader([&] { EXPECT_TRUE(second.readUntil("the end\n")); });
        std::vector<std::thread> vecLogger;
        for (int nThread = 0; nThread < THREADS; ++nThread) {
            vecLogger.emplace_back([nThread] {
                for (int nLine = 0; nLine < LINES; ++nLine) {
                    logLine(std::to_string(nThread) + " " + std::to_string(nLine) + "\n");
                }
            });
        }
        for (std::thread& thread : vecLogger) {
            thread.join();
        }
        bDone = true;
        visitors.join();
        logLine("the end\n");
        firstReader.join();
        secondReader.join();

        expectAllInOrder(first.text(), THREADS, LINES);
        expectAllInOrder(second.text(), THREADS, LINES);
    }

    EXPECT_TRUE(eventually([&] { return uDescriptors == openDescriptors().size(); }));
}

TEST_F(LogServerViewers, ViewerThatStopsReadingHoldsTheLinesUntilItLeaves)
{
    const int LINES = 2000;
    RecordingServer server;
    const uint16_t u16Port = server.open();
    Viewer reader(u16Port);
    reader.waitUntilServed();
    const size_t uBefore = allocatedBytes();
    {
        Viewer sleeper(u16Port, 4096);
        sleeper.waitUntilServed();
        LogClient* pSleeper = server.m_pLast;
        const std::string strLine = std::string(4000, 'x') + "\n";
        std::thread other([&] { EXPECT_TRUE(reader.readUntil("the end\n", true)); });
        for (int i = 0; i < LINES; ++i) {
            logLine(strLine);
        }
        logLine("the end\n");
        other.join(); // the other viewer gets everything meanwhile

        EXPECT_GT(pSleeper->getQueueLength(), LINES * 3 / 4);
        EXPECT_GT(allocatedBytes(), uBefore + LINES * size_t{3000});
    }

    EXPECT_TRUE(eventually([&] { return allocatedBytes() < uBefore + LINES * size_t{1000}; }))
        << allocatedBytes() << " after " << uBefore;
}

TEST_F(LogServerViewers, ViewerBeyondThe32ndIsRefused)
{
    LogServer& server = LogServer::getInstance();
    ASSERT_EQ(0, server.setUp("127.0.0.1", 0));
    const uint16_t u16Port = listeningPort();
    {
        std::vector<std::unique_ptr<Viewer>> vecViewer;
        for (int i = 0; i < 32; ++i) {
            vecViewer.push_back(std::make_unique<Viewer>(u16Port));
            vecViewer.back()->waitUntilServed();
        }
        Viewer newest(u16Port);
        EXPECT_FALSE(newest.readMore()) << "closed";
        for (const auto& pViewer : vecViewer) {
            EXPECT_TRUE(pViewer->isOpen());
        }
    }
    EXPECT_EQ(0, server.stop());
    EXPECT_EQ(0, server.uninit());
}

TEST_F(LogServerViewers, ViewerThatTakesNothingForFiveSecondsIsClosed)
{
    RecordingServer server;
    const uint16_t u16Port = server.open();
    Viewer reader(u16Port);
    reader.waitUntilServed();
    Viewer sleeper(u16Port, 4096);
    sleeper.waitUntilServed();
    const size_t uDescriptors = openDescriptors().size();
    const uint32_t u32StartMs = monotonicMs32();
    const std::string strLine = std::string(4000, 'x') + "\n";
    std::thread other([&] { EXPECT_TRUE(reader.readUntil("the end\n", true)); });
    for (int i = 0; i < 400; ++i) {
        logLine(strLine);
    }
    logLine("the end\n");
    other.join();

    EXPECT_TRUE(eventually([&] { return uDescriptors - 1 == openDescriptors().size(); }));
    EXPECT_GE(monotonicMs32() - u32StartMs, 5000U);
    EXPECT_TRUE(reader.isOpen());
}

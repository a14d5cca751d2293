// Log viewers: what they get, what they send, coming and going, and not reading.
#include "LogServer.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "ChildProgram.h"
#include "Eventually.h"
#include "Fault.h"
#include "FreePort.h"
#include "Log.h"
#include "LogCapture.h"
#include "LogClient.h"
#include "ScratchFolder.h"
#include "Time.h"

namespace {

void logLine(const std::string& strText)
{
    Log::getInstance().log("Some.cpp", 1, "doIt", 2, "%s", strText.c_str());
}

/** Somebody who watches the log, with a socket of his own. */
class Viewer
{
public:
    explicit Viewer(uint16_t u16Port, int nReceiveBuffer = 0)
        : m_nFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        if (0 != nReceiveBuffer) {
            setsockopt(m_nFd, SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(u16Port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, ::connect(m_nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    }
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;
    ~Viewer()
    {
        close(m_nFd);
    }

    void send(const std::string& strText) const
    {
        EXPECT_EQ(static_cast<ssize_t>(strText.size()),
                  ::send(m_nFd, strText.data(), strText.size(), MSG_NOSIGNAL));
    }

    /** @return false without data for that long (a failing run's deadline), or when closed */
    bool readMore(int nTimeoutMs = 30000)
    {
        pollfd entry{m_nFd, POLLIN, 0};
        char acBuffer[65536];
        if (poll(&entry, 1, nTimeoutMs) <= 0) {
            return false;
        }
        const ssize_t nRead = recv(m_nFd, acBuffer, sizeof(acBuffer), 0);
        if (nRead <= 0) {
            return false;
        }
        m_strText.append(acBuffer, static_cast<size_t>(nRead));
        return true;
    }

    /** Read until the text so far holds strEnd; if wanted only the last bytes are kept. */
    bool readUntil(const std::string& strEnd, bool bForget = false)
    {
        size_t uFrom = 0;
        while (std::string::npos == m_strText.find(strEnd, uFrom)) {
            if (bForget && m_strText.size() > 100000) {
                m_strText.erase(0, m_strText.size() - 100);
            }
            uFrom = m_strText.size() - std::min(m_strText.size(), strEnd.size());
            if (!readMore()) {
                return false;
            }
        }
        return true;
    }

    /** Logs until this viewer gets lines: from then on it gets all. What it got is forgotten. */
    void waitUntilServed()
    {
        ASSERT_TRUE(eventually([this] {
            logLine("?");
            pollfd entry{m_nFd, POLLIN, 0};
            return 1 == poll(&entry, 1, 1);
        }));
        logLine("!\n");
        ASSERT_TRUE(readUntil("!\n")); // the last one
        m_strText.clear();
    }

    /** The server has not closed; what waits to be read stays. */
    bool isOpen() const
    {
        pollfd entry{m_nFd, POLLRDHUP, 0};
        return 0 == poll(&entry, 1, 0);
    }

    const std::string& text() const
    {
        return m_strText;
    }

private:
    int m_nFd;
    std::string m_strText;
};

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
        const uint16_t u16Port = freePort();
        EXPECT_EQ(0, init(u16Port, "127.0.0.1", 4096, 4096));
        (void)start();
        return u16Port;
    }
    std::atomic<LogClient*> m_pLast{nullptr};
};

int countDescriptors()
{
    int nCount = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++nCount;
    }
    return nCount;
}

/** Whether a connection to the port has been accepted, and has buffers of that many bytes. */
bool hasConnection(uint16_t u16Port, int nBuffer)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int nFd = atoi(entry.path().filename().c_str());
        sockaddr_in address{};
        socklen_t uLength = sizeof(address);
        int nSend = 0;
        int nReceive = 0;
        if (0 == getsockname(nFd, reinterpret_cast<sockaddr*>(&address), &uLength) &&
            htons(u16Port) == address.sin_port) {
            uLength = sizeof(int);
            getsockopt(nFd, SOL_SOCKET, SO_SNDBUF, &nSend, &uLength);
            getsockopt(nFd, SOL_SOCKET, SO_RCVBUF, &nReceive, &uLength);
        }
        if (2 * nBuffer == nSend && 2 * nBuffer == nReceive) { // socket(7): doubled
            return true;
        }
    }
    return false;
}

bool hasServerThread()
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(entry.path() / "comm");
        std::string strName;
        if (std::getline(file, strName) && "LogServer" == strName) {
            return true;
        }
    }
    return false;
}

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
    const uint16_t u16Port = freePort();
    ASSERT_EQ(0, server.init(u16Port, "127.0.0.1", 4096, 4096));
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

TEST(LogServer, WhatAViewerSendsIsPrinted)
{
    const uint16_t u16Port = freePort();
    ChildProgram program({BASE_CHILD, "server", std::to_string(u16Port)});
    ASSERT_TRUE(program.waitForOutput("ready\n"));
    {
        Viewer viewer(u16Port);
        viewer.send("hello");
        EXPECT_TRUE(program.waitForOutput("logserver recv:hello\n")) << program.output();

        program.write("a line\n");
        EXPECT_TRUE(viewer.readUntil("a line\n"));
        EXPECT_EQ("a line\n", viewer.text());
    }
    program.closeInput();

    EXPECT_EQ(0, program.wait().nStatus);
}

TEST(LogServer, LongInputIsPrintedInPiecesOfTheBuffer)
{
    const uint16_t u16Port = freePort();
    ChildProgram program({BASE_CHILD, "server", std::to_string(u16Port)});
    ASSERT_TRUE(program.waitForOutput("ready\n"));
    const Viewer viewer(u16Port);

    viewer.send(std::string(2048, 'a') + "b");

    EXPECT_TRUE(program.waitForOutput("b\n"));
    EXPECT_EQ("ready\nlogserver recv:" + std::string(2048, 'a') + "\nlogserver recv:b\n",
              program.output());
}

TEST(LogServer, WithoutTheServerSinkNothingListens)
{
    ScratchFolder folder;
    const ChildResult result = runChild(
        {BASE_CHILD, "sinks", "2", (folder.path() / "log").string(), std::to_string(freePort())});

    EXPECT_NE(std::string::npos, result.strOutput.find("not listening\n"));
    EXPECT_EQ(0, result.nStatus);
}

TEST(LogServer, WithTheServerSinkItListensAndNoFileIsMade)
{
    ScratchFolder folder;
    const ChildResult result = runChild(
        {BASE_CHILD, "sinks", "4", (folder.path() / "log").string(), std::to_string(freePort())});

    EXPECT_EQ("listening\n", result.strOutput);
    EXPECT_EQ(0, result.nStatus);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(LogServer, PortIsTakenModulo65536)
{
    ScratchFolder folder;
    const uint16_t u16Port = freePort();
    ChildProgram program({BASE_CHILD, "server", std::to_string(u16Port + 65536)});
    ASSERT_TRUE(program.waitForOutput("ready\n"));

    Viewer viewer(u16Port);
    viewer.send("x");

    EXPECT_TRUE(program.waitForOutput("logserver recv:x\n"));
}

TEST(LogServer, TakenPortIsLoggedAndTheProgramGoesOn)
{
    ScratchFolder folder;
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t uLength = sizeof(address);
    ASSERT_EQ(0, bind(nFd, reinterpret_cast<sockaddr*>(&address), uLength));
    ASSERT_EQ(0, listen(nFd, 1));
    ASSERT_EQ(0, getsockname(nFd, reinterpret_cast<sockaddr*>(&address), &uLength));
    const std::string strPort = std::to_string(ntohs(address.sin_port));

    const ChildResult result =
        runChild({BASE_CHILD, "sinks", "5", (folder.path() / "log").string(), strPort});

    close(nFd);
    EXPECT_NE(std::string::npos,
              result.strOutput.find(
                  "accept socket bind error !!   accept ip:(null) port:" + strPort + "\n"))
        << result.strOutput;
    EXPECT_NE(std::string::npos, result.strOutput.find("a line\n"));
    EXPECT_EQ(0, result.nStatus);
}

TEST_F(LogServerViewers, ThreadHasItsNameAndViewersHaveSmallBuffers)
{
    LogServer& server = LogServer::getInstance();
    const uint16_t u16Port = freePort();
    ASSERT_EQ(0, server.setUp("127.0.0.1", u16Port));
    {
        const Viewer viewer(u16Port);
        EXPECT_TRUE(eventually([&] { return hasConnection(u16Port, 4096); }));
        EXPECT_TRUE(eventually(hasServerThread));
    }
    EXPECT_TRUE(eventually([&] { return !hasConnection(u16Port, 4096); }));
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

    EXPECT_EQ(0, server.setUp("127.0.0.1", freePort()));
    EXPECT_NE(std::string::npos, log.text().find("start thread("));
    EXPECT_EQ(0, server.stop());
    EXPECT_EQ(0, server.uninit());
}

TEST_F(LogServerViewers, ViewersThatStayedHaveEveryLineWhileOthersComeAndGo)
{
    const int THREADS = 4;
    const int LINES = 3000; // what all viewers lag behind by stays inside the clients' memory
    RecordingServer server;
    const uint16_t u16Port = server.open();
    const int nDescriptors = countDescriptors();
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

    EXPECT_TRUE(eventually([&] { return nDescriptors == countDescriptors(); }));
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
    const uint16_t u16Port = freePort();
    ASSERT_EQ(0, server.setUp("127.0.0.1", u16Port));
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
    const int nDescriptors = countDescriptors();
    const uint32_t u32StartMs = monotonicMs32();
    const std::string strLine = std::string(4000, 'x') + "\n";
    std::thread other([&] { EXPECT_TRUE(reader.readUntil("the end\n", true)); });
    for (int i = 0; i < 400; ++i) {
        logLine(strLine);
    }
    logLine("the end\n");
    other.join();

    EXPECT_TRUE(eventually([&] { return nDescriptors - 1 == countDescriptors(); }));
    EXPECT_GE(monotonicMs32() - u32StartMs, 5000U);
    EXPECT_TRUE(reader.isOpen());
}

TEST(LogClient, ViewerThatStopsWithLessThanAMebibyteWaitingStays)
{
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anPair));
    LogClient client;
    client.setSocket(TcpSocket(anPair[0]));
    const std::string strLine(1000000, 'x');
    for (int i = 0; i < 2; ++i) { // one is being sent, one waits
        LogEvent line(SafePointer_C<char>(strdup(strLine.c_str())), 1000000, 2);
        EXPECT_EQ(0, client.onLog(&line));
    }

    EXPECT_EQ(INT_MAX, client.getTimeLeft(1000));
    EXPECT_EQ(INT_MAX, client.getTimeLeft(61000));
    close(anPair[0]);
    close(anPair[1]);
}

TEST(LogClient, SlowReaderHasFiveSecondsForEachByte)
{
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anPair));
    LogClient client;
    client.setSocket(TcpSocket(anPair[0]));
    std::string strLines(2 * 1024 * 1024, 'x');
    for (int i = 0; i < 2; ++i) { // one is being sent, one waits
        LogEvent line(SafePointer_C<char>(strdup(strLines.c_str())), 2 * 1024 * 1024, 2);
        EXPECT_EQ(0, client.onLog(&line));
    }

    EXPECT_EQ(5000, client.getTimeLeft(1000));
    EXPECT_EQ(1, client.getTimeLeft(5999));
    std::string strTaken(300000, ' '); // the reader takes something
    ASSERT_GT(recv(anPair[1], strTaken.data(), strTaken.size(), 0), 0);
    EXPECT_EQ(5000, client.getTimeLeft(6000));
    EXPECT_EQ(0, client.getTimeLeft(11000));
    close(anPair[0]);
    close(anPair[1]);
}

TEST(LogClient, AnotherEventTypeIsABadCast)
{
    LogClient client;
    Event event;

    EXPECT_THROW(client.onLog(&event), std::bad_cast);
}

TEST(LogClient, WithoutASocketLinesAndReadsAreRefused)
{
    LogClient client;
    ASSERT_EQ(0, client.init());
    char acText[] = "line\n";
    LogEvent line(SafePointer_C<char>(strdup(acText)), 5, 2);
    int nFd = -1;
    TcpClient* pClient = &client;
    EPollEvent event(EPOLLIN, &nFd, &pClient);

    EXPECT_EQ(1, client.onLog(&line));
    EXPECT_EQ(1, client.onRead(event));
    EXPECT_EQ(0, client.getQueueLength());
    EXPECT_EQ(0, client.uninit());
}

TEST(LogClient, WithoutAReceiveBufferReadsAreRefused)
{
    testing::internal::CaptureStdout();
    LogClient client;
    {
        FaultScope fault("malloc=2048:1:ENOMEM");
        EXPECT_EQ(0, client.init());
        EXPECT_EQ(1u, faultHits());
    }
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, anPair));
    client.setSocket(TcpSocket(anPair[0]));
    TcpClient* pClient = &client;
    EPollEvent event(EPOLLIN, &anPair[0], &pClient);

    EXPECT_EQ(1, client.onRead(event));

    EXPECT_EQ("err: NULL pointer(safe pointer) !\n", testing::internal::GetCapturedStdout());
    close(anPair[0]);
    close(anPair[1]);
}

TEST(LogClient, ReadThatFindsNothingIsPrintedWithoutBytes)
{
    LogClient client;
    ASSERT_EQ(0, client.init());
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anPair));
    client.setSocket(TcpSocket(anPair[0]));
    TcpClient* pClient = &client;
    EPollEvent event(EPOLLIN, &anPair[0], &pClient);
    testing::internal::CaptureStdout();

    EXPECT_EQ(0, client.onRead(event));

    EXPECT_EQ("logserver recv:\n", testing::internal::GetCapturedStdout());
    close(anPair[0]);
    close(anPair[1]);
}

// The line about the failed send comes back to every sink but the one that is failing.
TEST(LogClient, FailingSendIsLoggedWithoutComingBackToItself)
{
    LogClient client;
    ASSERT_EQ(0, client.init());
    client.setSocket(TcpSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))); // unconnected
    LogCapture log(0);
    signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(0, client.start());

    logLine("line\n");
    logLine("another\n");

    EXPECT_EQ(0, client.stop());
    signal(SIGPIPE, SIG_DFL);
    const std::vector<std::string> vecLine = log.lines();
    ASSERT_EQ(3u, vecLine.size());
    EXPECT_EQ("line\n", vecLine[0]);
    EXPECT_EQ("EPIPE The local end", vecLine[1].substr(0, 19));
    EXPECT_EQ("another\n", vecLine[2]);
    (void)client.getSocket().close();
}

TEST(LogClient, TextIsSharedNotCopied)
{
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anPair));
    const std::string strBlock(65536, 'x');
    while (send(anPair[0], strBlock.data(), strBlock.size(), MSG_NOSIGNAL) > 0) {
    }
    LogClient client;
    client.setSocket(TcpSocket(anPair[0]));
    LogEvent first(SafePointer_C<char>(strdup("first\n")), 6, 2);
    LogEvent second(SafePointer_C<char>(strdup("second\n")), 7, 2);

    EXPECT_EQ(0, client.onLog(&first)); // is being sent, and the socket takes nothing
    EXPECT_EQ(0, client.onLog(&second));
    EXPECT_EQ(1, client.getQueueLength());
    const void* pData = nullptr;
    int nLength = 0;
    EXPECT_EQ(0, client.getNextBuffer(pData, nLength));

    EXPECT_EQ(second.m_text.get(), pData);
    EXPECT_EQ(7, nLength);
    close(anPair[0]);
    close(anPair[1]);
}

TEST(LogClient, FailingSendsOnTwoConnectionsAndThreadsEnd)
{
    LogCapture log(0);
    signal(SIGPIPE, SIG_IGN);
    LogClient aClient[2];
    for (LogClient& client : aClient) {
        ASSERT_EQ(0, client.init());
        client.setSocket(TcpSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
        ASSERT_EQ(0, client.start());
    }
    std::vector<std::thread> vecThread;
    for (int i = 0; i < 3; ++i) {
        vecThread.emplace_back([] {
            for (int nLine = 0; nLine < 300; ++nLine) {
                logLine("line\n");
            }
        });
    }
    for (std::thread& thread : vecThread) {
        thread.join();
    }

    EXPECT_EQ(900, log.count("line\n"));
    for (LogClient& client : aClient) {
        EXPECT_EQ(0, client.stop());
        (void)client.getSocket().close();
    }
    signal(SIGPIPE, SIG_DFL);
}

// The connection of a log viewer: what it sends, reads, and keeps while its viewer does not read.
#include "LogClient.h"

#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ClientMemory.h"
#include "Fault.h"
#include "LogCapture.h"
#include "LogViewer.h"

namespace {

/** Have it send a line of that length. */
void logTo(LogClient& client, int nLength)
{
    const auto uLength = static_cast<size_t>(nLength);
    char* pText = static_cast<char*>(malloc(uLength));
    memset(pText, 'x', uLength);
    LogEvent line(SafePointer_C<char>(pText), nLength, 2);
    EXPECT_EQ(0, client.onLog(&line));
}

int g_nHeld = -1; // of a socket, as the kernel says

} // namespace

// The linker gives calls of ioctl to the first, and the second's calls to ioctl.
extern "C" int __wrap_ioctl(int nFd, unsigned long ulRequest, ...);
extern "C" int __real_ioctl(int nFd, unsigned long ulRequest, ...);

int __wrap_ioctl(int nFd, unsigned long ulRequest, ...)
{
    va_list arguments;
    va_start(arguments, ulRequest);
    void* pArgument = va_arg(arguments, void*);
    va_end(arguments);
    if (g_nHeld < 0 || TIOCOUTQ != ulRequest) {
        return __real_ioctl(nFd, ulRequest, pArgument);
    }
    *static_cast<int*>(pArgument) = g_nHeld;
    return 0;
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

TEST(LogClient, ViewerThatHasTakenNothingYetHasFiveSecondsBeyondAMebibyte)
{
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anPair));
    LogClient client;
    client.setSocket(TcpSocket(anPair[0]));
    const FaultScope full("sendmsg:1-:EAGAIN");
    logTo(client, 1);       // is being sent
    logTo(client, 1048576); // waits

    EXPECT_EQ(INT_MAX, client.getTimeLeft(500)) << "a mebibyte may wait";
    logTo(client, 1);
    EXPECT_EQ(5000, client.getTimeLeft(1000));
    EXPECT_EQ(1, client.getTimeLeft(5999));
    EXPECT_EQ(0, client.getTimeLeft(6000));
    close(anPair[0]);
    close(anPair[1]);
}

TEST(LogClient, ViewerThatLagsAnewHasItsFiveSecondsAnew)
{
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anPair));
    LogClient client;
    client.setSocket(TcpSocket(anPair[0]));
    const FaultScope full("sendmsg:1-:EAGAIN");
    logTo(client, 1);       // is being sent
    logTo(client, 1048577); // waits
    EXPECT_EQ(5000, client.getTimeLeft(1000));
    const void* pData = nullptr;
    int nLength = 0;
    EXPECT_EQ(0, client.getNextBuffer(pData, nLength)); // no longer
    EXPECT_EQ(INT_MAX, client.getTimeLeft(3000));

    logTo(client, 1048577);

    EXPECT_EQ(5000, client.getTimeLeft(4000));
    close(anPair[0]);
    close(anPair[1]);
}

// What the kernel has taken and still holds has not been taken by the viewer.
TEST(LogClient, BytesThatTheKernelHoldsAreNotTaken)
{
    class OpenClient : public LogClient
    {
    public:
        using LogClient::getHandedBytes;
    };
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anPair));
    OpenClient client;
    client.setSocket(TcpSocket(anPair[0]));
    {
        const FaultScope full("sendmsg:1-:EAGAIN");
        logTo(client, 1048577); // is being sent
        logTo(client, 1048577); // waits
    }
    EXPECT_EQ(5000, client.getTimeLeft(1000));
    TcpClient* pClient = &client;
    EPollEvent event(EPOLLOUT, &anPair[0], &pClient);
    ASSERT_EQ(0, client.onWrite(event)); // what there is room for
    ASSERT_LT(0U, client.getHandedBytes());
    logTo(client, 1048577); // waits: the others leave together

    g_nHeld = static_cast<int>(client.getHandedBytes());
    EXPECT_EQ(3000, client.getTimeLeft(3000));
    --g_nHeld;
    EXPECT_EQ(5000, client.getTimeLeft(3500)) << "the viewer has taken a byte";
    g_nHeld = -1;
    close(anPair[0]);
    close(anPair[1]);
}

TEST(LogClient, CountsAsFourKilobytesBeforeItsFirstLine)
{
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();
    {
        LogClient client;
        EXPECT_EQ(0, client.init());
        EXPECT_EQ(u32Before + 4096, ClientMemory::getInstance().getBytes());
    }
    EXPECT_EQ(u32Before, ClientMemory::getInstance().getBytes());
}

TEST(LogClient, WhoHasBeenGivenUpBeforeItBeganIsNotServed)
{
    class LeavingClient : public LogClient
    {
    public:
        using LogClient::leave;
    };
    LeavingClient client;
    client.leave();

    EXPECT_EQ(1, client.init());
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

TEST(LogClient, DeliberateReadThatFindsNothingIsPrintedWithoutBytes)
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

TEST(LogClient, ReadTellsThatTheViewerHasLeft)
{
    LogClient client;
    ASSERT_EQ(0, client.init());
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anPair));
    client.setSocket(TcpSocket(anPair[0]));
    TcpClient* pClient = &client;
    EPollEvent event(EPOLLIN, &anPair[0], &pClient);
    close(anPair[1]);
    testing::internal::CaptureStdout();

    EXPECT_EQ(1, client.onRead(event));

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    close(anPair[0]);
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

// TcpServer: what it asks the kernel for and in which order, and where each readiness leads.
#include <cerrno>
#include <climits>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "CallJournal.h"
#include "EventBus.h"
#include "Fault.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "NetPair.h"
#include "ServerFixture.h"
#include "WaitAnswer.h"

namespace {

using Lines = std::vector<std::string>;
using Steps = std::vector<std::string>;

std::string text(int nValue)
{
    return std::to_string(nValue);
}

/** A server with one connection whose first readiness, to write, is over. */
class OneConnection
{
public:
    OneConnection()
    {
        m_server.listen();
        m_peer = connectTo(m_server.getPort());
        EXPECT_TRUE(m_server.poll("start"));
        EXPECT_EQ(0, m_server.pollOnce());
        m_nFd = m_server.m_pLast->getSocket().getFd();
        (void)m_server.m_steps.take();
    }
    OneConnection(const OneConnection&) = delete;
    OneConnection& operator=(const OneConnection&) = delete;
    ~OneConnection()
    {
        (void)m_peer.close();
    }

    /** One pass of the reactor that reports u32Mask for the connection, whatever is ready. */
    void report(uint32_t u32Mask)
    {
        EXPECT_EQ(1, send(m_peer.getFd(), "x", 1, 0));
        EXPECT_TRUE(m_server.m_pLast->getSocket().waitReadable(Time(30, 0)));
        const WaitAnswer answer([u32Mask](epoll_event* pEvents, int nReady) {
            EXPECT_EQ(1, nReady);
            pEvents[0].events = u32Mask;
        });
        EXPECT_EQ(0, m_server.pollOnce());
    }

    StepServer m_server;
    TcpSocket m_peer;
    int m_nFd = -1;
};

/** Stands in for one of the server's handlers and counts its calls. */
class Counter
{
public:
    RET_E onEvent(Event*)
    {
        ++m_nCalls;
        return RET_SUCCESS;
    }
    int m_nCalls = 0;
};

const Steps ENDED = {"onError 1", "stop 1", "uninit 1", "delete 1"};

} // namespace

TEST(TcpServerReactor, StepsOfInitHaveTheirOrder)
{
    StepServer server;
    const CallJournal journal("socket fcntl setsockopt bind listen epoll_ctl");

    server.listen();

    const std::string strFd = text(server.getListenFd());
    const std::string strOption = "setsockopt " + strFd + " ";
    const std::string strTcp = strOption + text(IPPROTO_TCP) + " ";
    const std::string strSocket = strOption + text(SOL_SOCKET) + " ";
    EXPECT_EQ((Lines{"socket", "fcntl " + strFd + " " + text(F_GETFL),
                     "fcntl " + strFd + " " + text(F_SETFL), strSocket + text(SO_KEEPALIVE),
                     strTcp + text(TCP_KEEPIDLE), strTcp + text(TCP_KEEPINTVL),
                     strTcp + text(TCP_KEEPCNT), strSocket + text(SO_REUSEADDR), "bind " + strFd,
                     "listen " + strFd + " 20", "epoll_ctl add " + strFd + " 0x80000001"}),
              CallJournal::lines());
}

TEST(TcpServerReactor, ConnectionsAreEdgeTriggeredForAllButUrgentData)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    const CallJournal journal("epoll_ctl");

    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(Lines{"epoll_ctl add " + text(server.m_pLast->getSocket().getFd()) + " 0x8000001d"},
              CallJournal::lines());
    (void)peer.close();
}

TEST(TcpServerReactor, ConnectionLeftWithMoreToReadIsArmedWithTheSameMask)
{
    OneConnection one;
    const std::string strSent(3000, 'r'); // more than a pass reads
    ASSERT_EQ(3000, send(one.m_peer.getFd(), strSent.data(), strSent.size(), 0));
    ASSERT_TRUE(one.m_server.m_pLast->getSocket().waitReadable(Time(30, 0)));
    const CallJournal journal("epoll_ctl");

    EXPECT_EQ(0, one.m_server.pollOnce());

    EXPECT_EQ(Lines{"epoll_ctl mod " + text(one.m_nFd) + " 0x8000001d"}, CallJournal::lines());
}

TEST(TcpServerReactor, WaitTakesTwentyEntriesAndLastsASecond)
{
    StepServer server;
    server.listen();
    const FaultScope fault("epoll_wait:1:EINTR");
    const CallJournal journal("epoll_wait select");

    EXPECT_EQ(0, server.pollOnce());

    EXPECT_EQ(Lines{"epoll_wait 20 1000"}, CallJournal::lines());
}

TEST(TcpServerReactor, ThreadWithoutANameIsCalledEpoll)
{
    const auto countThreads = [] {
        int nCount = 0;
        DIR* pDir = opendir("/proc/self/task");
        while (const dirent* pEntry = readdir(pDir)) {
            std::string strName;
            std::ifstream(std::string("/proc/self/task/") + pEntry->d_name + "/comm") >> strName;
            nCount += ("epoll" == strName) ? 1 : 0;
        }
        closedir(pDir);
        return nCount;
    };
    const int nBefore = countThreads();

    const StepServer server;

    EXPECT_EQ(nBefore + 1, countThreads());
}

TEST(TcpServerReactor, EndOfAConnectionFreesAllOfIt)
{
    StepServer server;
    server.listen();
    int nEnded = 0;
    const auto comeAndGo = [&] {
        TcpSocket peer = connectTo(server.getPort());
        ASSERT_TRUE(server.poll("start"));
        ASSERT_EQ(0, peer.setOptLinger(true, 0)); // no port is left waiting
        (void)peer.close();
        ASSERT_TRUE(server.poll("delete"));
        (void)server.m_steps.take();
        ++nEnded;
    };
    LogCapture log;
    comeAndGo();
    log.clear();
    const size_t uBefore = allocatedBytes();

    while (nEnded < 201 && !HasFatalFailure()) {
        comeAndGo();
        log.clear();
    }

    EXPECT_GT(uBefore + 2000, allocatedBytes()); // less than ten bytes for each
}

TEST(TcpServerReactor, EachReportOfABrokenConnectionEndsItByItself)
{
    for (const uint32_t u32Mask : {EPOLLERR, EPOLLHUP}) {
        OneConnection one;

        one.report(u32Mask);

        EXPECT_EQ(ENDED, one.m_server.m_steps.take()) << u32Mask;
        EXPECT_FALSE(isOpen(one.m_nFd)) << u32Mask;
    }
}

TEST(TcpServerReactor, NothingOfAnEntryFollowsTheEndOfItsConnection)
{
    struct Case
    {
        const char* pFailing;
        uint32_t u32Mask;
        Steps before;
    };
    const Case aCase[] = {
        {"onRead", EPOLLIN | EPOLLOUT, {"onRead 1"}},
        {"onRead", EPOLLIN | EPOLLERR, {"onRead 1"}},
        {"onWrite", EPOLLOUT | EPOLLERR, {"onWrite 1"}},
        {"onWrite", EPOLLOUT | EPOLLHUP, {"onWrite 1"}},
        {"", EPOLLERR | EPOLLHUP, {}},
        {"", EPOLLHUP | EPOLLPRI, {}},
    };
    for (const Case& entry : aCase) {
        OneConnection one;
        Counter later; // the handler of the second report
        if (0 != (entry.u32Mask & EPOLLPRI)) {
            ASSERT_EQ(RET_SUCCESS, one.m_server.setPriHandler(&later, &Counter::onEvent));
        } else if (0 != (entry.u32Mask & EPOLLHUP)) {
            ASSERT_EQ(RET_SUCCESS, one.m_server.setHupHandler(&later, &Counter::onEvent));
        } else if (0 != (entry.u32Mask & EPOLLERR)) {
            ASSERT_EQ(RET_SUCCESS, one.m_server.setErrHandler(&later, &Counter::onEvent));
        } else {
            ASSERT_EQ(RET_SUCCESS, one.m_server.setOutHandler(&later, &Counter::onEvent));
        }
        one.m_server.m_failing = {entry.pFailing};

        one.report(entry.u32Mask);

        Steps expected = entry.before;
        expected.insert(expected.end(), ENDED.begin(), ENDED.end());
        EXPECT_EQ(expected, one.m_server.m_steps.take()) << entry.u32Mask;
        EXPECT_EQ(0, later.m_nCalls) << entry.u32Mask;
    }
}

TEST(TcpServerReactor, BrokenEntryWithoutAConnectionEndsItsPartOfThePass)
{
    StepServer server;
    server.listen(); // nobody owns the listener's entry
    Counter later;
    ASSERT_EQ(RET_SUCCESS, server.setHupHandler(&later, &Counter::onEvent));
    TcpSocket peer = connectTo(server.getPort());
    {
        const WaitAnswer answer(
            [](epoll_event* pEvents, int) { pEvents[0].events = EPOLLERR | EPOLLHUP; });
        EXPECT_EQ(0, server.pollOnce());
    }

    EXPECT_EQ(0, later.m_nCalls);
    EXPECT_EQ(Steps(), server.m_steps.take());
    EXPECT_TRUE(isOpen(server.getListenFd()));
    (void)peer.close();
}

TEST(TcpServerReactor, EndIsLoggedBeforeTheConnectionIsDeleted)
{
    struct Sink
    {
        int onLog(Event*)
        {
            steps.note("log", 1);
            return 0;
        }
        StepLog& steps;
    };
    OneConnection one;
    const LogCapture quiet;
    Sink sink{one.m_server.m_steps};
    EventBus<LogEvent>::subscribe(&sink, &Sink::onLog);

    one.report(EPOLLHUP);
    EventBus<LogEvent>::unsubscribe(&sink, &Sink::onLog);

    EXPECT_EQ((Steps{"onError 1", "stop 1", "uninit 1", "log 1", "delete 1"}),
              one.m_server.m_steps.take());
}

// A number that is closed first may be another thread's descriptor by the time it is taken out.
TEST(TcpServerReactor, DescriptorLeavesTheReactorBeforeItIsClosed)
{
    OneConnection one;
    const CallJournal journal("epoll_ctl close");

    one.report(EPOLLHUP);

    EXPECT_EQ((Lines{"epoll_ctl del " + text(one.m_nFd), "close " + text(one.m_nFd)}),
              CallJournal::lines());
}

TEST(TcpServerReactor, ListenerLeavesTheReactorBeforeItIsClosed)
{
    StepServer server;
    server.listen();
    const std::string strFd = text(server.getListenFd());
    const CallJournal journal("epoll_ctl close");

    EXPECT_EQ(0, server.uninit());

    EXPECT_EQ((Lines{"epoll_ctl del " + strFd, "close " + strFd}), CallJournal::lines());
}

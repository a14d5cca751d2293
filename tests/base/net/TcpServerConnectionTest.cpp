// TcpServer: the turns of its connections, and how each of them ends.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ServerFixture.h"
#include "TcpServer.h"

namespace {

using Lines = std::vector<std::string>;
using Steps = std::vector<std::string>;

const char* const CONNECTION_LINE = "[info ] [TcpServer ] [onPollError] tcp client error, delete "
                                    "from epoll and close !!\n";

/** A server with one connection, which has been started. */
class TcpServerConnection : public testing::Test
{
protected:
    void SetUp() override
    {
        m_server.listen();
        m_peer = connectTo(m_server.getPort());
        ASSERT_TRUE(m_server.poll("start"));
    }
    void TearDown() override
    {
        (void)m_peer.close();
    }

    StepServer m_server;
    TcpSocket m_peer;
};

} // namespace

TEST_F(TcpServerConnection, PassReadsSixteenTimesAndTheRestHasItsTurn)
{
    EXPECT_EQ(0, m_server.pollOnce());    // writable
    const std::string strSent(3000, 'r'); // 300 reads, one edge
    ASSERT_EQ(3000, send(m_peer.getFd(), strSent.data(), strSent.size(), 0));
    int32_t nLeft = 0;
    ASSERT_TRUE(eventually(
        [&] { return 0 == m_server.m_pLast->getSocket().getRcvQueue(nLeft) && 3000 == nLeft; }));

    EXPECT_EQ(0, m_server.pollOnce());
    ASSERT_EQ(0, m_server.m_pLast->getSocket().getRcvQueue(nLeft));
    EXPECT_EQ(3000 - 160, nLeft);

    int nPasses = 0;
    while (nLeft > 0 && nPasses < 100) { // now and then one is for a writable connection alone
        EXPECT_EQ(0, m_server.pollOnce());
        ++nPasses;
        ASSERT_EQ(0, m_server.m_pLast->getSocket().getRcvQueue(nLeft));
    }
    EXPECT_GE(nPasses, 18);
    EXPECT_EQ(strSent, readBytes(m_peer, 3000));
}

TEST_F(TcpServerConnection, FloodDoesNotKeepOthersWaiting)
{
    StepClient* pFlooded = m_server.m_pLast;
    TcpSocket other = connectTo(m_server.getPort());
    ASSERT_TRUE(m_server.poll("start", 2));
    const std::string strSent(10000, 'r'); // 63 passes
    ASSERT_EQ(10000, send(m_peer.getFd(), strSent.data(), strSent.size(), 0));
    ASSERT_TRUE(pFlooded->getSocket().waitReadable(Time(30, 0)));
    ASSERT_EQ(1, send(other.getFd(), "x", 1, 0));
    ASSERT_TRUE(m_server.m_pLast->getSocket().waitReadable(Time(30, 0)));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, m_server.pollOnce());
    }

    EXPECT_EQ("x", readPending(other));
    EXPECT_TRUE(pFlooded->getSocket().waitReadable(Time()));
    (void)other.close();
}

TEST_F(TcpServerConnection, ThatCannotBeArmedAgainEnds)
{
    const std::string strSent(3000, 'r');
    ASSERT_EQ(3000, send(m_peer.getFd(), strSent.data(), strSent.size(), 0));
    LogCapture log;
    FaultScope fault("epoll_ctl:1:ENOMEM");

    ASSERT_TRUE(m_server.poll("delete"));

    const std::string strText = std::string("epoll_ctl err: ") + strerror(ENOMEM) + "\n";
    EXPECT_EQ(Lines({"[debug] [EPoll ] [armAgain] " + strText}), takeLines(log, strText));
}

TEST_F(TcpServerConnection, HangUpEndsItOnce)
{
    (void)m_server.m_steps.take();
    const int nFd = m_server.m_pLast->getSocket().getFd();
    LogCapture log;

    (void)m_peer.close();
    ASSERT_TRUE(m_server.poll("delete"));
    EXPECT_EQ(0, m_server.pollOnce()); // nothing more comes of it

    EXPECT_EQ(Steps({"onError 1", "stop 1", "uninit 1", "delete 1"}), m_server.m_steps.take());
    EXPECT_FALSE(isOpen(nFd));
    EXPECT_EQ(Lines({CONNECTION_LINE}), takeLines(log));
}

TEST_F(TcpServerConnection, ResetEndsItOnce)
{
    (void)m_server.m_steps.take();
    const int nFd = m_server.m_pLast->getSocket().getFd();

    ASSERT_EQ(0, m_peer.setOptLinger(true, 0));
    (void)m_peer.close();
    ASSERT_TRUE(m_server.poll("delete"));
    EXPECT_EQ(0, m_server.pollOnce());

    EXPECT_EQ(Steps({"onError 1", "stop 1", "uninit 1", "delete 1"}), m_server.m_steps.take());
    EXPECT_FALSE(isOpen(nFd));
}

TEST_F(TcpServerConnection, FailedStopLeavesOutUninit)
{
    m_server.m_failing = {"stop"};
    (void)m_server.m_steps.take();

    (void)m_peer.close();
    ASSERT_TRUE(m_server.poll("delete"));

    EXPECT_EQ(Steps({"onError 1", "stop 1", "delete 1"}), m_server.m_steps.take());
}

TEST_F(TcpServerConnection, FailedReadOrWriteEndsIt)
{
    m_server.m_failing = {"onRead"};
    (void)m_server.m_steps.take();

    ASSERT_EQ(1, send(m_peer.getFd(), "x", 1, 0));
    ASSERT_TRUE(m_server.poll("delete"));
    EXPECT_EQ(Steps({"onRead 1", "onError 1", "stop 1", "uninit 1", "delete 1"}),
              m_server.m_steps.take());
    EXPECT_TRUE(sawEnd(m_peer));

    m_server.m_failing = {"onWrite"};
    TcpSocket writer = connectTo(m_server.getPort());
    ASSERT_TRUE(m_server.poll("delete")); // writable at once
    EXPECT_EQ(Steps({"create 2", "init 2", "start 2", "onWrite 2", "onError 2", "stop 2",
                     "uninit 2", "delete 2"}),
              m_server.m_steps.take());
    EXPECT_TRUE(sawEnd(writer));
    (void)writer.close();
}

TEST_F(TcpServerConnection, WriteThatFailsOnAnotherThreadEndsIt)
{
    (void)m_server.pollOnce(); // the first out event
    (void)m_server.m_steps.take();
    FaultScope fault("sendmsg:1:ENOMEM");

    std::thread producer([&] {
        char* pData = static_cast<char*>(malloc(4));
        memcpy(pData, "data", 4);
        m_server.m_pLast->send(SafePointer_C<char>(pData), 4);
    });
    producer.join();
    EXPECT_EQ(Steps(), m_server.m_steps.take()); // only the reactor ends it
    ASSERT_TRUE(m_server.poll("delete"));

    EXPECT_EQ(1U, faultHits());
    EXPECT_EQ(Steps({"onError 1", "stop 1", "uninit 1", "delete 1"}), m_server.m_steps.take());
    EXPECT_TRUE(sawEnd(m_peer));
}

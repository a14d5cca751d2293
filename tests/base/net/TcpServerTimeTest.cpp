// TcpServer: connections whose time is over, and those whose peer has gone without a word.
#include <cerrno>
#include <climits>
#include <memory>
#include <string>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "NetPair.h"
#include "ServerFixture.h"
#include "TcpInfoAnswer.h"

namespace {

/** Its time left and the results of its steps are a test's; it tells of its end. */
class TimedClient : public TcpClient
{
public:
    TimedClient() = default;
    ~TimedClient() override
    {
        ++s_nDeleted;
    }
    int onRead(EPollEvent&) override
    {
        ++m_nReads;
        char cByte = 0;
        int nDone = 0;
        return m_socket.read(&cByte, 1, nDone);
    }
    int onWrite(EPollEvent&) override
    {
        ++m_nWrites;
        return m_nWriteResult;
    }
    bool mayRead() override
    {
        return m_bMayRead;
    }
    int onTurn() override
    {
        ++m_nTurns;
        return m_nTurnResult;
    }
    int getTimeLeft(uint32_t) override
    {
        return m_nLeft;
    }

    static int s_nDeleted;
    int m_nLeft = INT_MAX;
    int m_nWriteResult = 0;
    bool m_bMayRead = true;
    int m_nTurnResult = 0;
    int m_nTurns = 0;
    int m_nReads = 0;
    int m_nWrites = 0;
};

int TimedClient::s_nDeleted;

/** A server with one connection whose first readiness, to write, is over. */
class TcpServerTime : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, m_server.listen());
        m_peer = connectTo(m_server.getPort());
        ASSERT_TRUE(eventually([&] {
            return 0 == m_server.pollOnce() && nullptr != m_server.m_pLast &&
                   0 != m_server.m_pLast->m_nWrites;
        }));
        TimedClient::s_nDeleted = 0;
    }
    void TearDown() override
    {
        (void)m_peer.close();
    }

    ServerOf<TimedClient> m_server;
    TcpSocket m_peer;
};

} // namespace

TEST_F(TcpServerTime, LastMillisecondIsStillTheConnections)
{
    const int nWrites = m_server.m_pLast->m_nWrites;
    m_server.m_pLast->m_nLeft = 1;
    EXPECT_EQ(0, m_server.pollOnce());
    EXPECT_EQ(0, TimedClient::s_nDeleted);
    EXPECT_EQ(nWrites, m_server.m_pLast->m_nWrites) << "no last attempt yet";

    m_server.m_pLast->m_nLeft = 0;
    ASSERT_EQ(1, send(m_peer.getFd(), "x", 1, 0)); // or the pass would last its second
    EXPECT_EQ(0, m_server.pollOnce());
    EXPECT_EQ(1, TimedClient::s_nDeleted);
    EXPECT_TRUE(sawEnd(m_peer));
}

TEST_F(TcpServerTime, LastAttemptThatFailsEndsTheConnectionOnce)
{
    m_server.m_pLast->m_nLeft = 0;
    m_server.m_pLast->m_nWriteResult = 1;
    TcpSocket next = connectTo(m_server.getPort()); // ends the wait

    EXPECT_EQ(0, m_server.pollOnce());

    EXPECT_EQ(1, TimedClient::s_nDeleted);
    EXPECT_TRUE(sawEnd(m_peer));
    (void)next.close();
}

TEST_F(TcpServerTime, OneArrivalIsReadOnce)
{
    ASSERT_EQ(1, send(m_peer.getFd(), "x", 1, 0));
    ASSERT_TRUE(m_server.m_pLast->getSocket().waitReadable(Time(30, 0)));
    const int nBefore = m_server.m_pLast->m_nWrites;

    EXPECT_EQ(0, m_server.pollOnce());

    EXPECT_EQ(1, m_server.m_pLast->m_nReads);
    EXPECT_EQ(nBefore + 1, m_server.m_pLast->m_nWrites) << "the kernel tells of room, too";
}

TEST_F(TcpServerTime, TurnThatIsAskedForComesWithTheNextPass)
{
    m_server.m_pLast->m_nTurnResult = 2;
    ASSERT_EQ(1, send(m_peer.getFd(), "x", 1, 0));
    ASSERT_TRUE(m_server.m_pLast->getSocket().waitReadable(Time(30, 0)));
    const int nBefore = m_server.m_pLast->m_nTurns;

    for (int i = 0; i < 3; ++i) { // nothing new comes
        EXPECT_EQ(0, m_server.pollOnce());
        EXPECT_LE(nBefore + 1 + i, m_server.m_pLast->m_nTurns);
    }

    EXPECT_EQ(0, TimedClient::s_nDeleted);
}

TEST_F(TcpServerTime, TurnThatFailsEndsTheConnection)
{
    for (const int nResult : {1, 3, -1}) {
        TcpSocket peer = connectTo(m_server.getPort());
        const TimedClient* pFormer = m_server.m_pLast;
        ASSERT_TRUE(eventually([&] {
            return 0 == m_server.pollOnce() && pFormer != m_server.m_pLast &&
                   0 != m_server.m_pLast->m_nWrites;
        }));
        TimedClient::s_nDeleted = 0;
        m_server.m_pLast->m_nTurnResult = nResult;
        ASSERT_EQ(1, send(peer.getFd(), "x", 1, 0));
        ASSERT_TRUE(m_server.m_pLast->getSocket().waitReadable(Time(30, 0)));

        EXPECT_EQ(0, m_server.pollOnce());

        EXPECT_EQ(1, TimedClient::s_nDeleted) << nResult;
        EXPECT_TRUE(sawEnd(peer)) << nResult;
        (void)peer.close();
        m_server.m_pLast = nullptr;
    }
}

TEST_F(TcpServerTime, WhatMayNotBeReadStaysWhereItIs)
{
    m_server.m_pLast->m_bMayRead = false;
    ASSERT_EQ(1, send(m_peer.getFd(), "x", 1, 0));
    ASSERT_TRUE(m_server.m_pLast->getSocket().waitReadable(Time(30, 0)));

    EXPECT_EQ(0, m_server.pollOnce());

    EXPECT_EQ(0, m_server.m_pLast->m_nReads);
    EXPECT_TRUE(m_server.m_pLast->getSocket().waitReadable(Time()));
}

TEST_F(TcpServerTime, SilentPeerIsReset)
{
    const TcpInfoAnswer silent([](tcp_info& info, socklen_t&) {
        info.tcpi_unacked = 1;
        info.tcpi_last_data_sent = 7000;
        info.tcpi_last_ack_recv = 8000;
    });

    // Looked at once a second.
    EXPECT_TRUE(eventually([&] {
        (void)m_server.pollOnce();
        return 0 != TimedClient::s_nDeleted;
    }));

    char cByte = 0;
    EXPECT_EQ(-1, recv(m_peer.getFd(), &cByte, 1, 0));
    EXPECT_EQ(ECONNRESET, errno);
}

TEST_F(TcpServerTime, SilentPeersAreLookedForOnceASecond)
{
    int nLooks = 0;
    const TcpInfoAnswer counter([&nLooks](tcp_info&, socklen_t&) { ++nLooks; });
    m_server.m_pLast->m_nLeft = 1; // short passes
    const uint32_t u32StartMs = monotonicMs32();
    uint32_t u32BeforeMs = 0; // the pass that looked last
    uint32_t u32BehindMs = 0;
    bool bAgain = false;

    while (!bAgain) {
        nLooks = 0;
        const uint32_t u32NowMs = monotonicMs32();
        EXPECT_EQ(0, m_server.pollOnce());
        const bool bFirst = 0 == u32BeforeMs;
        if (!bFirst && u32NowMs - u32BehindMs >= 1000) {
            EXPECT_EQ(1, nLooks) << "a second has passed";
        }
        if (0 != nLooks) {
            bAgain = !bFirst;
            if (bAgain) {
                EXPECT_LE(1000U, monotonicMs32() - u32BeforeMs);
            }
            u32BeforeMs = u32NowMs;
            u32BehindMs = monotonicMs32();
        }
        ASSERT_LT(u32NowMs - u32StartMs, 30000U);
    }
}

TEST_F(TcpServerTime, PeerThatWasHeardOfAMomentAgoStays)
{
    int nAsked = 0;
    const TcpInfoAnswer answer([&nAsked](tcp_info& info, socklen_t&) {
        info.tcpi_unacked = 1;
        info.tcpi_last_data_sent = 7000;
        info.tcpi_last_ack_recv = 7999;
        ++nAsked;
    });

    EXPECT_TRUE(eventually([&] {
        (void)m_server.pollOnce();
        return nAsked > 0;
    }));

    EXPECT_EQ(0, TimedClient::s_nDeleted);
    EXPECT_TRUE(isSilent(m_peer));
}

// TcpSocket: buffer sizes within the kernel's limits, and the option dump.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ScratchFolder.h"
#include "TcpSocket.h"

namespace {

using Lines = std::vector<std::string>;

struct Limits
{
    explicit Limits(const char* pFile)
    {
        std::ifstream(pFile) >> nMinimum >> nDefault >> nMaximum;
    }
    int32_t nMinimum = -1;
    int32_t nDefault = -1;
    int32_t nMaximum = -1;
};

int32_t receiveBuffer(TcpSocket& socket)
{
    int32_t nSize = -1;
    EXPECT_EQ(0, socket.getOptRcvBuf(nSize));
    return nSize;
}

int32_t sendBuffer(TcpSocket& socket)
{
    int32_t nSize = -1;
    EXPECT_EQ(0, socket.getOptSndBuf(nSize));
    return nSize;
}

/** What the kernel makes of a receive size that it is asked for directly. */
int32_t receiveBufferFor(int32_t nSize)
{
    NetPair pair;
    EXPECT_EQ(0, pair.m_near.Socket::setOptRcvBuf(nSize));
    return receiveBuffer(pair.m_near);
}

int32_t sendBufferFor(int32_t nSize)
{
    NetPair pair;
    EXPECT_EQ(0, pair.m_near.Socket::setOptSndBuf(nSize));
    return sendBuffer(pair.m_near);
}

/** For its life the command that reads the limits prints this. */
class LimitsAnswer
{
public:
    explicit LimitsAnswer(const std::string& strAnswer) : m_strPath(getenv("PATH"))
    {
        m_folder.write("cat", "#!/bin/sh\nprintf '" + strAnswer + "'\n");
        std::filesystem::permissions(m_folder.path() / "cat", std::filesystem::perms::owner_all);
        setenv("PATH", (m_folder.path().string() + ":" + m_strPath).c_str(), 1);
    }
    LimitsAnswer(const LimitsAnswer&) = delete;
    LimitsAnswer& operator=(const LimitsAnswer&) = delete;
    ~LimitsAnswer()
    {
        setenv("PATH", m_strPath.c_str(), 1);
    }

private:
    const ScratchFolder m_folder;
    const std::string m_strPath;
};

} // namespace

TEST(TcpSocketOptions, ReceiveBufferBelowTheMinimumIsCorrected)
{
    const Limits limits("/proc/sys/net/ipv4/tcp_rmem");
    NetPair pair;
    LogCapture log;
    char acLine[200];
    snprintf(acLine, sizeof(acLine),
             "[error] [TcpSocket ] [setOptRcvBuf] tcp socket set recv buffer size error, min:%u "
             "max:%u  invalid:%d, correct to %u\n",
             static_cast<unsigned>(limits.nMinimum), static_cast<unsigned>(limits.nMaximum),
             limits.nMinimum - 1, static_cast<unsigned>(limits.nMinimum));

    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(limits.nMinimum - 1));

    EXPECT_EQ(Lines({acLine}), takeLines(log));
    EXPECT_EQ(receiveBufferFor(limits.nMinimum), receiveBuffer(pair.m_near));
}

TEST(TcpSocketOptions, SendBufferBeyondTheMaximumIsCorrected)
{
    const Limits limits("/proc/sys/net/ipv4/tcp_wmem");
    NetPair pair;
    LogCapture log;
    char acLine[200];
    snprintf(acLine, sizeof(acLine),
             "[error] [TcpSocket ] [setOptSndBuf] tcp socket set send buffer size error, min:%u "
             "max:%u  invalid:%d, correct to %u\n",
             static_cast<unsigned>(limits.nMinimum), static_cast<unsigned>(limits.nMaximum),
             limits.nMaximum + 1, static_cast<unsigned>(limits.nMaximum));

    EXPECT_EQ(0, pair.m_near.setOptSndBuf(limits.nMaximum + 1));

    EXPECT_EQ(Lines({acLine}), takeLines(log));
    EXPECT_EQ(sendBufferFor(limits.nMaximum), sendBuffer(pair.m_near));
}

TEST(TcpSocketOptions, NegativeBufferSizeBecomesTheMinimum)
{
    const Limits limits("/proc/sys/net/ipv4/tcp_wmem");
    NetPair pair;
    LogCapture log;

    EXPECT_EQ(0, pair.m_near.setOptSndBuf(-1));

    EXPECT_EQ(1U, takeLines(log, "  invalid:-1, correct to ").size());
    EXPECT_EQ(sendBufferFor(limits.nMinimum), sendBuffer(pair.m_near));
}

TEST(TcpSocketOptions, BufferSizesAtTheLimitsAreAppliedInSilence)
{
    const Limits receive("/proc/sys/net/ipv4/tcp_rmem");
    const Limits transmit("/proc/sys/net/ipv4/tcp_wmem");
    NetPair pair;
    LogCapture log;

    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(receive.nMinimum));
    EXPECT_EQ(receiveBufferFor(receive.nMinimum), receiveBuffer(pair.m_near));
    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(receive.nMaximum));
    EXPECT_EQ(receiveBufferFor(receive.nMaximum), receiveBuffer(pair.m_near));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(transmit.nMinimum));
    EXPECT_EQ(sendBufferFor(transmit.nMinimum), sendBuffer(pair.m_near));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(transmit.nMaximum));
    EXPECT_EQ(sendBufferFor(transmit.nMaximum), sendBuffer(pair.m_near));

    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocketOptions, DeliberateWithoutReadableLimitsBothSetTheReceiveBuffer)
{
    NetPair pair;
    const int32_t nSendBefore = sendBuffer(pair.m_near);
    LogCapture log;

    FaultScope fault("popen:1-2:EMFILE");
    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(3000)); // below the minimum, taken as it is
    EXPECT_EQ(receiveBufferFor(3000), receiveBuffer(pair.m_near));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(5000)); // the receive buffer
    EXPECT_EQ(2U, faultHits());

    EXPECT_EQ(receiveBufferFor(5000), receiveBuffer(pair.m_near));
    EXPECT_EQ(nSendBefore, sendBuffer(pair.m_near));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocketOptions, DeliberateLimitsWithoutNumbersCountAsUnreadable)
{
    NetPair pair;
    const int32_t nSendBefore = sendBuffer(pair.m_near);
    LogCapture log;
    int32_t nReceive = -1;
    {
        const LimitsAnswer answer("4096 many");
        EXPECT_EQ(0, pair.m_near.setOptRcvBuf(3000)); // below the minimum, taken as it is
        nReceive = receiveBuffer(pair.m_near);
        EXPECT_EQ(0, pair.m_near.setOptSndBuf(5000));
    }

    EXPECT_EQ(receiveBufferFor(3000), nReceive);
    EXPECT_EQ(receiveBufferFor(5000), receiveBuffer(pair.m_near));
    EXPECT_EQ(nSendBefore, sendBuffer(pair.m_near));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocketOptions, LimitsOfTenDigitsAreReadWhole)
{
    NetPair pair;
    LogCapture log;
    const LimitsAnswer answer("1000000000 1500000000 2000000000");

    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(2000000001));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(2000000000));

    EXPECT_EQ(Lines({"[error] [TcpSocket ] [setOptRcvBuf] tcp socket set recv buffer size error, "
                     "min:1000000000 max:2000000000  invalid:2000000001, correct to 2000000000\n"}),
              takeLines(log));
}

TEST(TcpSocketOptions, WithoutLimitsEachSetsItsBuffer)
{
    NetPair pair;
    LogCapture log;

    FaultScope fault("access=/proc/sys/net/ipv4/tcp_:1-2:ENOENT");
    ASSERT_EQ(0, fault.result());
    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(3000));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(5000));
    EXPECT_EQ(2U, faultHits());

    EXPECT_EQ(receiveBufferFor(3000), receiveBuffer(pair.m_near));
    EXPECT_EQ(sendBufferFor(5000), sendBuffer(pair.m_near));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocketOptions, OptionsAreDumpedInOrder)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptReuseAddr(true));
    ASSERT_EQ(0, pair.m_near.setOptLinger(true, 3));
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    ASSERT_EQ(4, send(pair.m_far.getFd(), "abcd", 4, 0));
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    LogCapture log;

    pair.m_near.printCurOpts();

    const std::string strPrefix = "[debug] [TcpSocket ] [printCurOpts] ";
    const auto number = [](int nValue) { return std::to_string(nValue); };
    EXPECT_EQ(
        Lines({strPrefix + "*****************  socket:" + number(pair.m_near.getFd()) +
                   " option display  ***************** \n",
               strPrefix +
                   "* getsockname IP:127.0.0.1 port:" + number(portOf(pair.m_near.getFd())) + " \n",
               strPrefix + "* getpeername IP:127.0.0.1 port:" + number(portOf(pair.m_far.getFd())) +
                   " \n",
               strPrefix + "* bReuse:1 \n", strPrefix + "* bLingerOnOff:1 nLinger:3(s) \n",
               strPrefix + "* nSndTimeO:0(ms)\n", strPrefix + "* nRcvTimeO:0(ms)\n",
               strPrefix + "* nSndBuf:" + number(sendBuffer(pair.m_near)) + " remain:0\n",
               strPrefix + "* nRcvBuf:" + number(receiveBuffer(pair.m_near)) + " remain:4\n",
               strPrefix + "* bBlock:0 \n",
               strPrefix + "************************************************************** \n"}),
        takeLines(log));

    TcpSocket().printCurOpts();
    EXPECT_EQ(Lines(), takeLines(log));
}

// A stream without a network counts what it holds at once.
TEST(TcpSocketOptions, WhatIsNotYetAcknowledgedIsDumped)
{
    int anPair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, anPair));
    TcpSocket sender(anPair[0]);
    TcpSocket receiver(anPair[1]);
    ASSERT_EQ(4, send(sender.getFd(), "abcd", 4, 0));
    int32_t nQueued = 0;
    ASSERT_EQ(0, sender.getSndQueue(nQueued));
    ASSERT_LT(0, nQueued);
    LogCapture log;

    sender.printCurOpts();

    EXPECT_EQ(
        Lines({"[debug] [TcpSocket ] [printCurOpts] * nSndBuf:" +
               std::to_string(sendBuffer(sender)) + " remain:" + std::to_string(nQueued) + "\n"}),
        takeLines(log, "nSndBuf"));
    (void)sender.close();
    (void)receiver.close();
}

// Also in the order of what is logged by the way.
TEST(TcpSocketOptions, OptionsOfAListenerAreDumpedAsTheyAre)
{
    TcpSocket listener;
    ASSERT_EQ(0, listener.create());
    ASSERT_EQ(0, listener.bind("127.0.0.1", 0));
    ASSERT_EQ(0, listener.listen(5));
    LogCapture log;

    listener.printCurOpts();

    const std::string strPrefix = "[debug] [TcpSocket ] [printCurOpts] ";
    const auto number = [](int nValue) { return std::to_string(nValue); };
    EXPECT_EQ(
        Lines({"[error] [Socket ] [getRemoteSockAddr] ENOTCONN The socket is not connected, and no "
               "target has been given.\n",
               strPrefix + "*****************  socket:" + number(listener.getFd()) +
                   " option display  ***************** \n",
               strPrefix + "* getsockname IP:127.0.0.1 port:" + number(portOf(listener.getFd())) +
                   " \n",
               strPrefix + "* getpeername IP: port:0 \n", strPrefix + "* bReuse:0 \n",
               strPrefix + "* bLingerOnOff:0 nLinger:0(s) \n", strPrefix + "* nSndTimeO:0(ms)\n",
               strPrefix + "* nRcvTimeO:0(ms)\n",
               strPrefix + "* nSndBuf:" + number(sendBuffer(listener)) + " remain:0\n",
               strPrefix + "* nRcvBuf:" + number(receiveBuffer(listener)) + " remain:0\n",
               strPrefix + "* bBlock:1 \n",
               strPrefix + "************************************************************** \n"}),
        takeLines(log));
    (void)listener.close();
}

TEST(TcpSocketOptions, OptionThatCantBeReadIsAnAssertion)
{
    // Which of the reads fails, and what the assertion then says.
    const char* const apExpression[] = {
        "0 == getOptReuseAddr\\(bReuse\\)",   "0 == getOptLinger\\(bLingerOnOff, nLinger\\)",
        "0 == getOptSndTimeO\\(nSndTimeO\\)", "0 == getOptRcvTimeO\\(nRcvTimeO\\)",
        "0 == getOptSndBuf\\(nSndBuf\\)",     "0 == getOptRcvBuf\\(nRcvBuf\\)",
    };
    NetPair pair;
    int nRead = 0;
    for (const char* pExpression : apExpression) {
        ++nRead;
        const std::string strPlan = "getsockopt:" + std::to_string(nRead) + ":ENOMEM";
        EXPECT_DEATH(
            {
                (void)faultPlan(strPlan.c_str());
                pair.m_near.printCurOpts();
            },
            std::string("void TcpSocket::printCurOpts\\(\\): Assertion `") + pExpression +
                "' failed");
    }
    EXPECT_DEATH(
        {
            (void)faultPlan("fcntl:1:EBADF");
            pair.m_near.printCurOpts();
        },
        "void TcpSocket::printCurOpts\\(\\): Assertion `0 == getOptBlock\\(bBlock\\)' failed");
}

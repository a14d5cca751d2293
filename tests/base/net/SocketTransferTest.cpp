// Socket: reads and writes, once, exactly and with a time-out.
#include <cerrno>
#include <thread>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ShortSend.h"
#include "Socket.h"
#include "SocketFailure.h"

namespace {

using Lines = std::vector<std::string>;

} // namespace

TEST(SocketTransfer, ReadGivesWhatIsThere)
{
    NetPair pair;
    char acBuffer[8] = {0};
    int nDone = 99;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    LogCapture log;

    EXPECT_EQ(0, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone)); // nothing yet
    EXPECT_EQ(0, nDone);

    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    EXPECT_EQ(0, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone));
    EXPECT_EQ(3, nDone);
    EXPECT_STREQ("abc", acBuffer);

    FaultScope fault(plan("recv", pair.m_near.getFd(), "1", EINTR).c_str());
    EXPECT_EQ(0, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone));
    EXPECT_EQ(0, nDone);
    EXPECT_EQ(1U, faultHits());

    (void)pair.m_far.close();
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    EXPECT_EQ(-1, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketTransfer, ReadETakesExactlyTheLength)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    char acBuffer[8] = {0};
    std::thread peer([&] {
        (void)send(pair.m_far.getFd(), "abc", 3, 0);
        int32_t nQueued = -1;
        // The second part comes when the first has been taken.
        EXPECT_TRUE(eventually([&] {
            return 0 == pair.m_far.getSndQueue(nQueued) && 0 == nQueued &&
                   0 == pair.m_near.getRcvQueue(nQueued) && 0 == nQueued;
        }));
        (void)send(pair.m_far.getFd(), "defg", 4, 0);
    });

    EXPECT_EQ(0, pair.m_near.readE(acBuffer, 6));

    peer.join();
    EXPECT_STREQ("abcdef", acBuffer);
    EXPECT_EQ("g", readBytes(pair.m_near, 1));
}

TEST(SocketTransfer, ReadEWaitsInStepsOfThreeMillisecondsWithoutEnd)
{
    NetPair pair;
    char acBuffer[4] = {0};
    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));
    LogCapture log;
    FaultScope fault(plan("recv", pair.m_near.getFd(), "1-200", EAGAIN).c_str());
    const Time start = monotonicNow();

    EXPECT_EQ(0, pair.m_near.readE(acBuffer, 3));

    EXPECT_EQ(200U, faultHits());
    EXPECT_GE(monotonicNow() - start, Time(0, 600000)); // 200 times 3 ms
    EXPECT_STREQ("abc", acBuffer);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketTransfer, ReadEGoesOnAfterASignalAndEndsWithThePeer)
{
    NetPair pair;
    char acBuffer[8] = {0};
    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));
    LogCapture log;
    {
        FaultScope fault(plan("recv", pair.m_near.getFd(), "1-2", EINTR).c_str());
        EXPECT_EQ(0, pair.m_near.readE(acBuffer, 3));
        EXPECT_EQ(2U, faultHits());
    }
    ASSERT_EQ(2, send(pair.m_far.getFd(), "de", 2, 0));
    (void)pair.m_far.close();

    EXPECT_EQ(-1, pair.m_near.readE(acBuffer, 3));

    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketTransfer, ReadTimeOutGivesUpAfterTheTimeOut)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    ASSERT_EQ(2, send(pair.m_far.getFd(), "ab", 2, 0));
    char acBuffer[8] = {0};
    int nDone = 99;
    LogCapture log;
    const Time start = monotonicNow();

    EXPECT_EQ(-1, pair.m_near.readTimeOut(acBuffer, 4, nDone, nullptr, Time(0, 50000)));

    EXPECT_GE(monotonicNow() - start, Time(0, 50000));
    EXPECT_EQ(2, nDone);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketTransfer, ReadTimeOutCollectsTheLength)
{
    NetPair pair;
    ASSERT_EQ(5, send(pair.m_far.getFd(), "abcde", 5, 0));
    char acBuffer[8] = {0};
    int nDone = 0;
    FaultScope fault((plan("recv", pair.m_near.getFd(), "1", EINTR) + ";" +
                      plan("recv", pair.m_near.getFd(), "1-2", EAGAIN))
                         .c_str());
    const Time start = monotonicNow();

    EXPECT_EQ(0, pair.m_near.readTimeOut(acBuffer, 5, nDone, nullptr, Time(5, 0)));

    EXPECT_GE(monotonicNow() - start, Time(0, 10000)); // twice 5 ms
    EXPECT_EQ(3U, faultHits());
    EXPECT_EQ(5, nDone);
    EXPECT_STREQ("abcde", acBuffer);
}

TEST(SocketTransfer, WriteSendsOnce)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    LogCapture log;
    int nDone = 99;

    EXPECT_EQ(0, pair.m_near.write("abc", 3, nDone));
    EXPECT_EQ(3, nDone);
    EXPECT_EQ("abc", readBytes(pair.m_far, 3));

    EXPECT_EQ(0, pair.m_near.write("abc", 0, nDone));
    EXPECT_EQ(0, nDone);

    (void)fillUp(pair.m_near);
    EXPECT_EQ(0, pair.m_near.write("abc", 3, nDone));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(0, nDone);

    FaultScope fault(plan("send", pair.m_near.getFd(), "1", EINTR).c_str());
    EXPECT_EQ(0, pair.m_near.write("abc", 3, nDone));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0, nDone);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketTransfer, WriteECarriesOnUntilAllIsSent)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    shrinkSendBuffer(pair.m_near);
    std::string strSent(300000, '\0');
    for (size_t i = 0; i < strSent.size(); ++i) {
        strSent[i] = static_cast<char>(i * 31 / 7);
    }
    std::string strGot;
    std::thread peer([&] { strGot = readBytes(pair.m_far, strSent.size()); });

    EXPECT_EQ(0, pair.m_near.writeE(strSent.data(), static_cast<int>(strSent.size())));

    peer.join();
    EXPECT_TRUE(strSent == strGot);
    EXPECT_EQ(0, pair.m_near.writeE("abc", 0));
}

TEST(SocketTransfer, WriteEWaitsInStepsOfThreeMillisecondsWithoutEnd)
{
    NetPair pair;
    LogCapture log;
    FaultScope fault((plan("send", pair.m_near.getFd(), "1", EINTR) + ";" +
                      plan("send", pair.m_near.getFd(), "1-200", EAGAIN))
                         .c_str());
    const Time start = monotonicNow();

    EXPECT_EQ(0, pair.m_near.writeE("abc", 3));

    EXPECT_EQ(201U, faultHits());
    EXPECT_GE(monotonicNow() - start, Time(0, 600000)); // 200 times 3 ms
    EXPECT_EQ("abc", readBytes(pair.m_far, 3));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketTransfer, WriteTimeOutGivesUpAfterTheTimeOut)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    shrinkSendBuffer(pair.m_near);
    const std::string strData(8 * 1024 * 1024, 'x');
    const int nLength = static_cast<int>(strData.size());
    int nDone = 0;
    LogCapture log;
    const Time start = monotonicNow();

    EXPECT_EQ(-1,
              pair.m_near.writeTimeOut(strData.data(), nLength, nDone, nullptr, Time(0, 50000)));

    EXPECT_GE(monotonicNow() - start, Time(0, 50000));
    EXPECT_GT(nDone, 0);
    EXPECT_LT(nDone, nLength);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketTransfer, DatagramsCarryAddresses)
{
    Socket receiver = datagramSocket();
    Socket sender = datagramSocket();
    ASSERT_EQ(0, receiver.bind("127.0.0.1", 0));
    ASSERT_EQ(0, sender.bind("127.0.0.1", 0));
    sockaddr_in to{};
    ASSERT_EQ(0, Socket::toSockAddr("127.0.0.1", portOf(receiver.getFd()), to));
    const uint16_t u16SenderPort = htons(portOf(sender.getFd()));
    char acBuffer[3];
    int nDone = 0;

    ASSERT_EQ(0, sender.write("one", 3, nDone, &to));
    sockaddr_in from{};
    ASSERT_EQ(0, receiver.read(acBuffer, 3, nDone, &from));
    EXPECT_EQ("one", std::string(acBuffer, 3));
    EXPECT_EQ(u16SenderPort, from.sin_port);

    ASSERT_EQ(0, sender.writeE("two", 3, &to));
    from = sockaddr_in{};
    ASSERT_EQ(0, receiver.readE(acBuffer, 3, &from));
    EXPECT_EQ("two", std::string(acBuffer, 3));
    EXPECT_EQ(u16SenderPort, from.sin_port);

    ASSERT_EQ(0, sender.writeTimeOut("six", 3, nDone, &to, Time(1, 0)));
    EXPECT_EQ(3, nDone);
    from = sockaddr_in{};
    ASSERT_EQ(0, receiver.readTimeOut(acBuffer, 3, nDone, &from, Time(1, 0)));
    EXPECT_EQ("six", std::string(acBuffer, 3));
    EXPECT_EQ(u16SenderPort, from.sin_port);
    (void)receiver.close();
    (void)sender.close();
}

// The kernel gives a stream's reader no address.
TEST(SocketTransfer, StreamIsReadAlsoWhenItsSenderIsAskedFor)
{
    NetPair pair;
    char acBuffer[4] = {0};
    int nDone = 0;
    sockaddr_in from{};
    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));

    ASSERT_EQ(0, pair.m_near.read(acBuffer, 3, nDone, &from));

    EXPECT_EQ(3, nDone);
    EXPECT_STREQ("abc", acBuffer);
}

TEST(SocketTransfer, PiecesLeaveInOneCallWithTheFlagsThatAreGiven)
{
    NetPair pair;
    char acText[] = "abcde";
    iovec aPiece[] = {{acText, 2}, {acText + 2, 3}};
    int nDone = 0;
    const ShortSend all(5);

    ASSERT_EQ(0, pair.m_near.write(aPiece, 2, nDone));
    EXPECT_EQ(5, nDone);
    ASSERT_EQ(0, pair.m_near.write(aPiece, 2, nDone, MSG_EOR));

    ASSERT_EQ(2U, all.calls().size());
    EXPECT_EQ(0, all.calls()[0].nFlags) << "none unless told";
    EXPECT_EQ(MSG_EOR, all.calls()[1].nFlags);
    EXPECT_EQ("abcdeabcde", readBytes(pair.m_far, 10));
}

TEST(SocketTransfer, KernelThatTakesNothingOfItsPiecesHasFailed)
{
    NetPair pair;
    LogCapture log;
    char acText[] = "abc";
    iovec piece{acText, 3};
    int nDone = 99;
    const ShortSend nothing(0);

    EXPECT_EQ(-1, pair.m_near.write(&piece, 1, nDone));

    EXPECT_EQ(0, nDone);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketTransfer, WritersTakeTurnsForWholeOperations)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    shrinkSendBuffer(pair.m_near);
    const size_t uBlock = 60000;
    const std::string strA(uBlock, 'a');
    const std::string strB(uBlock, 'b');
    std::thread a([&] { EXPECT_EQ(0, pair.m_near.writeE(strA.data(), uBlock)); });
    std::thread b([&] { EXPECT_EQ(0, pair.m_near.writeE(strB.data(), uBlock)); });

    const std::string strGot = readBytes(pair.m_far, 2 * uBlock);

    a.join();
    b.join();
    EXPECT_TRUE(strA + strB == strGot || strB + strA == strGot);
}

TEST(SocketTransfer, TimeOutRunsWhileAnotherOperationHasTheSocket)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    char cFirst = 'x';
    char cSecond = 'y';
    int nDone = 0;
    const Time timeout(0, 20000);
    struct Case
    {
        const char* pCall;
        std::function<int()> first;
        std::function<int()> second;
    };
    const Case aCase[] = {
        {"recv", [&] { return pair.m_near.readE(&cFirst, 1); },
         [&] { return pair.m_near.readTimeOut(&cSecond, 1, nDone, nullptr, timeout); }},
        {"send", [&] { return pair.m_near.writeE(&cFirst, 1); },
         [&] { return pair.m_near.writeTimeOut(&cSecond, 1, nDone, nullptr, timeout); }},
    };
    for (const Case& entry : aCase) {
        // The first operation holds the socket for 700 steps of 3 ms. The second one finds nothing
        // to do, its time-out over: it must not look again.
        const int nFd = pair.m_near.getFd();
        FaultScope fault((plan(entry.pCall, nFd, "1-700", EAGAIN) + ";" +
                          plan(entry.pCall, nFd, "2", EAGAIN) + ";" +
                          plan(entry.pCall, nFd, "2-", ENOMEM))
                             .c_str());
        std::thread holder([&] { EXPECT_EQ(0, entry.first()); });
        EXPECT_TRUE(eventually([] { return faultHits() > 0; }));

        EXPECT_EQ(-1, entry.second()) << entry.pCall;

        holder.join();
        EXPECT_EQ(701U, faultHits()) << entry.pCall;
        EXPECT_EQ(0, nDone) << entry.pCall;
    }
}

TEST(SocketTransfer, WriteOfNothingSucceedsWhateverFailedBefore)
{
    NetPair pair;
    LogCapture log;
    int nDone = 99;
    errno = EINVAL;

    EXPECT_EQ(0, pair.m_near.write("", 0, nDone));

    EXPECT_EQ(0, nDone);
    EXPECT_EQ(std::vector<std::string>(), takeLines(log));
}

TEST(SocketTransfer, NothingToTransferIsATransferToo)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    char cByte = 0;
    int nDone = 99;
    EXPECT_EQ(-1, pair.m_near.readTimeOut(&cByte, 0, nDone, nullptr, Time(0, 20000)));
    EXPECT_EQ(0, nDone);

    Socket receiver = datagramSocket();
    Socket sender = datagramSocket();
    ASSERT_EQ(0, receiver.bind("127.0.0.1", 0));
    sockaddr_in to{};
    ASSERT_EQ(0, Socket::toSockAddr("127.0.0.1", portOf(receiver.getFd()), to));
    FaultScope fault(plan("sendto", sender.getFd(), "1", EAGAIN).c_str());

    EXPECT_EQ(0, sender.writeE("", 0, &to));

    EXPECT_EQ(1U, faultHits());
    EXPECT_TRUE(receiver.waitReadable(Time(0, 1000))) << "an empty datagram";
    (void)receiver.close();
    (void)sender.close();
}

// SendQueueTcpClient: the queue in front of the write engine, and connections that carry the log.
#include "SendQueueTcpClient.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "ClientMemory.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "QueueClient.h"
#include "ShortSend.h"

namespace {

using Lines = std::vector<std::string>;

} // namespace

TEST(SendQueueTcpClient, SendWritesAtOnceWhenIdle)
{
    NetPair pair;
    QueueClient client(pair);
    EXPECT_EQ(0, client.getQueueLength());
    EXPECT_TRUE(client.isDrained());

    client.sendText("one");
    EXPECT_EQ("one", readBytes(pair.m_far, 3));
    client.sendText("two");
    EXPECT_EQ("two", readBytes(pair.m_far, 3));
    EXPECT_EQ(0, client.getQueueLength());
}

TEST(SendQueueTcpClient, QueueThatCannotGrowEndsTheConnection)
{
    NetPair pair;
    QueueClient client(pair);
    client.sendText(LARGE); // most of it waits
    const SafePointer_C<char> data = block("x");
    {
        FaultScope fault("malloc:1:ENOMEM");
        client.send(data, 1);
        EXPECT_EQ(1u, faultHits());
    }

    EXPECT_LT(readBytes(pair.m_far, LARGE.size()).size(), LARGE.size()) << "the peer sees the end";
    EXPECT_EQ(1, client.write()) << "the reactor ends it";
}

TEST(SendQueueTcpClient, ConstructionAllocatesNothing)
{
    const SendQueueTcpClient first; // the singletons are there
    const unsigned long ulBefore = faultThreadAllocations();

    SendQueueTcpClient client;

    EXPECT_EQ(ulBefore, faultThreadAllocations());
}

TEST(SendQueueTcpClient, WhatWaitsLeavesInOneCall)
{
    NetPair pair;
    QueueClient client(pair);
    SendQueueTcpClient::Item aItem[3];
    const char* const aText[] = {"head", "picture", "boundary"};
    for (int i = 0; i < 3; ++i) {
        aItem[i].data = block(aText[i]);
        aItem[i].nLength = static_cast<int>(strlen(aText[i]));
    }
    FaultScope fault("sendmsg:2-:EPIPE");

    EXPECT_TRUE(client.sendTogether(aItem, 3));

    EXPECT_EQ("headpictureboundary", readBytes(pair.m_far, 19));
    EXPECT_EQ(0U, faultHits()) << "one call";
    EXPECT_TRUE(client.isDrained());
}

TEST(SendQueueTcpClient, ItemsThatCannotAllEnterTheQueueDoNotBegin)
{
    for (const char* pPlan : {"malloc:1:ENOMEM", "malloc:2:ENOMEM", "malloc:3:ENOMEM"}) {
        NetPair pair;
        QueueClient client(pair);
        SendQueueTcpClient::Item aItem[3];
        for (SendQueueTcpClient::Item& item : aItem) {
            item.data = block("x");
            item.nLength = 1;
        }
        {
            FaultScope fault(pPlan);
            EXPECT_FALSE(client.sendTogether(aItem, 3));
        }

        client.sendText("goes on");
        EXPECT_EQ("goes on", readBytes(pair.m_far, 7));
    }
}

TEST(SendQueueTcpClient, BatchThatIsCutAnywhereGoesOnWhereItWas)
{
    const std::string strPiece(12000, 'p'); // a batch is more than the kernel takes
    NetPair pair;
    QueueClient client(pair);
    std::string strExpected;
    client.sendText(std::string(100000, 'x'));
    strExpected += std::string(100000, 'x');
    for (int i = 0; i < 50; ++i) { // three batches and a bit
        const std::string strText = std::to_string(i) + strPiece;
        client.sendText(strText);
        client.send(SafePointer_C<char>(), 10); // passed over
        client.sendText("");
        strExpected += strText;
    }

    std::string strGot;
    while (strGot.size() < strExpected.size()) {
        strGot += readPending(pair.m_far);
        if (pair.m_near.waitWritable(Time(0, 1000))) {
            ASSERT_EQ(0, client.write()); // the out event
        }
    }
    EXPECT_TRUE(strExpected == strGot);
    EXPECT_TRUE(client.isDrained());
}

TEST(SendQueueTcpClient, WhatWaitsIsCountedWithWhatItCosts)
{
    class CountingClient : public QueueClient
    {
    public:
        using QueueClient::QueueClient;
        using SendQueueTcpClient::getWaitingBytes;
    };
    NetPair pair;
    CountingClient client(pair);
    const size_t uFilled = fillUp(pair.m_near);
    client.sendText("first"); // being sent: it waits for the kernel, not in the queue
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();

    client.send(block(std::string(1000, 'x')), 1000);
    client.send(block(std::string(70, 'x')), 70);
    EXPECT_EQ(1070U, client.getWaitingBytes());
    EXPECT_EQ(u32Before + 1070 + 2 * 192, ClientMemory::getInstance().getBytes());

    const void* pData = nullptr;
    int nLength = 0;
    EXPECT_EQ(0, client.getNextBuffer(pData, nLength));
    EXPECT_EQ(70U, client.getWaitingBytes());
    EXPECT_EQ(u32Before + 70 + 192, ClientMemory::getInstance().getBytes());

    EXPECT_EQ(uFilled, readBytes(pair.m_far, uFilled).size());
    ASSERT_TRUE(pair.m_near.waitWritable(Time(30, 0)));
    EXPECT_EQ(0, client.write()); // the out event
    EXPECT_EQ(0U, client.getWaitingBytes());
    EXPECT_TRUE(client.isDrained());
}

TEST(SendQueueTcpClient, SendInterruptedByASignalIsRepeated)
{
    NetPair pair;
    QueueClient client(pair);
    FaultScope fault(faultOnSend(pair, "1", EINTR).c_str());

    client.sendText("data");

    EXPECT_EQ(1U, faultHits());
    EXPECT_TRUE(client.isDrained());
    EXPECT_EQ("data", readBytes(pair.m_far, 4));
}

TEST(SendQueueTcpClient, ItemsOfNoBytesLeaveNothingCounted)
{
    NetPair pair;
    QueueClient client(pair);
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();
    for (int i = 0; i < 3; ++i) {
        SendQueueTcpClient::Item aItem[3];
        aItem[0].nLength = 10; // without a block
        aItem[1].data = block("x");
        aItem[1].nLength = i % 2;
        aItem[2].data = block("");
        EXPECT_TRUE(client.sendTogether(aItem, 3));

        EXPECT_TRUE(client.isDrained());
        EXPECT_EQ(u32Before, ClientMemory::getInstance().getBytes());
    }
    EXPECT_EQ("x", readBytes(pair.m_far, 1));
    EXPECT_TRUE(isSilent(pair.m_far)) << "an item that says nothing of its length has none";
}

TEST(SendQueueTcpClient, EnqueueTellsWhetherTheConnectionGoesOn)
{
    class OpenClient : public QueueClient
    {
    public:
        using QueueClient::QueueClient;
        using SendQueueTcpClient::leave;
        int put(const SafePointer_C<char>& data)
        {
            return enqueue(data, 1);
        }
    };
    const SafePointer_C<char> data = block("x");
    NetPair pair;
    OpenClient client(pair);
    EXPECT_EQ(0, client.put(data));
    {
        FaultScope fault("malloc:1:ENOMEM");
        EXPECT_EQ(1, client.put(data));
    }
    client.leave();
    EXPECT_EQ(1, client.put(data));
    EXPECT_EQ(1, client.getQueueLength());
}

TEST(SendQueueTcpClient, BlockIsFreedOnceItIsWritten)
{
    NetPair pair;
    QueueClient client(pair);
    const size_t uBefore = allocatedBytes();

    client.send(block(std::string(100000, 'x')), 1);

    EXPECT_TRUE(client.isDrained());
    EXPECT_GT(uBefore + 50000, allocatedBytes());
}

TEST(SendQueueTcpClient, BlockOfNoBytesIsFreedAtOnce)
{
    NetPair pair;
    QueueClient client(pair);
    const size_t uBefore = allocatedBytes();

    client.send(block(std::string(100000, 'x')), 0);

    EXPECT_GT(uBefore + 50000, allocatedBytes());
}

TEST(SendQueueTcpClient, HandedBytesAreThoseThatTheKernelHasTaken)
{
    class CountingClient : public QueueClient
    {
    public:
        using QueueClient::QueueClient;
        using SendQueueTcpClient::getHandedBytes;
    };
    NetPair pair;
    CountingClient client(pair);
    EXPECT_EQ(0U, client.getHandedBytes());
    SendQueueTcpClient::Item aItem[3];
    for (SendQueueTcpClient::Item& item : aItem) {
        item.data = block("abc");
        item.nLength = 3;
    }
    {
        const ShortSend shortSend(1);
        EXPECT_TRUE(client.sendTogether(aItem, 3));
    }

    EXPECT_EQ(1U, client.getHandedBytes());
    EXPECT_EQ(0, client.getQueueLength()) << "the batch has begun";
    EXPECT_EQ(0, client.write()); // the out event
    EXPECT_EQ(9U, client.getHandedBytes());
}

TEST(SendQueueTcpClient, BatchThatHasBegunTakesNothingMoreIn)
{
    NetPair pair;
    QueueClient client(pair);
    SendQueueTcpClient::Item aItem[2];
    const char* const aText[] = {"0123456789", "abc"};
    for (int i = 0; i < 2; ++i) {
        aItem[i].data = block(aText[i]);
        aItem[i].nLength = static_cast<int>(strlen(aText[i]));
    }
    const ShortSend shortSend(10); // the first item whole, nothing of the second
    EXPECT_TRUE(client.sendTogether(aItem, 2));
    client.sendText("next");

    EXPECT_EQ(0, client.write()); // the out event

    std::vector<std::vector<size_t>> vecGot;
    for (const ShortSend::Call& call : shortSend.calls()) {
        vecGot.push_back(call.vecLength);
    }
    EXPECT_EQ((std::vector<std::vector<size_t>>{{10, 3}, {3}, {4}}), vecGot);
    EXPECT_EQ("0123456789abcnext", readBytes(pair.m_far, 17));
}

TEST(SendQueueTcpClient, RestOfABatchHoldsWhatIsLeftOfItOnly)
{
    // Cut within an item, behind one, within and behind two, and one byte before the end.
    for (const size_t uMost : {1U, 9U, 10U, 11U, 12U, 13U, 15U}) {
        NetPair pair;
        QueueClient client(pair);
        SendQueueTcpClient::Item aItem[3];
        const char* const aText[] = {"0123456789", "abc", "XYZ"};
        for (int i = 0; i < 3; ++i) {
            aItem[i].data = block(aText[i]);
            aItem[i].nLength = static_cast<int>(strlen(aText[i]));
        }
        std::vector<std::vector<size_t>> vecExpected = {{10, 3, 3}};
        {
            ShortSend shortSend(uMost);
            EXPECT_TRUE(client.sendTogether(aItem, 3));
            for (size_t uDone = uMost; uDone < 16; uDone += uMost) {
                EXPECT_FALSE(client.isDrained());
                ASSERT_EQ(0, client.write()); // the out event
                std::vector<size_t> vecLeft = {3};
                if (uDone < 10) {
                    vecLeft = {10 - uDone, 3, 3};
                } else if (uDone < 13) {
                    vecLeft = {13 - uDone, 3};
                } else {
                    vecLeft = {16 - uDone};
                }
                vecExpected.push_back(vecLeft);
            }

            std::vector<std::vector<size_t>> vecGot;
            for (const ShortSend::Call& call : shortSend.calls()) {
                vecGot.push_back(call.vecLength);
            }
            EXPECT_EQ(vecExpected, vecGot) << uMost;
        }

        EXPECT_TRUE(client.isDrained()) << uMost;
        client.sendText("!");
        EXPECT_EQ("0123456789abcXYZ!", readBytes(pair.m_far, 17)) << uMost;
    }
}

// MSG_EOR has what follows start a segment of its own.
TEST(SendQueueTcpClient, BatchOfFourKilobytesEndsItsSegment)
{
    struct Case
    {
        std::vector<size_t> vecLength;
        int nFlags;
    };
    const Case aCase[] = {
        {{4095}, 0},          {{4096}, MSG_EOR}, {{100, 3995}, 0}, {{100, 3996}, MSG_EOR},
        {{4096, 1}, MSG_EOR},
    };
    for (const Case& entry : aCase) {
        NetPair pair;
        QueueClient client(pair);
        std::vector<SendQueueTcpClient::Item> vecItem;
        size_t uLength = 0;
        for (const size_t u : entry.vecLength) {
            vecItem.push_back({block(std::string(u, 'x')), static_cast<int>(u)});
            uLength += u;
        }
        {
            const ShortSend shortSend(uLength - 1);
            EXPECT_TRUE(client.sendTogether(vecItem.data(), vecItem.size()));
            EXPECT_EQ(0, client.write());

            ASSERT_EQ(2U, shortSend.calls().size());
            EXPECT_EQ(entry.nFlags, shortSend.calls()[0].nFlags) << uLength;
            EXPECT_EQ(entry.nFlags, shortSend.calls()[1].nFlags) << uLength << ", its last byte";
        }
        EXPECT_EQ(uLength, readBytes(pair.m_far, uLength).size());
    }
}

TEST(SendQueueTcpClient, WhatIsBeingSentDoesNotWait)
{
    NetPair pair;
    QueueClient client(pair);
    SendQueueTcpClient::Item aItem[3];
    for (SendQueueTcpClient::Item& item : aItem) {
        item.data = block(LARGE);
        item.nLength = static_cast<int>(LARGE.size());
    }

    EXPECT_TRUE(client.sendTogether(aItem, 3));

    EXPECT_EQ(0, client.getQueueLength());
    EXPECT_FALSE(client.isDrained());
}

TEST(SendQueueTcpClient, BatchThatFindsNoRoomWaitsButForItsFirst)
{
    NetPair pair;
    QueueClient client(pair);
    const size_t uBefore = fillUp(pair.m_near);
    SendQueueTcpClient::Item aItem[3];
    const char* const aText[] = {"head", "picture", "boundary"};
    for (int i = 0; i < 3; ++i) {
        aItem[i].data = block(aText[i]);
        aItem[i].nLength = static_cast<int>(strlen(aText[i]));
    }

    EXPECT_TRUE(client.sendTogether(aItem, 3));
    EXPECT_EQ(2, client.getQueueLength());
    client.sendText("more");
    EXPECT_EQ(3, client.getQueueLength());

    EXPECT_EQ(uBefore, readBytes(pair.m_far, uBefore).size());
    ASSERT_TRUE(pair.m_near.waitWritable(Time(30, 0)));
    FaultScope fault("sendmsg:2-:EPIPE");
    ASSERT_EQ(0, client.write()); // the out event
    EXPECT_EQ("headpictureboundarymore", readBytes(pair.m_far, 23));
    EXPECT_EQ(0U, faultHits()) << "one call";
    EXPECT_EQ(0, client.getQueueLength());
    EXPECT_TRUE(client.isDrained());
}

TEST(SendQueueTcpClient, OnlyTheGivenBytesBehindTheDataOffsetAreSent)
{
    NetPair pair;
    QueueClient client(pair);
    SafePointer_C<char> data = block("headerbody and more");
    data.setDataOffset(6);

    client.send(data, 4);

    client.sendText("!");
    EXPECT_EQ("body!", readBytes(pair.m_far, 5));
}

TEST(SendQueueTcpClient, SendDuringAPartialWriteReturnsAtOnce)
{
    NetPair pair;
    QueueClient client(pair);
    client.sendText(LARGE);
    EXPECT_EQ(0, client.getQueueLength()); // the item being sent does not wait

    client.sendText("one");
    client.sendText("two");
    EXPECT_EQ(2, client.getQueueLength());

    std::string strGot;
    while (strGot.size() < LARGE.size() + 6) {
        const std::string strPiece = readPending(pair.m_far);
        strGot += strPiece;
        if (strPiece.empty() && pair.m_near.waitWritable(Time(0, 1000))) {
            ASSERT_EQ(0, client.write()); // the out event
        }
    }
    EXPECT_TRUE(LARGE + "onetwo" == strGot);
    EXPECT_EQ(0, client.getQueueLength());
}

TEST(SendQueueTcpClient, QueueKeepsTheBlocksAlive)
{
    NetPair pair;
    QueueClient client(pair);
    client.sendText(LARGE);
    {
        const SafePointer_C<char> data = block("kept");
        client.send(data, 4);
    }

    const void* pData = nullptr;
    int nLength = 0;
    EXPECT_EQ(0, client.getNextBuffer(pData, nLength));
    ASSERT_EQ(4, nLength);
    EXPECT_EQ(0, memcmp("kept", pData, 4));

    // An empty queue does not take the current item away.
    const void* pNone = &nLength;
    EXPECT_EQ(0, client.getNextBuffer(pNone, nLength));
    EXPECT_EQ(nullptr, pNone);
    EXPECT_EQ(0, nLength);
    EXPECT_EQ(0, memcmp("kept", pData, 4));
}

TEST(SendQueueTcpClient, NextBufferBeginsAtTheDataOffset)
{
    NetPair pair;
    QueueClient client(pair);
    client.sendText(LARGE); // so that what follows waits
    SafePointer_C<char> data = block("headerbody");
    data.setDataOffset(6);
    client.send(data, 4);
    const void* pData = nullptr;
    int nLength = 0;

    EXPECT_EQ(0, client.getNextBuffer(pData, nLength));

    EXPECT_EQ(data.get() + 6, pData);
    EXPECT_EQ(4, nLength);
}

TEST(SendQueueTcpClient, ItemWithoutABlockIsTakenOutAndGivesNothing)
{
    NetPair pair;
    QueueClient client(pair);
    client.sendText(LARGE); // so that what follows waits
    client.send(SafePointer_C<char>(), 10);
    client.sendText("x");
    ASSERT_EQ(2, client.getQueueLength());
    const void* pData = &client;
    int nLength = 1;

    EXPECT_EQ(0, client.getNextBuffer(pData, nLength));

    EXPECT_EQ(nullptr, pData);
    EXPECT_EQ(0, nLength);
    EXPECT_EQ(1, client.getQueueLength());
}

TEST(SendQueueTcpClient, FailureIsNotReported)
{
    NetPair pair;
    QueueClient client(pair);
    LogCapture log;
    FaultScope fault(faultOnSend(pair, "1-", ECONNRESET).c_str());

    client.sendText("one");
    client.sendText("two");

    EXPECT_EQ(1U, faultHits()); // the connection waits for the reactor to end it
    EXPECT_EQ(Lines({"[error] [Socket ] [write] ECONNRESET:Connection reset by peer.\n"}),
              takeLines(log));
    EXPECT_EQ(1, client.getQueueLength());
}

TEST(SendQueueTcpClient, ManyProducersLoseNothing)
{
    const int nThreads = 4;
    const int nItems = 3000;
    NetPair pair;
    QueueClient client(pair);
    std::atomic<bool> bQuit{false};
    // Out events on another thread, only after the socket has been full, as the reactor gets them.
    const int nEPoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLOUT | EPOLLET;
    ASSERT_EQ(0, epoll_ctl(nEPoll, EPOLL_CTL_ADD, pair.m_near.getFd(), &event));
    std::thread reactor([&] {
        epoll_event ready{};
        while (!bQuit) {
            if (1 == epoll_wait(nEPoll, &ready, 1, 10)) {
                EXPECT_EQ(0, client.write());
            }
        }
    });
    std::vector<std::thread> vecProducer;
    for (int i = 0; i < nThreads; ++i) {
        vecProducer.emplace_back([&client, i] {
            char acText[16];
            for (int j = 0; j < nItems; ++j) {
                snprintf(acText, sizeof(acText), "%d:%05d;", i, j);
                client.sendText(acText);
            }
        });
    }

    const std::string strGot = readBytes(pair.m_far, size_t{8} * nThreads * nItems);

    for (std::thread& producer : vecProducer) {
        producer.join();
    }
    bQuit = true;
    reactor.join();
    ::close(nEPoll);
    std::vector<int> vecNext(nThreads, 0);
    ASSERT_EQ(size_t{8} * nThreads * nItems, strGot.size());
    for (size_t i = 0; i < strGot.size(); i += 8) {
        int nThread = -1;
        int nItem = -1;
        ASSERT_EQ(2, sscanf(strGot.substr(i, 8).c_str(), "%d:%d;", &nThread, &nItem));
        ASSERT_EQ(vecNext[static_cast<size_t>(nThread)]++, nItem);
    }
}

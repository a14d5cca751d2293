// SendQueueTcpClient: the queue in front of the write engine.
#include "SendQueueTcpClient.h"

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <sys/epoll.h>

#include <gtest/gtest.h>

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
    const uint32_t u32Most = 100 * nThreads * nItems; // bytes that all of them cost, and some more
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
            EXPECT_LE(client.getWaitingBytes(), u32Most);
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
    EXPECT_EQ(0U, client.getWaitingBytes());
    std::vector<int> vecNext(nThreads, 0);
    ASSERT_EQ(size_t{8} * nThreads * nItems, strGot.size());
    for (size_t i = 0; i < strGot.size(); i += 8) {
        int nThread = -1;
        int nItem = -1;
        ASSERT_EQ(2, sscanf(strGot.substr(i, 8).c_str(), "%d:%d;", &nThread, &nItem));
        ASSERT_EQ(vecNext[static_cast<size_t>(nThread)]++, nItem);
    }
}

// SendQueueTcpClient: what its items and blocks cost, and when that is free again.
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "ClientMemory.h"
#include "Fault.h"
#include "NetPair.h"
#include "QueueClient.h"
#include "SendQueueTcpClient.h"

TEST(SendQueueTcpClientMemory, QueueThatCannotGrowEndsTheConnection)
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

TEST(SendQueueTcpClientMemory, ConstructionAllocatesNothing)
{
    const SendQueueTcpClient first; // the singletons are there
    const unsigned long ulBefore = faultThreadAllocations();

    SendQueueTcpClient client;

    EXPECT_EQ(ulBefore, faultThreadAllocations());
}

TEST(SendQueueTcpClientMemory, WhatWaitsIsCountedWithWhatItCosts)
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

TEST(SendQueueTcpClientMemory, ItemsOfNoBytesLeaveNothingCounted)
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

TEST(SendQueueTcpClientMemory, BlockIsFreedOnceItIsWritten)
{
    NetPair pair;
    QueueClient client(pair);
    const size_t uBefore = allocatedBytes();

    client.send(block(std::string(100000, 'x')), 1);

    EXPECT_TRUE(client.isDrained());
    EXPECT_GT(uBefore + 50000, allocatedBytes());
}

TEST(SendQueueTcpClientMemory, BlockOfNoBytesIsFreedAtOnce)
{
    NetPair pair;
    QueueClient client(pair);
    const size_t uBefore = allocatedBytes();

    client.send(block(std::string(100000, 'x')), 0);

    EXPECT_GT(uBefore + 50000, allocatedBytes());
}

TEST(SendQueueTcpClientMemory, QueueKeepsTheBlocksAlive)
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

TEST(SendQueueTcpClientMemory, WhatIsSentWhileItIsGivenUpIsNotKept)
{
    const SafePointer_C<char> data = block("x");
    for (int i = 0; i < 200; ++i) {
        SendQueueTcpClient client; // without a socket: what is sent stays in the queue
        SendQueueTcpClient other;
        std::thread sender([&] {
            while (!client.isGivenUp()) {
                client.send(data, 1);
            }
        });
        while (client.getQueueLength() < 10) {
            std::this_thread::yield();
        }

        EXPECT_TRUE(other.take(ClientMemory::MOST_BYTES));

        sender.join();
        ASSERT_EQ(0, client.getQueueLength()) << "in round " << i;
    }
}

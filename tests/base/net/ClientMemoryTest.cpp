// ClientMemory: what is counted, and who is closed when the bound would be crossed.
#include "ClientMemory.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "QueueClient.h"
#include "SendQueueTcpClient.h"
#include "ShortSend.h"
#include "Time.h"

namespace {

const uint32_t MIB = 1024 * 1024;

class TestShare : public ClientMemory::Share
{
public:
    ~TestShare() override
    {
        leave();
    }
    using ClientMemory::Share::leave;

    int m_nGivenUp = 0;

protected:
    void giveUp() override
    {
        EXPECT_TRUE(isGivenUp()) << "by then";
        ++m_nGivenUp;
    }
};

uint32_t counted()
{
    return ClientMemory::getInstance().getBytes();
}

/** Let a millisecond pass. */
void tick()
{
    const uint32_t u32Ms = monotonicMs32();
    while (monotonicMs32() == u32Ms) {
    }
}

} // namespace

TEST(ClientMemory, WhatIsTakenIsCountedUntilItIsGiven)
{
    const uint32_t u32Before = counted();
    {
        TestShare first;
        TestShare second;
        EXPECT_TRUE(first.take(100));
        EXPECT_TRUE(second.take(10));
        EXPECT_TRUE(first.take(1));
        EXPECT_EQ(u32Before + 111, counted());
        first.give(50);
        EXPECT_EQ(u32Before + 61, counted());
    }
    EXPECT_EQ(u32Before, counted());
}

TEST(ClientMemory, BoundIs32MiB)
{
    {
        TestShare share;
        EXPECT_TRUE(share.take(32 * MIB - counted()));

        EXPECT_FALSE(share.take(1));

        EXPECT_EQ(1, share.m_nGivenUp);
        EXPECT_TRUE(share.isGivenUp());
        EXPECT_FALSE(share.take(1)) << "for good";
        share.give(5);
        EXPECT_EQ(0U, counted());
    }
    EXPECT_EQ(0U, counted());
}

TEST(ClientMemory, BlockAsLargeAsTheBoundTakesThePlaceOfAll)
{
    TestShare none;
    TestShare smallest;
    TestShare other;
    TestShare asker;
    EXPECT_TRUE(smallest.take(1));
    EXPECT_TRUE(other.take(MIB));

    EXPECT_TRUE(asker.take(32 * MIB));

    EXPECT_EQ(0, none.m_nGivenUp) << "its end would free nothing";
    EXPECT_EQ(1, smallest.m_nGivenUp);
    EXPECT_EQ(1, other.m_nGivenUp);
    EXPECT_EQ(0, asker.m_nGivenUp);
}

TEST(ClientMemory, WhoBindsMostIsClosedFirst)
{
    TestShare small;
    TestShare large;
    TestShare asker;
    EXPECT_TRUE(small.take(4 * MIB));
    EXPECT_TRUE(large.take(20 * MIB));
    tick();
    large.noteTaken(); // it reads, but it binds most

    EXPECT_TRUE(asker.take(12 * MIB));

    EXPECT_EQ(1, large.m_nGivenUp);
    EXPECT_EQ(0, small.m_nGivenUp);
    EXPECT_EQ(0, asker.m_nGivenUp);
    EXPECT_EQ(16 * MIB, counted());
}

TEST(ClientMemory, TwiceAsMuchIsMoreEvenWhereItIsTaken)
{
    TestShare stalled;
    TestShare reading;
    TestShare asker;
    EXPECT_TRUE(stalled.take(4 * MIB));
    EXPECT_TRUE(reading.take(8 * MIB));
    tick();
    reading.noteTaken();

    EXPECT_TRUE(asker.take(21 * MIB));

    EXPECT_EQ(1, reading.m_nGivenUp);
    EXPECT_EQ(0, stalled.m_nGivenUp);
}

TEST(ClientMemory, OfEqualsTheOneThatHasTakenNothingForLongestIsClosedFirst)
{
    TestShare reading;
    TestShare stalled;
    TestShare asker;
    EXPECT_TRUE(stalled.take(9 * MIB));
    EXPECT_TRUE(reading.take(15 * MIB)); // less than twice as much
    tick();
    reading.noteTaken();
    tick();

    EXPECT_TRUE(asker.take(10 * MIB));

    EXPECT_EQ(1, stalled.m_nGivenUp);
    EXPECT_EQ(0, reading.m_nGivenUp);
}

TEST(ClientMemory, WhoTakesSomethingMeanwhileIsNotTheIdleOne)
{
    for (int i = 0; i < 100; ++i) {
        TestShare stalled;
        TestShare reading;
        std::vector<TestShare> vecOther(20000); // looked at first, so that time passes meanwhile
        TestShare asker;
        EXPECT_TRUE(stalled.take(12 * MIB));
        EXPECT_TRUE(reading.take(12 * MIB));
        tick();
        std::atomic<bool> bEnd{false};
        std::atomic<bool> bNoted{false};
        std::thread reader([&] {
            do {
                reading.noteTaken();
                bNoted = true;
            } while (!bEnd);
        });
        while (!bNoted) {
            std::this_thread::yield();
        }

        EXPECT_TRUE(asker.take(10 * MIB));

        bEnd = true;
        reader.join();
        ASSERT_EQ(0, reading.m_nGivenUp) << "in round " << i;
        ASSERT_EQ(1, stalled.m_nGivenUp);
    }
}

TEST(ClientMemory, AskerIsClosedLast)
{
    TestShare first;
    TestShare second;
    TestShare asker;
    EXPECT_TRUE(first.take(9 * MIB));
    EXPECT_TRUE(second.take(9 * MIB));
    EXPECT_TRUE(asker.take(9 * MIB));

    EXPECT_TRUE(asker.take(20 * MIB));
    EXPECT_EQ(1, first.m_nGivenUp);
    EXPECT_EQ(1, second.m_nGivenUp);
    EXPECT_EQ(0, asker.m_nGivenUp);

    EXPECT_FALSE(asker.take(4 * MIB));
    EXPECT_EQ(1, asker.m_nGivenUp);
}

TEST(ClientMemory, AskerThatAloneBindsMostTakesNobodyWithIt)
{
    TestShare other;
    TestShare asker;
    EXPECT_TRUE(other.take(MIB));
    EXPECT_TRUE(asker.take(30 * MIB));

    EXPECT_FALSE(asker.take(2 * MIB));

    EXPECT_EQ(0, other.m_nGivenUp);
}

TEST(ClientMemory, BlockBeyondTheBoundTakesNobodyWithIt)
{
    TestShare other;
    TestShare asker;
    EXPECT_TRUE(other.take(30 * MIB));

    EXPECT_FALSE(asker.take(33 * MIB));

    EXPECT_EQ(0, other.m_nGivenUp);
    EXPECT_EQ(1, asker.m_nGivenUp);
}

TEST(ClientMemory, WhoHasLeftIsNotClosed)
{
    TestShare gone;
    TestShare asker;
    EXPECT_TRUE(gone.take(30 * MIB));
    gone.leave();
    EXPECT_EQ(0U, counted());

    EXPECT_TRUE(asker.take(20 * MIB));

    EXPECT_EQ(0, gone.m_nGivenUp);
    EXPECT_TRUE(gone.isGivenUp());
    EXPECT_FALSE(gone.take(1)) << "nobody would stop counting it";
    EXPECT_EQ(20 * MIB, counted());
}

TEST(ClientMemory, OldOnesAreFoundOnceTheNewestHasLeft)
{
    TestShare hoarder;
    EXPECT_TRUE(hoarder.take(30 * MIB));
    {
        const TestShare newest;
    }
    TestShare asker;

    EXPECT_TRUE(asker.take(20 * MIB));

    EXPECT_EQ(1, hoarder.m_nGivenUp);
}

TEST(ClientMemory, LeavingTwiceChangesNothingForTheNeighbours)
{
    TestShare hoarder;
    EXPECT_TRUE(hoarder.take(30 * MIB));
    alignas(TestShare) unsigned char aubPlace[sizeof(TestShare)];
    auto* pOlder = new (aubPlace) TestShare;
    TestShare leaving;
    TestShare asker;

    leaving.leave();
    leaving.leave();

    pOlder->~TestShare();
    memset(aubPlace, 0, sizeof(aubPlace)); // who still goes by way of it gets no further
    EXPECT_TRUE(asker.take(20 * MIB));
    EXPECT_EQ(1, hoarder.m_nGivenUp);
}

TEST(ClientMemory, WhoseConstructionFailsIsNotCounted)
{
    class FailingShare : public ClientMemory::Share
    {
    public:
        FailingShare()
        {
            EXPECT_TRUE(take(MIB));
            throw std::bad_alloc();
        }

    protected:
        void giveUp() override {}
    };
    const uint32_t u32Before = counted();

    EXPECT_THROW(FailingShare(), std::bad_alloc);

    EXPECT_EQ(u32Before, counted());
}

TEST(ClientMemory, ConnectionThatIsGivenUpDropsItsQueueAndItsSocket)
{
    LogCapture log;
    class Hoarder : public SendQueueTcpClient
    {
    public:
        using SendQueueTcpClient::getWaitingBytes;
    };
    NetPair hoarding;
    NetPair asking;
    Hoarder hoarder;
    EXPECT_EQ(0, hoarding.m_near.setOptBlock(false));
    EXPECT_EQ(0, asking.m_near.setOptBlock(false));
    hoarder.setSocket(hoarding.m_near);
    char* pLarge = static_cast<char*>(calloc(1, 10 * MIB));
    const SafePointer_C<char> large(pLarge);
    hoarder.send(large, 10 * MIB); // is being sent
    hoarder.send(large, 10 * MIB); // waits
    hoarder.send(large, 10 * MIB);
    ASSERT_EQ(2, hoarder.getQueueLength());
    SendQueueTcpClient asker;
    asker.setSocket(asking.m_near);

    asker.send(large, 3 * MIB);

    EXPECT_EQ(0, hoarder.getQueueLength());
    EXPECT_EQ(0U, hoarder.getWaitingBytes());
    EXPECT_TRUE(hoarder.isGivenUp());
    EXPECT_EQ(-1, send(hoarding.m_near.getFd(), "x", 1, MSG_NOSIGNAL));
    EXPECT_EQ(EPIPE, errno) << "shut down";
    hoarder.send(large, 1);
    EXPECT_EQ(0, hoarder.getQueueLength()) << "it takes nothing more";
    int nFd = hoarding.m_near.getFd();
    TcpClient* pHoarder = &hoarder;
    EPollEvent event(0, &nFd, &pHoarder);
    EXPECT_EQ(1, hoarder.onWrite(event)) << "the reactor ends it";
    EXPECT_EQ("", log.text()) << "and nothing is logged for a socket that was shut down";
    EXPECT_FALSE(asker.isGivenUp());
    EXPECT_LE(counted(), 32 * MIB);
}

TEST(ClientMemory, ConnectionWhoseKernelTakesSomethingIsNotTheIdleOne)
{
    NetPair readingPair;
    NetPair stalledPair;
    QueueClient reading(readingPair);
    tick();
    QueueClient stalled(stalledPair);
    TestShare asker;
    const SafePointer_C<char> large(static_cast<char*>(calloc(1, 12 * MIB)));
    const ShortSend byByte(1);
    reading.send(large, 12 * MIB);
    tick();
    stalled.send(large, 12 * MIB);
    tick();
    EXPECT_EQ(0, reading.write()); // the out event

    EXPECT_TRUE(asker.take(10 * MIB));

    EXPECT_TRUE(stalled.isGivenUp());
    EXPECT_FALSE(reading.isGivenUp());
}

TEST(ClientMemory, ManyThreadsStayInsideTheBound)
{
    std::atomic<bool> bQuit{false};
    std::atomic<uint32_t> u32Highest{0};
    std::vector<std::thread> vecThread;
    for (int i = 0; i < 4; ++i) {
        vecThread.emplace_back([&, i] {
            while (!bQuit) {
                NetPair pair;
                EXPECT_EQ(0, pair.m_near.setOptBlock(false));
                SendQueueTcpClient client;
                client.setSocket(pair.m_near);
                const SafePointer_C<char> data(static_cast<char*>(calloc(1, MIB)));
                for (int n = 0; n < 20 + i; ++n) {
                    client.send(data, MIB);
                    const uint32_t u32Now = counted();
                    if (u32Now > u32Highest) {
                        u32Highest = u32Now;
                    }
                }
            }
        });
    }
    EXPECT_TRUE(eventually([&] { return u32Highest > 30 * MIB; }));
    bQuit = true;
    for (std::thread& thread : vecThread) {
        thread.join();
    }

    EXPECT_LE(u32Highest, 32 * MIB);
    EXPECT_EQ(0U, counted());
}

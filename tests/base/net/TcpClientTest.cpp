// TcpClient: the write engine.
#include "TcpClient.h"

#include <cerrno>
#include <deque>
#include <functional>
#include <string>
#include <thread>

#include <sys/epoll.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"

namespace {

using Lines = std::vector<std::string>;

/** Hands out the buffers of a list; an empty one stands for "none". */
class ScriptedClient : public TcpClient
{
public:
    explicit ScriptedClient(NetPair& pair)
    {
        EXPECT_EQ(0, pair.m_near.setOptBlock(false));
        shrinkSendBuffer(pair.m_near);
        setSocket(pair.m_near);
    }

    int getNextBuffer(const void*& pData, int& nLength) override
    {
        ++m_nCalls;
        pData = nullptr;
        nLength = 0;
        if (m_onNext) {
            m_onNext(m_nCalls);
        }
        if (m_queue.empty()) {
            return m_nResult;
        }
        m_strCurrent = m_queue.front();
        m_queue.pop_front();
        pData = m_strCurrent.data();
        nLength = static_cast<int>(m_strCurrent.size());
        return m_nResult;
    }

    /** What the reactor does when the socket is writable. */
    int write()
    {
        int nFd = m_socket.getFd();
        TcpClient* pThis = this;
        EPollEvent event(EPOLLOUT, &nFd, &pThis);
        return onWrite(event);
    }

    std::deque<std::string> m_queue;
    std::function<void(int)> m_onNext; // gets the number of the call
    int m_nCalls = 0;
    int m_nResult = 0;

private:
    std::string m_strCurrent;
};

std::string faultOnSend(NetPair& pair, const char* pWhich, int nError)
{
    return "send=" + std::to_string(pair.m_near.getFd()) + ":" + pWhich + ":" +
           std::to_string(nError);
}

} // namespace

TEST(TcpClient, BaseDoesNothing)
{
    NetPair pair;
    TcpClient client;
    int nFd = pair.m_near.getFd();
    TcpClient* pClient = &client;
    EPollEvent event(EPOLLIN, &nFd, &pClient);
    const void* pData = &event;
    int nLength = 5;

    EXPECT_EQ(-1, client.getSocket().getFd());
    client.setSocket(pair.m_near);
    EXPECT_EQ(pair.m_near.getFd(), client.getSocket().getFd());
    EXPECT_EQ(0, client.init());
    EXPECT_EQ(0, client.start());
    EXPECT_EQ(0, client.onRead(event));
    EXPECT_EQ(0, client.onWrite(event));
    EXPECT_EQ(0, client.onError(event));
    EXPECT_EQ(0, client.getNextBuffer(pData, nLength));
    EXPECT_EQ(nullptr, pData);
    EXPECT_EQ(0, nLength);
    EXPECT_EQ(0, client.trySend());
    EXPECT_EQ(0, client.stop());
    EXPECT_EQ(0, client.uninit());
}

TEST(TcpClient, BuffersAreSentInOrder)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"one", "two", "six"};

    EXPECT_EQ(0, client.trySend());

    EXPECT_EQ("onetwosix", readBytes(pair.m_far, 9));
    EXPECT_EQ(0, client.trySend()); // idle: it looks for a buffer at once
    client.m_queue = {"!"};
    EXPECT_EQ(0, client.write());
    EXPECT_EQ("!", readBytes(pair.m_far, 1));
}

TEST(TcpClient, BufferOfNoLengthIsPassedOver)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"one", "", "two"};

    EXPECT_EQ(0, client.trySend());

    EXPECT_EQ("onetwo", readBytes(pair.m_far, 6));
}

TEST(TcpClient, PartialWriteIsContinuedByTheNextOutEvent)
{
    NetPair pair;
    ScriptedClient client(pair);
    const std::string strLarge(2 * 1024 * 1024, 'x');
    client.m_queue = {strLarge, "end"};

    EXPECT_EQ(0, client.trySend());
    EXPECT_EQ(1, client.m_nCalls);
    EXPECT_EQ(5, client.trySend()); // in progress

    std::string strGot;
    while (strGot.size() < strLarge.size() + 3) {
        const std::string strPiece = readPending(pair.m_far);
        strGot += strPiece;
        if (strPiece.empty() && pair.m_near.waitWritable(Time(0, 1000))) {
            ASSERT_EQ(0, client.write());
        }
    }
    EXPECT_TRUE(strLarge + "end" == strGot);
    client.m_queue = {"more"};
    EXPECT_EQ(0, client.trySend()); // idle again
    EXPECT_EQ("more", readBytes(pair.m_far, 4));
}

TEST(TcpClient, FullSocketLeavesTheBufferPending)
{
    NetPair pair;
    ScriptedClient client(pair);

    // On a busy machine the kernel may find room for a few bytes more.
    EXPECT_TRUE(eventually([&] {
        (void)fillUp(pair.m_near);
        client.m_queue = {"late"};
        EXPECT_EQ(0, client.trySend());
        return 5 == client.trySend();
    }));

    EXPECT_NE("", readPending(pair.m_far));
    ASSERT_TRUE(pair.m_near.waitWritable(Time(30, 0)));
    EXPECT_EQ(0, client.write());
    EXPECT_EQ(0, client.trySend());
}

TEST(TcpClient, SendInterruptedByASignalIsRepeated)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"data"};
    FaultScope fault(faultOnSend(pair, "1-3", EINTR).c_str());

    EXPECT_EQ(0, client.trySend());

    EXPECT_EQ(3U, faultHits());
    EXPECT_EQ("data", readBytes(pair.m_far, 4)); // no out event was needed
}

TEST(TcpClient, FailedSendEndsTheEngine)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"one", "two"};
    LogCapture log;
    FaultScope fault(faultOnSend(pair, "1", EPIPE).c_str());

    EXPECT_EQ(1, client.trySend());

    EXPECT_EQ(1U, takeLines(log, "[Socket ] [write] EPIPE").size());
    EXPECT_EQ(1U, client.m_queue.size());
    EXPECT_EQ(5, client.trySend()); // still in progress: the reactor ends the connection
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpClient, FailedSendUnlocksTheEngine)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"one"};
    LogCapture log;
    FaultScope fault(faultOnSend(pair, "1", EPIPE).c_str());
    ASSERT_EQ(1, client.trySend());

    int nRet = -1;
    std::thread other([&] { nRet = client.write(); }); // would hang on a lock left behind
    other.join();

    EXPECT_EQ(1, nRet);
}

TEST(TcpClient, DeliberateFailedSendShutsTheConnectionDown)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"one"};
    FaultScope fault(faultOnSend(pair, "1", ENOMEM).c_str()); // the connection as such is sound

    EXPECT_EQ(1, client.trySend());

    EXPECT_EQ("", readBytes(pair.m_far, 1)); // its end, not a time-out:
    EXPECT_TRUE(pair.m_far.waitReadable(Time()));
    EXPECT_TRUE(isOpen(pair.m_near.getFd()));
}

TEST(TcpClient, DeliberateFailingGetNextBufferUnlocksTheEngine)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_nResult = 1;
    client.m_queue = {"lost"};
    ASSERT_EQ(1, client.trySend());

    client.m_nResult = 0;
    client.m_queue = {"sent"};
    int nRet = -1;
    std::thread other([&] { nRet = client.write(); }); // would hang on a lock left behind
    other.join();

    EXPECT_EQ(0, nRet);
    EXPECT_EQ("sent", readBytes(pair.m_far, 4));
}

TEST(TcpClient, WhatIsEnqueuedWhileTheQueueIsFoundEmptyIsSent)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"first"};
    bool bEnqueue = false;
    client.m_onNext = [&](int nCall) {
        if (2 == nCall) {
            EXPECT_TRUE(client.m_queue.empty());
            bEnqueue = true; // comes right after this look
        } else if (3 == nCall && bEnqueue) {
            client.m_queue = {"second"};
        }
    };

    EXPECT_EQ(0, client.trySend());

    EXPECT_TRUE(bEnqueue);
    EXPECT_EQ("firstsecond", readBytes(pair.m_far, 11));
}

TEST(TcpClient, LastLookThatFailsEndsTheEngine)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"first"};
    client.m_onNext = [&](int nCall) { client.m_nResult = (3 == nCall) ? 1 : 0; };

    EXPECT_EQ(1, client.trySend());

    EXPECT_EQ(3, client.m_nCalls);
    EXPECT_EQ("first", readBytes(pair.m_far, 5));
}

TEST(TcpClient, FlagIsSetUntilTheQueueWasFoundEmpty)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"first"};
    int nDuring = -1;
    client.m_onNext = [&](int nCall) {
        if (2 == nCall) {
            // What another thread would be told that enqueues now: the engine takes it along.
            nDuring = client.trySend();
        }
    };

    EXPECT_EQ(0, client.trySend());

    EXPECT_EQ(5, nDuring);
}

TEST(TcpClient, EngineIsNotReenteredOnItsOwnThread)
{
    NetPair pair;
    ScriptedClient client(pair);
    client.m_queue = {"data"};
    int nNested = -1;
    client.m_onNext = [&](int nCall) {
        if (1 == nCall) {
            nNested = client.trySend(); // as a log line from in here would do
        }
    };
    LogCapture log;

    EXPECT_EQ(0, client.trySend());

    EXPECT_EQ(1, nNested);
    EXPECT_EQ(Lines({"[error] [Mutex.cpp ] [lock] mutex lock error !!\n"}), takeLines(log));
    EXPECT_EQ("data", readBytes(pair.m_far, 4));
}

// SendQueueTcpClient: connections that carry the log and fail.
#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "EventBus.h"
#include "Fault.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "NetPair.h"
#include "QueueClient.h"
#include "SendQueueTcpClient.h"

namespace {

using Lines = std::vector<std::string>;

/** A connection that carries the log lines of its own process. */
class LogViewer : public QueueClient
{
public:
    explicit LogViewer(NetPair& pair) : QueueClient(pair)
    {
        EventBus<LogEvent>::subscribe(this, &LogViewer::onLog);
    }
    ~LogViewer() override
    {
        end();
    }
    void end()
    {
        EventBus<LogEvent>::unsubscribe(this, &LogViewer::onLog);
    }

    int onLog(Event* pEvent)
    {
        const auto& event = dynamic_cast<LogEvent&>(*pEvent);
        ++m_nLines;
        send(event.m_text, event.m_s32Length);
        return 0;
    }

    std::atomic<int> m_nLines{0};
};

} // namespace

TEST(SendQueueTcpClientLog, ConnectionThatCarriesTheLogSurvivesItsOwnFailure)
{
    NetPair pair;
    LogCapture log;
    LogViewer viewer(pair);
    FaultScope fault(faultOnSend(pair, "1-", EPIPE).c_str());

    // The line's own delivery fails to send, which is logged from inside the handler.
    Log::getInstance().log("here", 1, "test", 2, "a line\n");

    EXPECT_EQ(1, viewer.m_nLines.load()); // the line about the failure is not delivered to it
    EXPECT_EQ(1U, faultHits());
    const Lines lines = takeLines(log);
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("[error] [here ] [test] a line\n", lines[0]);
    EXPECT_EQ(0U, lines[1].find("[error] [Socket ] [write] EPIPE"));

    // The next line only waits: no second attempt, no third line.
    Log::getInstance().log("here", 1, "test", 2, "another\n");
    EXPECT_EQ(Lines({"[error] [here ] [test] another\n"}), takeLines(log));
    EXPECT_EQ(1, viewer.getQueueLength());
}

TEST(SendQueueTcpClientLog, ReactorsFailingWriteDoesNotReenterTheConnection)
{
    NetPair pair;
    LogViewer viewer(pair);
    viewer.sendText(LARGE); // a write in progress
    LogCapture log;
    FaultScope fault(faultOnSend(pair, "1-", EPIPE).c_str());

    EXPECT_EQ(1, viewer.write()); // logs with the send lock held

    EXPECT_EQ(1U, faultHits());
    EXPECT_EQ(1, viewer.m_nLines.load());
    EXPECT_EQ(1, viewer.getQueueLength()); // the line about it waits behind
    EXPECT_EQ(1U, takeLines(log).size());  // no "mutex lock error !!"
}

TEST(SendQueueTcpClientLog, FailingDirectWriteDoesNotHangTheConnection)
{
    NetPair pair;
    LogViewer viewer(pair);
    LogCapture log;
    int nDone = 0;
    FaultScope fault("send:1:EPIPE");

    EXPECT_EQ(-1, viewer.getSocket().writeTimeOut("x", 1, nDone, nullptr, Time(5, 0)));

    const Lines lines = takeLines(log);
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(lines[0], readBytes(pair.m_far, lines[0].size())); // sent from inside the failure
}

TEST(SendQueueTcpClientLog, TwoLogCarryingConnectionsFailingAtOnceDoNotBlockEachOther)
{
    for (int nRound = 0; nRound < 200; ++nRound) {
        NetPair first;
        NetPair second;
        LogViewer a(first);
        LogViewer b(second);
        FaultScope fault(
            (faultOnSend(first, "1-", EPIPE) + ";" + faultOnSend(second, "1-", EPIPE)).c_str());
        std::thread one([&] { a.sendText("x"); });
        std::thread two([&] { b.sendText("y"); });
        one.join();
        two.join();
        a.end();
        b.end();
        EXPECT_GE(faultHits(), 2U); // a thread that waited for the lock meanwhile tries once more
    }
}

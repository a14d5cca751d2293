// Sinks that log, and settings that change meanwhile.
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "EventBus.h"
#include "Log.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "LogLine.h"
#include "Mutex.h"

// Relocking on purpose.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

TEST(LogSinks, SinkIsNotReenteredByLinesOfItsOwn)
{
    class Sink
    {
    public:
        int onLog(Event*)
        {
            ++m_nCalls;
            MutexGuard guard(m_mtx);
            EXPECT_TRUE(guard.isHeld()); // refused, were this a call inside a call
            if (1 == m_nCalls) {
                LOG_LINE(2, "by the sink\n");
                MutexGuard again(m_mtx); // "mutex lock error !!", logged with the lock held
            }
            return 0;
        }
        int m_nCalls = 0;
        Mutex m_mtx{MUTEX_TYPE_ERRORCHECK};
    };
    Sink sink;
    EventBus<LogEvent>::subscribe(&sink, &Sink::onLog);
    LogCapture others(0);

    LOG_LINE(2, "first\n");
    LOG_LINE(2, "second\n");

    EventBus<LogEvent>::unsubscribe(&sink, &Sink::onLog);
    EXPECT_EQ(2, sink.m_nCalls);
    EXPECT_EQ("by the sink\nmutex lock error !!\nfirst\nsecond\n", others.text());
}

TEST(LogSinks, TwoSinksThatLogDoNotChaseEachOther)
{
    class Sink
    {
    public:
        explicit Sink(const char* pName) : m_pName(pName) {}
        int onLog(Event*)
        {
            ++m_nCalls;
            LOG_LINE(2, "%s\n", m_pName);
            return 0;
        }
        const char* m_pName;
        int m_nCalls = 0;
    };
    LogCapture others(0);
    Sink a("a");
    Sink b("b");
    EventBus<LogEvent>::subscribe(&a, &Sink::onLog);
    EventBus<LogEvent>::subscribe(&b, &Sink::onLog);

    LOG_LINE(2, "line\n");

    EventBus<LogEvent>::unsubscribe(&a, &Sink::onLog);
    EventBus<LogEvent>::unsubscribe(&b, &Sink::onLog);
    // line: a logs "a", which b gets and logs "b" about, which nobody running gets; then b's turn.
    EXPECT_EQ(2, a.m_nCalls);
    EXPECT_EQ(2, b.m_nCalls);
    EXPECT_EQ("line\na\nb\nb\na\n", others.text());
}

TEST(LogSinks, SettingsMayChangeWhileOthersLog)
{
    LogCapture log(0);
    std::vector<std::thread> vecThread;
    for (int i = 0; i < 3; ++i) {
        vecThread.emplace_back([] {
            for (int nLine = 0; nLine < 200; ++nLine) {
                LOG_LINE(2, "line\n");
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        Log::getInstance().setLevel(5).setLayout(0).setSinks(0);
    }
    for (std::thread& thread : vecThread) {
        thread.join();
    }

    EXPECT_EQ(600, log.count("line\n"));
}

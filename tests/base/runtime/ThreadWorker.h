// What the threads under test run.
#pragma once

#include <atomic>
#include <fstream>
#include <string>

#include "Eventually.h"
#include "LogCapture.h"
#include "Thread.h"
#include "Time.h"

const uint32_t BARE_FUNCTION = LOG_LAYOUT_LEVEL | LOG_LAYOUT_FILE | LOG_LAYOUT_FUNCTION;

/** A body that counts its calls and does what the test wants. */
class Worker
{
public:
    virtual ~Worker() = default;

    virtual int run()
    {
        ++m_nCalls;
        m_bInside = true;
        while (m_bHold) {
            sleepFor(Time(0, 1000));
        }
        if (m_bStopItself.exchange(false)) {
            m_pThread->stop();
            m_bResumed = true;
        }
        m_bInside = false;
        sleepFor(Time(0, 200));
        return m_nResult;
    }

    std::atomic<int> m_nCalls{0};
    std::atomic<bool> m_bInside{false};
    std::atomic<bool> m_bHold{false};
    std::atomic<bool> m_bStopItself{false};
    std::atomic<bool> m_bResumed{false};
    std::atomic<int> m_nResult{0};
    Thread* m_pThread = nullptr;
};

inline std::string nameOf(int32_t s32Tid)
{
    std::ifstream file("/proc/self/task/" + std::to_string(s32Tid) + "/comm");
    std::string strName;
    std::getline(file, strName);
    return strName;
}

inline bool waitForCalls(Worker& worker, int nMore)
{
    const int nBefore = worker.m_nCalls;
    return eventually([&] { return worker.m_nCalls >= nBefore + nMore; });
}

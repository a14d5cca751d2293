// Collects the log lines that are published while it lives.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Event.h"
#include "EventBus.h"
#include "Log.h"
#include "LogEvent.h"

/**
 * Switches the console off and the layout to level name, source and function, so that a line reads
 * "[error] [Mutex.cpp ] [lock] mutex lock error !!\n"; puts back what a fresh log has.
 */
class LogCapture
{
public:
    explicit LogCapture(uint32_t u32Layout = LOG_LAYOUT_LEVEL | LOG_LAYOUT_FILE |
                                             LOG_LAYOUT_FUNCTION)
    {
        Log::getInstance().setLevel(8).setLayout(u32Layout).setSinks(0);
        EventBus<LogEvent>::subscribe(this, &LogCapture::onLog);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture()
    {
        EventBus<LogEvent>::unsubscribe(this, &LogCapture::onLog);
        Log::getInstance().setLevel(8).setLayout(127).setSinks(LOG_SINK_CONSOLE);
    }

    /** All lines so far, in order. */
    std::vector<std::string> lines() const
    {
        std::lock_guard<std::mutex> guard(m_mtx);
        return m_vecLine;
    }

    /** All lines so far, in one piece. */
    std::string text() const
    {
        std::string strText;
        for (const std::string& strLine : lines()) {
            strText += strLine;
        }
        return strText;
    }

    /** How many lines equal strLine. */
    int count(const std::string& strLine) const
    {
        int nCount = 0;
        for (const std::string& strOther : lines()) {
            nCount += (strOther == strLine) ? 1 : 0;
        }
        return nCount;
    }

    void clear()
    {
        std::lock_guard<std::mutex> guard(m_mtx);
        m_vecLine.clear();
    }

    int onLog(Event* pEvent)
    {
        const auto& event = dynamic_cast<LogEvent&>(*pEvent);
        std::lock_guard<std::mutex> guard(m_mtx);
        m_vecLine.emplace_back(event.m_text.get(), static_cast<size_t>(event.m_s32Length));
        return 0;
    }

private:
    mutable std::mutex m_mtx; // innermost
    std::vector<std::string> m_vecLine;
};

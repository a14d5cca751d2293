// One log line on its way to the sinks.
#pragma once

#include <cstdint>

#include "Event.h"
#include "SafePointer.h"

/**
 * Published for every line that is written, on the thread that logs.
 *
 * The text is shared: print it by its length, not up to a zero. A line that was cut at its capacity
 * keeps the length that it would have had; the bytes after the cut are zeros, readable like the
 * rest.
 */
class LogEvent : public Event
{
public:
    LogEvent(const SafePointer_C<char>& text, int32_t s32Length, uint32_t u32Level)
        : m_text(text), m_s32Length(s32Length), m_u32Level(u32Level)
    {
    }

    SafePointer_C<char> m_text;
    int32_t m_s32Length;
    uint32_t m_u32Level;
};

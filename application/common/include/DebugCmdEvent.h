// A command typed on the debug console.
#pragma once

#include "Event.h"

/**
 * The words of one console line, at least two.
 *
 * Count and table are the console's and are used again for the next line: a handler uses them
 * before it returns.
 */
class DebugCmdEvent : public Event
{
public:
    DebugCmdEvent(const int* pCount, const char* const* ppWords)
        : m_pCount(pCount), m_ppWords(ppWords)
    {
    }

    const int* m_pCount;
    const char* const* m_ppWords; // zero-terminated words
};

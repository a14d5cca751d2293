// Asks for what the subscribers know while the controller reports itself ready and no job waits.
#pragma once

#include <cstdint>
#include <vector>

#include "Event.h"

/**
 * Published on EventBus<IdlePrintEvent> by the print service. The three results belong to the
 * publisher and are there during publish only; subscribers may fill them.
 */
class IdlePrintEvent : public Event
{
public:
    IdlePrintEvent(std::vector<int32_t>* pValues, int32_t* pArg1, int32_t* pArg2)
        : m_pValues(pValues), m_pArg1(pArg1), m_pArg2(pArg2)
    {
    }

    std::vector<int32_t>* m_pValues; // empty at first
    int32_t* m_pArg1;                // 0 at first
    int32_t* m_pArg2;                // 0 at first
};

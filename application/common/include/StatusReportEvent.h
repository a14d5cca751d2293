// The print service's outward report of the controller's status.
#pragma once

#include <cstdint>

#include "Event.h"

/** Published on EventBus<StatusReportEvent> by the thread that took the controller's reply. */
class StatusReportEvent : public Event
{
public:
    explicit StatusReportEvent(const char* pCode) : m_pCode(pCode) {}

    uint16_t m_nWord0 = 1;  // always 1
    uint16_t m_nWord1 = 2;  // always 2
    int32_t m_nCodeLen = 4; // length of the code
    const char* m_pCode;    // "Wx01" to "Wx04", a constant
};

// A notice as a line for the journal and as an event for the operator.
#pragma once

#include <array>

#include "IGuardActions.h"

/** Allocates nothing: it is made on a line's way. */
class NoticeLine
{
public:
    /** @param eTrip  what a NOTICE_DETAIL belongs to; TRIP_NONE: a line that did not pass */
    NoticeLine(NOTICE_E eNotice, int nDetail, TRIP_E eTrip);

    /** For the journal, without a line end. */
    const char* getText() const
    {
        return m_acText.data();
    }

    /** A line of JSON, with its end. */
    const char* getEvent() const
    {
        return m_acEvent.data();
    }

private:
    void makeDetail(int nDetail, TRIP_E eTrip);

    std::array<char, 96> m_acText{};
    std::array<char, 160> m_acEvent{};
};

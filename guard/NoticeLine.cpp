// A notice as a line for the journal and as an event for the operator.
#include "NoticeLine.h"

#include <cstdio>

#include "GcodeLine.h"
#include "NoticeText.h"

NoticeLine::NoticeLine(NOTICE_E eNotice, int nDetail, TRIP_E eTrip)
{
    const char* const pName = getNoticeName(eNotice); // nothing in it has to be escaped
    if (NOTICE_DETAIL == eNotice) {
        makeDetail(nDetail, eTrip);
    } else if (NOTICE_LEVEL == eNotice) {
        const char* const pLevel = getLevelName(static_cast<LEVEL_E>(nDetail));
        snprintf(m_acText.data(), m_acText.size(), "%s %s", pName, pLevel);
        snprintf(m_acEvent.data(), m_acEvent.size(), "{\"event\":\"%s\",\"level\":\"%s\"}\n", pName,
                 pLevel);
    } else if (0 != nDetail) {
        snprintf(m_acText.data(), m_acText.size(), "%s %d", pName, nDetail);
        snprintf(m_acEvent.data(), m_acEvent.size(), "{\"event\":\"%s\",\"detail\":%d}\n", pName,
                 nDetail);
    } else {
        snprintf(m_acText.data(), m_acText.size(), "%s", pName);
        snprintf(m_acEvent.data(), m_acEvent.size(), "{\"event\":\"%s\"}\n", pName);
    }
}

void NoticeLine::makeDetail(int nDetail, TRIP_E eTrip)
{
    const char* const pTrip = getTripName(eTrip);
    const char* const pFault = getLineFaultName(static_cast<LINE_FAULT_E>(nDetail));
    if (TRIP_NONE == eTrip) {
        snprintf(m_acText.data(), m_acText.size(), "line not passed, %s", pFault);
        snprintf(m_acEvent.data(), m_acEvent.size(), "{\"event\":\"line\",\"fault\":\"%s\"}\n",
                 pFault);
    } else if (TRIP_LINE_BAD == eTrip) {
        snprintf(m_acText.data(), m_acText.size(), "trip: %s, %s", pTrip, pFault);
        snprintf(m_acEvent.data(), m_acEvent.size(),
                 "{\"event\":\"trip\",\"reason\":\"%s\",\"fault\":\"%s\"}\n", pTrip, pFault);
    } else if (0 != nDetail) {
        snprintf(m_acText.data(), m_acText.size(), "trip: %s %d", pTrip, nDetail);
        snprintf(m_acEvent.data(), m_acEvent.size(),
                 "{\"event\":\"trip\",\"reason\":\"%s\",\"code\":%d}\n", pTrip, nDetail);
    } else {
        snprintf(m_acText.data(), m_acText.size(), "trip: %s", pTrip);
        snprintf(m_acEvent.data(), m_acEvent.size(), "{\"event\":\"trip\",\"reason\":\"%s\"}\n",
                 pTrip);
    }
}

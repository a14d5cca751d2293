// The status report of Grbl 1.1, the answer to "?".
#pragma once

#include <cstddef>
#include <string>

#include "Motion.h"

/**
 * Most of it stands in every report; the work offset and the overrides only after a change and once
 * in a number of reports.
 */
class GrblStatusReport
{
public:
    /** What there is to report. */
    struct Status
    {
        std::string strState;
        bool bBusy = false;       // neither idle nor alarm: offset and overrides come more rarely
        unsigned uMask = 0;       // setting $10
        Point machine{};          // position, in millimetres
        Point offset{};           // machine position minus work position
        size_t uBlocks = 0;       // free in the planner
        size_t uBytes = 0;        // free in the receive buffer
        double dFeed = 0;         // mm/min
        double dPower = 0;        // that comes out
        std::string strOverrides; // "100,100,100"
        std::string strOn;        // "S" or "C" for the spindle, "F" for the coolant
    };

    /** "<Idle|MPos:...>\r\n"; counts as a report. */
    std::string format(const Status& status);

    /** The offset has changed: the next report has it. */
    void tellOffset()
    {
        m_nUntilOffset = 0;
    }

    /** The overrides or what is on have changed: the next report without an offset has them. */
    void tellOverrides()
    {
        m_nUntilOverrides = 0;
    }

private:
    int m_nUntilOffset = 0; // reports until WCO comes again
    int m_nUntilOverrides = 0;
};

// The status report of Grbl 1.1, the answer to "?".
#include "GrblStatusReport.h"

#include <algorithm>
#include <cstdio>

#include "GrblText.h"

static const unsigned MASK_MACHINE = 1; // else work positions
static const unsigned MASK_BUFFERS = 2;

std::string GrblStatusReport::format(const Status& status)
{
    const Point work = {status.machine[0] - status.offset[0], status.machine[1] - status.offset[1],
                        status.machine[2] - status.offset[2]};
    const bool bMachine = 0 != (status.uMask & MASK_MACHINE);
    std::string strText = "<" + status.strState + (bMachine ? "|MPos:" : "|WPos:") +
                          formatPoint(bMachine ? status.machine : work);
    if (0 != (status.uMask & MASK_BUFFERS)) {
        strText += "|Bf:" + std::to_string(status.uBlocks) + "," + std::to_string(status.uBytes);
    }
    char acText[60] = {0};
    snprintf(acText, sizeof(acText), "|FS:%.0f,%.0f", status.dFeed, status.dPower);
    strText += acText;
    if (m_nUntilOffset > 0) {
        --m_nUntilOffset;
    } else {
        m_nUntilOffset = status.bBusy ? 29 : 9;
        m_nUntilOverrides = std::max(m_nUntilOverrides, 1); // never both in one report
        strText += "|WCO:" + formatPoint(status.offset);
    }
    if (m_nUntilOverrides > 0) {
        --m_nUntilOverrides;
    } else {
        m_nUntilOverrides = status.bBusy ? 19 : 9;
        strText += "|Ov:" + status.strOverrides;
        strText += status.strOn.empty() ? "" : "|A:" + status.strOn;
    }
    return strText + ">\r\n";
}

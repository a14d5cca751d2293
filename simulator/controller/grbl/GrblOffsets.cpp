// The offsets between machine and work positions in Grbl 1.1, and the two stored positions.
#include "GrblOffsets.h"

#include <cmath>
#include <cstdio>

#include "GrblErrors.h"
#include "GrblText.h"

static const size_t AXIS_Z = 2;

Point GrblOffsets::getOffset(int nSystem) const
{
    Point offset = m_aSystem[static_cast<size_t>(nSystem)];
    for (size_t i = 0; i < offset.size(); ++i) {
        offset[i] += m_shift92[i] + ((AXIS_Z == i) ? m_dToolLength : 0);
    }
    return offset;
}

int GrblOffsets::apply(GrblWords& words, const GrblModes& modes, const Point& position)
{
    switch (words.getNonModal()) {
    case 281:
        m_home28 = position;
        return 0;
    case 301:
        m_home30 = position;
        return 0;
    case 280:
    case 300:
        words.drop(GRBL_AXES);
        return 0;
    case 921:
        m_shift92 = {};
        return 0;
    default:
        return words.hasAxes() ? setAxes(words, modes, position) : GRBL_ERROR_NO_AXES;
    }
}

/** G10 and G92. */
int GrblOffsets::setAxes(GrblWords& words, const GrblModes& modes, const Point& position)
{
    double dL = 0;
    double dP = 0;
    if (100 == words.getNonModal()) {
        if (!words.take('L', dL) || !words.take('P', dP)) {
            return GRBL_ERROR_MISSING_VALUE;
        }
        if (2 != dL && 20 != dL) {
            return GRBL_ERROR_UNSUPPORTED;
        }
        if (dP > SYSTEMS || std::floor(dP) != dP) {
            return GRBL_ERROR_SYSTEM;
        }
    }
    const size_t uSystem =
        (0 == dP) ? static_cast<size_t>(modes.nSystem) : static_cast<size_t>(dP) - 1;
    for (size_t i = 0; i < position.size(); ++i) {
        double dValue = 0;
        if (!words.take(GRBL_AXES[i], dValue)) {
            continue;
        }
        dValue *= modes.getUnit();
        const double dTool = (AXIS_Z == i) ? m_dToolLength : 0;
        if (920 == words.getNonModal()) {
            m_shift92[i] = position[i] - m_aSystem[uSystem][i] - dTool - dValue;
        } else if (20 == dL) {
            m_aSystem[uSystem][i] = position[i] - m_shift92[i] - dTool - dValue;
        } else {
            m_aSystem[uSystem][i] = dValue;
        }
    }
    return 0;
}

void GrblOffsets::reset()
{
    m_shift92 = {};
    m_dToolLength = 0;
}

std::string GrblOffsets::format() const
{
    std::string strResult;
    for (size_t i = 0; i < SYSTEMS; ++i) {
        strResult += "[G" + std::to_string(54 + i) + ":" + formatPoint(m_aSystem[i]) + "]\r\n";
    }
    strResult += "[G28:" + formatPoint(m_home28) + "]\r\n";
    strResult += "[G30:" + formatPoint(m_home30) + "]\r\n";
    strResult += "[G92:" + formatPoint(m_shift92) + "]\r\n";
    char acLength[40] = {0};
    snprintf(acLength, sizeof(acLength), "[TLO:%.3f]\r\n", m_dToolLength);
    return strResult + acLength + "[PRB:0.000,0.000,0.000:0]\r\n";
}

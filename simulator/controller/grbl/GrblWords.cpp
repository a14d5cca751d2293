// The words of a G-code line: read, checked by modal group, taken one by one.
#include "GrblWords.h"

#include <cmath>

#include "DecimalNumber.h"
#include "GrblErrors.h"

GrblWords::GrblWords()
{
    m_anGroup.fill(-1);
}

int GrblWords::read(const std::string& strLine)
{
    size_t uPos = 0;
    while (uPos < strLine.size()) {
        const char cLetter = strLine[uPos++];
        if (cLetter < 'A' || cLetter > 'Z') {
            return GRBL_ERROR_LETTER;
        }
        double dValue = 0;
        if (!takeNumber(strLine, uPos, dValue)) {
            return GRBL_ERROR_NUMBER;
        }
        int nError = 0;
        if ('G' == cLetter) {
            nError = addG(dValue);
        } else if ('M' == cLetter) {
            nError = addM(dValue);
        } else if (std::string::npos == std::string("FIJKLNPRSTXYZ").find(cLetter)) {
            nError = GRBL_ERROR_UNSUPPORTED;
        } else if (!m_mapValue.emplace(cLetter, dValue).second) {
            nError = GRBL_ERROR_REPEATED;
        } else if (dValue < 0 && std::string::npos != std::string("FNPST").find(cLetter)) {
            nError = GRBL_ERROR_NEGATIVE;
        }
        if (0 != nError) {
            return nError;
        }
    }
    return 0;
}

int GrblWords::addG(double dValue)
{
    const double dTenths = dValue * 10;
    if (dTenths < 0 || dTenths > 10000 || std::fabs(dTenths - std::round(dTenths)) > 1e-6) {
        return GRBL_ERROR_UNSUPPORTED;
    }
    const int nTenths = static_cast<int>(std::lround(dTenths));
    size_t uGroup = 0;
    switch (nTenths) {
    case 40:
    case 100:
    case 280:
    case 281:
    case 300:
    case 301:
    case 530:
    case 920:
    case 921:
        if (m_nNonModal >= 0) {
            return GRBL_ERROR_GROUP;
        }
        m_nNonModal = nTenths;
        return 0;
    case 0:
    case 10:
    case 20:
    case 30:
    case 800:
        uGroup = GROUP_MOTION;
        break;
    case 170:
    case 180:
    case 190:
        uGroup = GROUP_PLANE;
        break;
    case 900:
    case 910:
        uGroup = GROUP_DISTANCE;
        break;
    case 911:
        uGroup = GROUP_ARC_DISTANCE;
        break;
    case 930:
    case 940:
        uGroup = GROUP_FEED;
        break;
    case 200:
    case 210:
        uGroup = GROUP_UNITS;
        break;
    case 400:
        uGroup = GROUP_CUTTER;
        break;
    case 431:
    case 490:
        uGroup = GROUP_TOOL_LENGTH;
        break;
    case 540:
    case 550:
    case 560:
    case 570:
    case 580:
    case 590:
        uGroup = GROUP_SYSTEM;
        break;
    case 610:
        uGroup = GROUP_PATH;
        break;
    default:
        return GRBL_ERROR_UNSUPPORTED;
    }
    if (m_anGroup[uGroup] >= 0) {
        return GRBL_ERROR_GROUP;
    }
    m_anGroup[uGroup] = nTenths;
    return 0;
}

int GrblWords::addM(double dValue)
{
    if (std::floor(dValue) != dValue) {
        return GRBL_ERROR_NOT_WHOLE;
    }
    const int nCode = (dValue < 0 || dValue > 999) ? -1 : static_cast<int>(dValue);
    const auto groupOf = [](int nM) {
        return (nM <= 2 || 30 == nM) ? 0 : (nM <= 5) ? 1 : 2; // stopping, spindle, coolant
    };
    switch (nCode) {
    case 0:
    case 1:
    case 2:
    case 30:
    case 3:
    case 4:
    case 5:
    case 8:
    case 9:
        for (const int nFormer : m_vecM) {
            if (groupOf(nFormer) == groupOf(nCode)) {
                return GRBL_ERROR_GROUP;
            }
        }
        m_vecM.push_back(nCode);
        return 0;
    default:
        return GRBL_ERROR_UNSUPPORTED;
    }
}

bool GrblWords::hasOnlyJogModes() const
{
    for (size_t uGroup = 0; uGroup < m_anGroup.size(); ++uGroup) {
        const bool bAllowed = GROUP_DISTANCE == uGroup || GROUP_UNITS == uGroup;
        if (m_anGroup[uGroup] >= 0 && !bAllowed) {
            return false;
        }
    }
    return true;
}

bool GrblWords::hasAxes() const
{
    return has('X') || has('Y') || has('Z');
}

bool GrblWords::get(char cLetter, double& dValue) const
{
    const auto it = m_mapValue.find(cLetter);
    if (m_mapValue.end() == it) {
        return false;
    }
    dValue = it->second;
    return true;
}

bool GrblWords::take(char cLetter, double& dValue)
{
    return get(cLetter, dValue) && 0 != m_mapValue.erase(cLetter);
}

void GrblWords::drop(const std::string& strLetters)
{
    for (const char cLetter : strLetters) {
        m_mapValue.erase(cLetter);
    }
}

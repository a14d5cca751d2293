// What a G-code line means to a controller that speaks Grbl 1.1: modal state in, actions out.
#include "GrblInterpreter.h"

#include <cmath>
#include <cstdio>

#include "DecimalNumber.h"

static const double MM_PER_INCH = 25.4;
static const double PI = 3.14159265358979323846;
static const double SECONDS_PER_MINUTE = 60;

// Codes of "error:N" as published.
static const int ERROR_LETTER = 1;
static const int ERROR_NUMBER = 2;
static const int ERROR_NEGATIVE = 4;
static const int ERROR_JOG = 16;
static const int ERROR_UNSUPPORTED = 20;
static const int ERROR_GROUP = 21;
static const int ERROR_NO_FEED = 22;
static const int ERROR_NOT_WHOLE = 23;
static const int ERROR_TWO_USE_AXES = 24;
static const int ERROR_REPEATED = 25;
static const int ERROR_NO_AXES = 26;
static const int ERROR_MISSING_VALUE = 28;
static const int ERROR_SYSTEM = 29;
static const int ERROR_G53 = 30;
static const int ERROR_AXES_UNUSED = 31;
static const int ERROR_ARC_AXES = 32;
static const int ERROR_TARGET = 33;
static const int ERROR_RADIUS = 34;
static const int ERROR_NO_OFFSETS = 35;
static const int ERROR_UNUSED = 36;
static const int ERROR_TOOL_AXIS = 37;

// Modal groups, as places of anGroup.
static const size_t GROUP_MOTION = 1;
static const size_t GROUP_PLANE = 2;
static const size_t GROUP_DISTANCE = 3;
static const size_t GROUP_ARC_DISTANCE = 4;
static const size_t GROUP_FEED = 5;
static const size_t GROUP_UNITS = 6;
static const size_t GROUP_CUTTER = 7;
static const size_t GROUP_TOOL_LENGTH = 8;
static const size_t GROUP_SYSTEM = 12;
static const size_t GROUP_PATH = 13;

static const char AXES[] = {'X', 'Y', 'Z'};
static const char OFFSETS[] = {'I', 'J', 'K'};

namespace {

std::string formatPoint(const Point& point)
{
    char acText[80] = {0};
    snprintf(acText, sizeof(acText), "%.3f,%.3f,%.3f", point[0], point[1], point[2]);
    return acText;
}

bool hasAxes(const std::map<char, double>& mapValue)
{
    return 0 != mapValue.count('X') + mapValue.count('Y') + mapValue.count('Z');
}

/** A value, removed from the words: what is left over in the end was not used. */
bool takeValue(std::map<char, double>& mapValue, char cLetter, double& dValue)
{
    const auto it = mapValue.find(cLetter);
    if (mapValue.end() == it) {
        return false;
    }
    dValue = it->second;
    mapValue.erase(it);
    return true;
}

} // namespace

int GrblInterpreter::read(const std::string& strLine, Words& words)
{
    words.anGroup.fill(-1);
    size_t uPos = 0;
    while (uPos < strLine.size()) {
        const char cLetter = strLine[uPos++];
        if (cLetter < 'A' || cLetter > 'Z') {
            return ERROR_LETTER;
        }
        double dValue = 0;
        if (!takeNumber(strLine, uPos, dValue)) {
            return ERROR_NUMBER;
        }
        int nError = 0;
        if ('G' == cLetter) {
            const double dTenths = dValue * 10;
            if (dTenths < 0 || dTenths > 10000 || std::fabs(dTenths - std::round(dTenths)) > 1e-6) {
                return ERROR_UNSUPPORTED;
            }
            nError = applyG(static_cast<int>(std::lround(dTenths)), words);
        } else if ('M' == cLetter) {
            if (std::floor(dValue) != dValue) {
                return ERROR_NOT_WHOLE;
            }
            nError = applyM((dValue < 0 || dValue > 999) ? -1 : static_cast<int>(dValue), words);
        } else if (std::string::npos == std::string("FIJKLNPRSTXYZ").find(cLetter)) {
            nError = ERROR_UNSUPPORTED;
        } else if (!words.mapValue.emplace(cLetter, dValue).second) {
            nError = ERROR_REPEATED;
        } else if (dValue < 0 && std::string::npos != std::string("FNPST").find(cLetter)) {
            nError = ERROR_NEGATIVE;
        }
        if (0 != nError) {
            return nError;
        }
    }
    return 0;
}

int GrblInterpreter::applyG(int nTenths, Words& words)
{
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
        if (words.nNonModal >= 0) {
            return ERROR_GROUP;
        }
        words.nNonModal = nTenths;
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
        return ERROR_UNSUPPORTED;
    }
    if (words.anGroup[uGroup] >= 0) {
        return ERROR_GROUP;
    }
    words.anGroup[uGroup] = nTenths;
    return 0;
}

int GrblInterpreter::applyM(int nCode, Words& words)
{
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
        for (const int nFormer : words.vecM) {
            if (groupOf(nFormer) == groupOf(nCode)) {
                return ERROR_GROUP;
            }
        }
        words.vecM.push_back(nCode);
        return 0;
    default:
        return ERROR_UNSUPPORTED;
    }
}

int GrblInterpreter::applyModes(const Words& words, Modes& modes) const
{
    const auto& anGroup = words.anGroup;
    const auto has = [&anGroup](size_t uGroup) { return anGroup[uGroup] >= 0; };
    modes.bInch = has(GROUP_UNITS) ? 200 == anGroup[GROUP_UNITS] : modes.bInch;
    modes.bRelative = has(GROUP_DISTANCE) ? 910 == anGroup[GROUP_DISTANCE] : modes.bRelative;
    modes.nPlane = has(GROUP_PLANE) ? anGroup[GROUP_PLANE] / 10 : modes.nPlane;
    modes.nMotion = has(GROUP_MOTION) ? anGroup[GROUP_MOTION] / 10 : modes.nMotion;
    modes.nSystem = has(GROUP_SYSTEM) ? (anGroup[GROUP_SYSTEM] - 540) / 10 : modes.nSystem;
    if (has(GROUP_FEED)) {
        const bool bInverse = 930 == anGroup[GROUP_FEED];
        modes.dFeed = (bInverse != modes.bInverseTime) ? 0 : modes.dFeed;
        modes.bInverseTime = bInverse;
    }
    if (const auto it = words.mapValue.find('F'); words.mapValue.end() != it) {
        const bool bScale = modes.bInch && !modes.bInverseTime;
        modes.dFeed = it->second * (bScale ? MM_PER_INCH : 1);
    }
    if (const auto it = words.mapValue.find('S'); words.mapValue.end() != it) {
        modes.dPower = it->second;
    }
    if (const auto it = words.mapValue.find('T'); words.mapValue.end() != it) {
        if (std::floor(it->second) != it->second) {
            return ERROR_NOT_WHOLE;
        }
        modes.nTool = static_cast<int>(it->second);
    }
    for (const int nM : words.vecM) {
        if (nM >= 3 && nM <= 5) {
            modes.eSpindle = (3 == nM)   ? SPINDLE_CONSTANT
                             : (4 == nM) ? SPINDLE_DYNAMIC
                                         : SPINDLE_OFF;
        }
        modes.bCoolant = (8 == nM) || (modes.bCoolant && 9 != nM);
    }
    return 0;
}

Point GrblInterpreter::getWorkOffset() const
{
    Point offset = m_offsets.aSystem[static_cast<size_t>(m_modes.nSystem)];
    for (size_t i = 0; i < offset.size(); ++i) {
        offset[i] += m_offsets.shift92[i] + ((2 == i) ? m_offsets.dToolLength : 0);
    }
    return offset;
}

Point GrblInterpreter::getTarget(const Words& words, const Modes& modes, bool bMachine) const
{
    Point target = m_position;
    const Point& system = m_offsets.aSystem[static_cast<size_t>(modes.nSystem)];
    for (size_t i = 0; i < target.size(); ++i) {
        const auto it = words.mapValue.find(AXES[i]);
        if (words.mapValue.end() == it) {
            continue;
        }
        const double dValue = it->second * (modes.bInch ? MM_PER_INCH : 1);
        const double dOffset =
            system[i] + m_offsets.shift92[i] + ((2 == i) ? m_offsets.dToolLength : 0);
        target[i] = bMachine ? dValue : modes.bRelative ? m_position[i] + dValue : dValue + dOffset;
    }
    return target;
}

int GrblInterpreter::interpret(const std::string& strLine, std::vector<GrblAction>& vecAction)
{
    Words words;
    const int nError = read(strLine, words);
    return (0 != nError) ? nError : apply(words, false, vecAction);
}

int GrblInterpreter::interpretJog(const std::string& strLine, std::vector<GrblAction>& vecAction)
{
    Words words;
    if (const int nError = read(strLine, words); 0 != nError) {
        return nError;
    }
    for (size_t uGroup = 0; uGroup < words.anGroup.size(); ++uGroup) {
        const bool bAllowed = GROUP_DISTANCE == uGroup || GROUP_UNITS == uGroup;
        if (words.anGroup[uGroup] >= 0 && !bAllowed) {
            return ERROR_JOG;
        }
    }
    if (!words.vecM.empty() || (words.nNonModal >= 0 && 530 != words.nNonModal)) {
        return ERROR_JOG;
    }
    return apply(words, true, vecAction);
}

int GrblInterpreter::apply(Words& words, bool bJog, std::vector<GrblAction>& vecAction)
{
    std::vector<GrblAction> vecNew;
    Modes modes = m_modes;
    if (bJog) {
        modes.nMotion = 1;
        modes.dFeed = 0;
        modes.bInverseTime = false;
    }
    if (const int nError = applyModes(words, modes); 0 != nError) {
        return nError;
    }
    auto& mapValue = words.mapValue;
    const bool bAxes = hasAxes(mapValue);
    const bool bMachine = 530 == words.nNonModal;
    const bool bOwnAxes = 100 == words.nNonModal || 280 == words.nNonModal ||
                          300 == words.nNonModal || 920 == words.nNonModal ||
                          431 == words.anGroup[GROUP_TOOL_LENGTH];
    if (bOwnAxes && (words.anGroup[GROUP_MOTION] > 0 && words.anGroup[GROUP_MOTION] != 800)) {
        return ERROR_TWO_USE_AXES;
    }
    if (bMachine && 0 != modes.nMotion && 1 != modes.nMotion) {
        return ERROR_G53;
    }
    const bool bMotion = bAxes && !bOwnAxes;
    if (bMotion && 80 == modes.nMotion) {
        return ERROR_AXES_UNUSED;
    }
    if (bJog && !bAxes) {
        return ERROR_NO_AXES;
    }
    if (!bMotion && words.anGroup[GROUP_MOTION] >= 20 && words.anGroup[GROUP_MOTION] <= 30) {
        return ERROR_NO_AXES;
    }
    double dIgnored = 0;
    const Point target = getTarget(words, modes, bMachine);
    for (const char cUsed : {'F', 'S', 'T', 'N'}) {
        (void)takeValue(mapValue, cUsed, dIgnored);
    }
    const Point position = m_position;
    const Offsets offsets = m_offsets;
    if (!bJog) {
        appendSpindle(words, modes, bMotion, vecNew);
    }
    if (modes.bCoolant != m_modes.bCoolant) {
        vecNew.push_back({GRBL_COOLANT, {}, 0, modes.bCoolant});
    }
    int nError = 0;
    if (40 == words.nNonModal) {
        double dSeconds = 0;
        nError = takeValue(mapValue, 'P', dSeconds) ? 0 : ERROR_MISSING_VALUE;
        vecNew.push_back({GRBL_DWELL, {}, dSeconds});
    } else if (words.nNonModal >= 0 && !bMachine) {
        Words rest = words;
        nError = setOffsets(rest, modes, target);
        if (0 == nError && (280 == words.nNonModal || 300 == words.nNonModal)) {
            GrblBlock block;
            block.bRapid = true;
            if (bAxes) {
                block.target = target;
                vecNew.push_back({GRBL_MOVE, block});
            }
            block.target = (280 == words.nNonModal) ? m_offsets.home28 : m_offsets.home30;
            vecNew.push_back({GRBL_MOVE, block});
            m_position = block.target;
        }
        mapValue = rest.mapValue;
    } else if (words.anGroup[GROUP_TOOL_LENGTH] >= 0) {
        const bool bLength = 431 == words.anGroup[GROUP_TOOL_LENGTH];
        double dLength = 0;
        if (bLength && !takeValue(mapValue, 'Z', dLength)) {
            return ERROR_TOOL_AXIS;
        }
        m_offsets.dToolLength = dLength;
    } else if (bMotion) {
        nError = appendMotion(words, modes, target, modes.nMotion, vecNew);
    }
    if (0 == nError && !mapValue.empty()) {
        nError = ERROR_UNUSED;
    }
    if (0 != nError) {
        m_position = position;
        m_offsets = offsets;
        return nError;
    }
    if (!bJog) {
        m_modes = modes;
    }
    for (const int nM : words.vecM) {
        if (0 == nM) {
            vecNew.push_back({GRBL_PAUSE});
        } else if (2 == nM || 30 == nM) {
            vecNew.push_back({GRBL_SYNC});
            vecNew.push_back({GRBL_SPINDLE});
            vecNew.push_back({GRBL_COOLANT});
            vecNew.push_back({GRBL_SAY, {}, 0, false, "[MSG:Pgm End]\r\n"});
            const double dFeed = m_modes.dFeed;
            m_modes = Modes();
            m_modes.nMotion = 1;
            m_modes.dFeed = dFeed;
        }
    }
    vecAction.insert(vecAction.end(), vecNew.begin(), vecNew.end());
    return 0;
}

/**
 * The laser follows the lines that move without a stop; any other change of it waits for the end of
 * all motion.
 */
void GrblInterpreter::appendSpindle(const Words& words, const Modes& modes, bool bMotion,
                                    std::vector<GrblAction>& vecAction) const
{
    const bool bLaser = m_settings.isOn(GrblSettings::LASER_MODE);
    const bool bMode = modes.eSpindle != m_modes.eSpindle;
    const bool bPower = modes.dPower != m_modes.dPower;
    const bool bCuts = modes.nMotion >= 1 && modes.nMotion <= 3;
    const bool bCutBefore = isCutting();
    const bool bInMotion = bLaser && bMotion && !bMode; // the blocks carry it
    const bool bLit = SPINDLE_OFF != modes.eSpindle && bLaser && bCuts != bCutBefore;
    if (!bMode && (bInMotion || (!bPower && !bLit) ||
                   (SPINDLE_OFF == modes.eSpindle && SPINDLE_OFF == m_modes.eSpindle))) {
        return;
    }
    (void)words;
    GrblAction action{GRBL_SPINDLE};
    action.block.eSpindle = modes.eSpindle;
    action.block.dPower = (bLaser && !bCuts) ? 0 : modes.dPower;
    vecAction.push_back(action);
}

int GrblInterpreter::setOffsets(Words& words, const Modes& modes, const Point& target)
{
    const double dUnit = modes.bInch ? MM_PER_INCH : 1;
    const bool bAxes = hasAxes(words.mapValue);
    const auto takeAxes = [&words] {
        double dIgnored = 0;
        for (const char cAxis : AXES) {
            (void)takeValue(words.mapValue, cAxis, dIgnored);
        }
    };
    switch (words.nNonModal) {
    case 281:
        m_offsets.home28 = m_position;
        return 0;
    case 301:
        m_offsets.home30 = m_position;
        return 0;
    case 280:
    case 300:
        takeAxes();
        return 0;
    case 921:
        m_offsets.shift92 = {};
        return 0;
    default:
        break;
    }
    if (!bAxes) {
        return ERROR_NO_AXES;
    }
    double dL = 0;
    double dP = 0;
    if (100 == words.nNonModal) {
        if (!takeValue(words.mapValue, 'L', dL) || !takeValue(words.mapValue, 'P', dP)) {
            return ERROR_MISSING_VALUE;
        }
        if (2 != dL && 20 != dL) {
            return ERROR_UNSUPPORTED;
        }
        if (dP > SYSTEMS || std::floor(dP) != dP) {
            return ERROR_SYSTEM;
        }
    }
    const size_t uSystem =
        (0 == dP) ? static_cast<size_t>(modes.nSystem) : static_cast<size_t>(dP) - 1;
    for (size_t i = 0; i < target.size(); ++i) {
        double dValue = 0;
        if (!takeValue(words.mapValue, AXES[i], dValue)) {
            continue;
        }
        const double dTool = (2 == i) ? m_offsets.dToolLength : 0;
        if (920 == words.nNonModal) {
            m_offsets.shift92[i] =
                m_position[i] - m_offsets.aSystem[uSystem][i] - dTool - dValue * dUnit;
        } else if (20 == dL) {
            m_offsets.aSystem[uSystem][i] =
                m_position[i] - m_offsets.shift92[i] - dTool - dValue * dUnit;
        } else {
            m_offsets.aSystem[uSystem][i] = dValue * dUnit;
        }
    }
    return 0;
}

int GrblInterpreter::appendMotion(Words& words, const Modes& modes, const Point& target,
                                  int nMotion, std::vector<GrblAction>& vecAction)
{
    GrblBlock block;
    block.target = target;
    block.bRapid = 0 == nMotion;
    block.eSpindle = modes.eSpindle;
    block.dPower = block.bRapid ? 0 : modes.dPower;
    if (!block.bRapid && modes.dFeed <= 0) {
        return ERROR_NO_FEED;
    }
    block.dSpeed = modes.dFeed / SECONDS_PER_MINUTE;
    if (modes.bInverseTime) {
        double dSquares = 0;
        for (size_t i = 0; i < target.size(); ++i) {
            dSquares += (target[i] - m_position[i]) * (target[i] - m_position[i]);
        }
        block.dSpeed *= std::sqrt(dSquares);
    }
    const bool bArc = 2 == nMotion || 3 == nMotion;
    if (bArc) {
        if (const int nError = appendArc(words, modes, block, nMotion, vecAction); 0 != nError) {
            return nError;
        }
    } else {
        vecAction.push_back({GRBL_LIMITS, block});
        vecAction.push_back({GRBL_MOVE, block});
    }
    double dIgnored = 0;
    for (const char cAxis : AXES) {
        (void)takeValue(words.mapValue, cAxis, dIgnored);
    }
    m_position = target;
    return 0;
}

int GrblInterpreter::appendArc(Words& words, const Modes& modes, GrblBlock block, int nMotion,
                               std::vector<GrblAction>& vecAction)
{
    const size_t uA = (17 == modes.nPlane) ? 0 : (18 == modes.nPlane) ? 2 : 1;
    const size_t uB = (uA + 1) % 3;
    const size_t uC = (uA + 2) % 3;
    const double dUnit = modes.bInch ? MM_PER_INCH : 1;
    const Point target = block.target;
    const double dX = target[uA] - m_position[uA];
    const double dY = target[uB] - m_position[uB];
    if (0 == words.mapValue.count(AXES[uA]) + words.mapValue.count(AXES[uB])) {
        return ERROR_ARC_AXES;
    }
    double dI = 0;
    double dJ = 0;
    double dR = 0;
    if (takeValue(words.mapValue, 'R', dR)) {
        dR *= dUnit;
        const double dChord = dX * dX + dY * dY;
        const double dHeight = 4 * dR * dR - dChord;
        if (0 == dChord) {
            return ERROR_TARGET;
        }
        if (dHeight < 0) {
            return ERROR_RADIUS;
        }
        double dFactor = -std::sqrt(dHeight / dChord);
        dFactor = ((3 == nMotion) != (dR < 0)) ? -dFactor : dFactor;
        dI = 0.5 * (dX - dY * dFactor);
        dJ = 0.5 * (dY + dX * dFactor);
    } else {
        const bool bI = takeValue(words.mapValue, OFFSETS[uA], dI);
        const bool bJ = takeValue(words.mapValue, OFFSETS[uB], dJ);
        if (!bI && !bJ) {
            return ERROR_NO_OFFSETS;
        }
        dI *= dUnit;
        dJ *= dUnit;
        const double dStart = std::hypot(dI, dJ);
        const double dEnd = std::hypot(dX - dI, dY - dJ);
        if (const double dOff = std::fabs(dStart - dEnd);
            dOff > 0.005 && (dOff > 0.5 || dOff > 0.001 * dStart)) {
            return ERROR_TARGET;
        }
    }
    const double dRadius = std::hypot(dI, dJ);
    const double dFrom = std::atan2(-dJ, -dI);
    double dAngle = std::atan2(dY - dJ, dX - dI) - dFrom;
    if (2 == nMotion && dAngle >= -1e-9) {
        dAngle -= 2 * PI;
    } else if (3 == nMotion && dAngle <= 1e-9) {
        dAngle += 2 * PI;
    }
    const double dTolerance = m_settings.get(GrblSettings::ARC_TOLERANCE);
    const double dSegment = 2 * std::sqrt(std::max(dTolerance * (2 * dRadius - dTolerance), 1e-6));
    const int nSegments =
        std::max(1, static_cast<int>(std::floor(std::fabs(dAngle * dRadius) / dSegment)));
    const Point start = m_position;
    vecAction.push_back({GRBL_LIMITS, block});
    for (int i = 1; i <= nSegments; ++i) {
        const double dShare = static_cast<double>(i) / nSegments;
        const double dAt = dFrom + dAngle * dShare;
        block.target[uA] = start[uA] + dI + dRadius * std::cos(dAt);
        block.target[uB] = start[uB] + dJ + dRadius * std::sin(dAt);
        block.target[uC] = start[uC] + (target[uC] - start[uC]) * dShare;
        if (nSegments == i) {
            block.target = target;
        }
        vecAction.push_back({GRBL_MOVE, block});
    }
    return 0;
}

void GrblInterpreter::reset()
{
    m_modes = Modes();
    m_offsets.shift92 = {};
    m_offsets.dToolLength = 0;
}

void GrblInterpreter::forgetOffsets()
{
    m_offsets = Offsets();
}

std::string GrblInterpreter::formatModes() const
{
    const char* const pSpindle = (SPINDLE_CONSTANT == m_modes.eSpindle)  ? "M3"
                                 : (SPINDLE_DYNAMIC == m_modes.eSpindle) ? "M4"
                                                                         : "M5";
    char acText[120] = {0};
    const double dFeed = m_modes.dFeed / (m_modes.bInch ? MM_PER_INCH : 1);
    snprintf(acText, sizeof(acText), "[GC:G%d G%d G%d G%d G%d G%d %s %s T%d F%.*f S%.0f]\r\n",
             m_modes.nMotion, 54 + m_modes.nSystem, m_modes.nPlane, m_modes.bInch ? 20 : 21,
             m_modes.bRelative ? 91 : 90, m_modes.bInverseTime ? 93 : 94, pSpindle,
             m_modes.bCoolant ? "M8" : "M9", m_modes.nTool, m_modes.bInch ? 1 : 0, dFeed,
             m_modes.dPower);
    return acText;
}

std::string GrblInterpreter::formatOffsets() const
{
    std::string strResult;
    for (size_t i = 0; i < SYSTEMS; ++i) {
        strResult +=
            "[G" + std::to_string(54 + i) + ":" + formatPoint(m_offsets.aSystem[i]) + "]\r\n";
    }
    strResult += "[G28:" + formatPoint(m_offsets.home28) + "]\r\n";
    strResult += "[G30:" + formatPoint(m_offsets.home30) + "]\r\n";
    strResult += "[G92:" + formatPoint(m_offsets.shift92) + "]\r\n";
    char acLength[40] = {0};
    snprintf(acLength, sizeof(acLength), "[TLO:%.3f]\r\n", m_offsets.dToolLength);
    return strResult + acLength + "[PRB:0.000,0.000,0.000:0]\r\n";
}

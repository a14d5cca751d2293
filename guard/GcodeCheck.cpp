// Whether a line of G-code may pass: words, box, feed and power, and how long it takes.
#include "GcodeCheck.h"

#include <algorithm>
#include <cmath>

static const double MM_PER_INCH = 25.4;
static const double BOX_SLACK = 1e-6; // mm: sums of decimal fractions
static const double TAU = 6.283185307179586;

namespace {

bool isListed(int nTenths, const int* pCode, size_t uCount)
{
    return std::find(pCode, pCode + uCount, nTenths) != pCode + uCount;
}

size_t countIn(const GcodeLine& line, int nFirst, int nLast)
{
    size_t uCount = 0;
    for (size_t u = 0; u < line.uG; ++u) {
        uCount += (line.anG[u] >= nFirst && line.anG[u] <= nLast) ? 1 : 0;
    }
    return uCount;
}

bool hasAxis(const GcodeLine& line)
{
    return line.has('X') || line.has('Y') || line.has('Z');
}

/** Whether no two words of a line exclude each other. */
bool isConsistent(const GcodeLine& line)
{
    const size_t uBeam =
        (line.hasM(30) ? 1U : 0U) + (line.hasM(40) ? 1U : 0U) + (line.hasM(50) ? 1U : 0U);
    for (size_t u = 0; u < line.uM; ++u) {
        for (size_t uOther = u + 1; uOther < line.uM; ++uOther) {
            if (line.anM[u] == line.anM[uOther]) {
                return false;
            }
        }
    }
    const size_t uNoMotion = countIn(line, 40, 40) + countIn(line, 920, 929);
    return countIn(line, 0, 30) + uNoMotion <= 1 && countIn(line, 170, 190) <= 1 &&
           countIn(line, 200, 210) <= 1 && countIn(line, 540, 590) <= 1 &&
           countIn(line, 900, 910) <= 1 && uBeam <= 1;
}

} // namespace

GcodeCheck::GcodeCheck(const GuardLimits& limits, const AllowedWords& words, double dPowerUpFeed)
    : m_limits(limits), m_words(words), m_dPowerUpFeed(dPowerUpFeed)
{
    reset();
}

void GcodeCheck::reset()
{
    const std::array<MachinePoint, SYSTEMS> systems =
        m_modal.systems; // kept by the controller, too
    m_modal = {};
    m_modal.systems = systems;
    m_modal.dFeed = m_dPowerUpFeed;
    m_bKnown = false;
}

void GcodeCheck::setPosition(const MachinePoint& position)
{
    m_modal.position = position;
    m_bKnown = true;
}

void GcodeCheck::losePosition()
{
    m_bKnown = false;
}

void GcodeCheck::setSystem(size_t uSystem, const MachinePoint& origin)
{
    m_modal.systems[uSystem] = origin;
}

void GcodeCheck::setShift(const MachinePoint& shift)
{
    m_modal.shift = shift;
}

LINE_FAULT_E GcodeCheck::apply(const GcodeLine& line, bool bBeamAllowed, int64_t& s64DurationUs)
{
    s64DurationUs = 0;
    if (const LINE_FAULT_E eFault = checkWords(line); LINE_GOOD != eFault) {
        return eFault;
    }
    Modal modal = m_modal;
    modal.move = {};
    takeModes(line, modal);
    if (const LINE_FAULT_E eFault = takeValues(line, bBeamAllowed, modal); LINE_GOOD != eFault) {
        return eFault;
    }
    if (line.hasG(40)) {
        s64DurationUs = static_cast<int64_t>(line.get('P') * 1e6);
    }
    if (line.hasG(920)) {
        if (!m_bKnown) {
            return LINE_POSITION;
        }
        const double dUnit = modal.bInches ? MM_PER_INCH : 1;
        for (size_t u = 0; u < 3; ++u) {
            const char cAxis = static_cast<char>('X' + u);
            if (line.has(cAxis)) {
                modal.shift[u] =
                    modal.position[u] - modal.systems[modal.uSystem][u] - line.get(cAxis) * dUnit;
            }
        }
    } else if (hasAxis(line)) {
        const LINE_FAULT_E eFault = takeMotion(line, modal, s64DurationUs);
        if (LINE_GOOD != eFault) {
            return eFault;
        }
    }
    m_modal = modal;
    return LINE_GOOD;
}

LINE_FAULT_E GcodeCheck::applyMove(const GcodeLine& line, int64_t& s64DurationUs)
{
    s64DurationUs = 0;
    if (!m_bKnown) {
        return LINE_POSITION;
    }
    if (m_modal.bRelative || m_modal.bInches) {
        return LINE_FORBIDDEN;
    }
    const double dFeed = line.get('F');
    if (!line.has('F') || !(dFeed > 0 && dFeed <= m_limits.dMaxFeed)) {
        return LINE_FEED;
    }
    MachinePoint target = m_modal.position;
    double dSquare = 0;
    for (size_t u = 0; u < 3; ++u) {
        const char cAxis = static_cast<char>('X' + u);
        target[u] = line.has(cAxis) ? line.get(cAxis) : target[u];
        dSquare += (target[u] - m_modal.position[u]) * (target[u] - m_modal.position[u]);
    }
    if (!isInBox(target)) {
        return LINE_BOX;
    }
    s64DurationUs = estimateUs(std::sqrt(dSquare), dFeed);
    m_modal.position = target;
    m_modal.nMotion = 1;
    m_modal.dFeed = dFeed;
    return LINE_GOOD;
}

LINE_FAULT_E GcodeCheck::checkWords(const GcodeLine& line) const
{
    static const char* const LETTERS = "FIJNPRSXYZ";
    uint32_t u32Known = 0;
    for (const char* p = LETTERS; '\0' != *p; ++p) {
        u32Known |= 1U << static_cast<unsigned>(*p - 'A');
    }
    if (0 != (line.u32Has & ~u32Known)) {
        return LINE_FORBIDDEN;
    }
    for (size_t u = 0; u < line.uG; ++u) {
        if (!isListed(line.anG[u], m_words.pG, m_words.uG)) {
            return LINE_FORBIDDEN;
        }
    }
    for (size_t u = 0; u < line.uM; ++u) {
        if (!isListed(line.anM[u], m_words.pM, m_words.uM)) {
            return LINE_FORBIDDEN;
        }
    }
    if (!isConsistent(line) || (line.hasG(40) && hasAxis(line))) {
        return LINE_TWICE;
    }
    const bool bArc = line.has('I') || line.has('J') || line.has('R');
    const int nMotion = line.hasG(20) || line.hasG(30) ? 2 : m_modal.nMotion;
    const bool bOther = line.hasG(0) || line.hasG(10) || line.hasG(40) || line.hasG(920);
    if (bArc && (bOther || nMotion < 2 || !hasAxis(line))) {
        return LINE_ARC; // a full circle has to name its end, too
    }
    const bool bDwell = line.hasG(40);
    if (bDwell != line.has('P') || (bDwell && line.get('P') < 0)) {
        return LINE_WORD;
    }
    return LINE_GOOD;
}

void GcodeCheck::takeModes(const GcodeLine& line, Modal& modal)
{
    for (size_t u = 0; u < line.uG; ++u) {
        const int nTenths = line.anG[u];
        if (nTenths <= 30) {
            modal.nMotion = nTenths / 10;
        } else if (200 == nTenths || 210 == nTenths) {
            modal.bInches = 200 == nTenths;
        } else if (900 == nTenths || 910 == nTenths) {
            modal.bRelative = 910 == nTenths;
        } else if (nTenths >= 540 && nTenths <= 590) {
            modal.uSystem = static_cast<size_t>(nTenths - 540) / 10;
        }
    }
}

LINE_FAULT_E GcodeCheck::takeValues(const GcodeLine& line, bool bBeamAllowed, Modal& modal) const
{
    if (line.has('F')) {
        modal.dFeed = line.get('F') * (modal.bInches ? MM_PER_INCH : 1);
        if (!(modal.dFeed > 0 && modal.dFeed <= m_limits.dMaxFeed)) {
            return LINE_FEED;
        }
    }
    if (line.has('S')) {
        modal.dPower = line.get('S');
        if (!(modal.dPower >= 0 && modal.dPower <= m_limits.dMaxPower)) {
            return LINE_POWER;
        }
    }
    const bool bOn = line.hasM(30) || line.hasM(40);
    if (!bBeamAllowed && (bOn || (line.has('S') && line.get('S') > 0))) {
        return LINE_LASER;
    }
    if (m_words.bEndTakesModesBack && (line.hasM(20) || line.hasM(300))) {
        modal.uSystem = 0;
        modal.bRelative = false;
        modal.nMotion = 1;
    }
    return LINE_GOOD;
}

LINE_FAULT_E GcodeCheck::takeMotion(const GcodeLine& line, Modal& modal,
                                    int64_t& s64DurationUs) const
{
    if (!m_bKnown) {
        return LINE_POSITION;
    }
    const bool bRapid = 0 == modal.nMotion && m_limits.dRapidFeed > 0;
    const double dFeed = bRapid ? m_limits.dRapidFeed : modal.dFeed;
    if (!(dFeed > 0)) {
        return LINE_FEED;
    }
    const MachinePoint target = findTarget(line, modal);
    if (!isInBox(target)) {
        return LINE_BOX;
    }
    GcodeMove move;
    move.from = modal.position;
    move.to = target;
    move.nMotion = modal.nMotion;
    move.dFeed = dFeed;
    move.dLength = std::sqrt(std::pow(target[0] - modal.position[0], 2) +
                             std::pow(target[1] - modal.position[1], 2) +
                             std::pow(target[2] - modal.position[2], 2));
    if (modal.nMotion >= 2) {
        if (const LINE_FAULT_E eFault = takeArc(line, modal, move); LINE_GOOD != eFault) {
            return eFault;
        }
    }
    s64DurationUs = estimateUs(move.dLength, dFeed);
    modal.position = target;
    modal.move = move;
    return LINE_GOOD;
}

MachinePoint GcodeCheck::findTarget(const GcodeLine& line, const Modal& modal) const
{
    const double dUnit = modal.bInches ? MM_PER_INCH : 1;
    MachinePoint target = modal.position;
    for (size_t u = 0; u < 3; ++u) {
        const char cAxis = static_cast<char>('X' + u);
        if (line.has(cAxis)) {
            const double dOrigin = modal.bRelative
                                       ? modal.position[u]
                                       : modal.systems[modal.uSystem][u] + modal.shift[u];
            target[u] = dOrigin + line.get(cAxis) * dUnit;
        }
    }
    return target;
}

LINE_FAULT_E GcodeCheck::takeArc(const GcodeLine& line, const Modal& modal, GcodeMove& move) const
{
    const MachinePoint& target = move.to;
    const double dUnit = modal.bInches ? MM_PER_INCH : 1;
    const bool bClockwise = 2 == modal.nMotion;
    const double dX = target[0] - modal.position[0];
    const double dY = target[1] - modal.position[1];
    double dI = line.get('I') * dUnit;
    double dJ = line.get('J') * dUnit;
    if (line.has('R')) {
        const double dChord = std::hypot(dX, dY);
        const double dR = line.get('R') * dUnit;
        const double dHeight = dR * dR - dChord * dChord / 4;
        if (line.has('I') || line.has('J') || !(dChord > 0) || dHeight < 0) {
            return LINE_ARC;
        }
        // The centre lies beside the chord's middle; a negative radius means the longer way.
        const double dSide = ((dR < 0) == bClockwise ? 1 : -1) * std::sqrt(dHeight) / dChord;
        dI = dX / 2 - dSide * dY;
        dJ = dY / 2 + dSide * dX;
    }
    const double dRadius = std::hypot(dI, dJ);
    const double dMiss = std::fabs(std::hypot(dX - dI, dY - dJ) - dRadius);
    if (!(dRadius > 0) || dMiss > std::max(0.005, 0.001 * dRadius)) { // mm; Grbl 1.1 allows as much
        return LINE_ARC;
    }
    const double dStart = std::atan2(-dJ, -dI);
    double dTravel = std::atan2(dY - dJ, dX - dI) - dStart; // counterclockwise, 0 to TAU
    dTravel = bClockwise ? -dTravel : dTravel;
    dTravel = std::fmod(dTravel + 2 * TAU, TAU);
    if (dTravel < 5e-7) { // rad; ends where it began: a whole circle
        dTravel = TAU;
    }
    for (int nQuarter = 0; nQuarter < 4; ++nQuarter) {
        const double dAngle = nQuarter * TAU / 4;
        const double dWay = bClockwise ? dStart - dAngle : dAngle - dStart;
        if (std::fmod(dWay + 2 * TAU, TAU) <= dTravel) {
            MachinePoint extreme = target;
            extreme[0] = modal.position[0] + dI + dRadius * std::cos(dAngle);
            extreme[1] = modal.position[1] + dJ + dRadius * std::sin(dAngle);
            if (!isInBox(extreme)) {
                return LINE_BOX;
            }
        }
    }
    move.dCentreX = modal.position[0] + dI;
    move.dCentreY = modal.position[1] + dJ;
    move.dRadius = dRadius;
    move.dStart = dStart;
    move.dTravel = dTravel;
    move.dLength = std::hypot(dRadius * dTravel, target[2] - modal.position[2]);
    return LINE_GOOD;
}

bool GcodeCheck::isInBox(const MachinePoint& point) const
{
    for (size_t u = 0; u < 3; ++u) {
        if (!(point[u] >= m_limits.minimum[u] - BOX_SLACK &&
              point[u] <= m_limits.maximum[u] + BOX_SLACK)) {
            return false;
        }
    }
    return true;
}

/** Every move from rest to rest: the longest that it can take. */
int64_t GcodeCheck::estimateUs(double dLength, double dFeed) const
{
    const double dSpeed = dFeed / 60;
    const double dRamps = (m_limits.dAcceleration > 0) ? dSpeed / m_limits.dAcceleration : 0;
    return static_cast<int64_t>((dLength / dSpeed + dRamps) * 1e6);
}

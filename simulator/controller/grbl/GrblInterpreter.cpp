// What a G-code line means to a controller that speaks Grbl 1.1: modal state in, actions out.
#include "GrblInterpreter.h"

#include <cmath>

#include "GrblArc.h"
#include "GrblErrors.h"

static const double SECONDS_PER_MINUTE = 60;

namespace {

/** Whether the axis words belong to something else than a motion. */
bool usesAxesOtherwise(const GrblWords& words)
{
    const int nNonModal = words.getNonModal();
    return 100 == nNonModal || 280 == nNonModal || 300 == nNonModal || 920 == nNonModal ||
           431 == words.getG(GrblWords::GROUP_TOOL_LENGTH);
}

bool isMotion(const GrblWords& words)
{
    return words.hasAxes() && !usesAxesOtherwise(words);
}

/** G53: axis words are machine positions. */
bool isMachine(const GrblWords& words)
{
    return 530 == words.getNonModal();
}

/** @return 0 or the code of "error:N" of what cannot be in one line */
int checkAxes(const GrblWords& words, const GrblModes& modes, bool bJog)
{
    const int nMotion = words.getG(GrblWords::GROUP_MOTION);
    if (usesAxesOtherwise(words) && nMotion > 0 && nMotion != 800) {
        return GRBL_ERROR_TWO_USE_AXES;
    }
    if (isMachine(words) && 0 != modes.nMotion && 1 != modes.nMotion) {
        return GRBL_ERROR_G53;
    }
    if (isMotion(words) && 80 == modes.nMotion) {
        return GRBL_ERROR_AXES_UNUSED;
    }
    if (bJog && !words.hasAxes()) {
        return GRBL_ERROR_NO_AXES;
    }
    const bool bArc = nMotion >= 20 && nMotion <= 30;
    return (bArc && !isMotion(words)) ? GRBL_ERROR_NO_AXES : 0;
}

} // namespace

int GrblInterpreter::interpret(const std::string& strLine, std::vector<GrblAction>& vecAction)
{
    GrblWords words;
    const int nError = words.read(strLine);
    return (0 != nError) ? nError : apply(words, false, vecAction);
}

int GrblInterpreter::interpretJog(const std::string& strLine, std::vector<GrblAction>& vecAction)
{
    GrblWords words;
    if (const int nError = words.read(strLine); 0 != nError) {
        return nError;
    }
    const bool bNonModal = words.getNonModal() >= 0 && !isMachine(words);
    if (!words.hasOnlyJogModes() || !words.getM().empty() || bNonModal) {
        return GRBL_ERROR_JOG;
    }
    return apply(words, true, vecAction);
}

int GrblInterpreter::apply(GrblWords& words, bool bJog, std::vector<GrblAction>& vecAction)
{
    GrblModes modes = m_modes;
    if (bJog) {
        modes.nMotion = 1;
        modes.dFeed = 0;
        modes.bInverseTime = false;
    }
    if (const int nError = modes.apply(words); 0 != nError) {
        return nError;
    }
    if (const int nError = checkAxes(words, modes, bJog); 0 != nError) {
        return nError;
    }
    words.drop("FSTN");
    const Point position = m_position;
    const GrblOffsets offsets = m_offsets;
    std::vector<GrblAction> vecNew;
    if (!bJog) {
        appendSpindle(modes, isMotion(words), vecNew);
    }
    if (modes.bCoolant != m_modes.bCoolant) {
        vecNew.push_back({GRBL_COOLANT, {}, 0, modes.bCoolant});
    }
    int nError = carryOut(words, modes, vecNew);
    if (0 == nError && !words.isEmpty()) {
        nError = GRBL_ERROR_UNUSED;
    }
    if (0 != nError) {
        m_position = position;
        m_offsets = offsets;
        return nError;
    }
    if (!bJog) {
        m_modes = modes;
    }
    appendEnd(words, vecNew);
    vecAction.insert(vecAction.end(), vecNew.begin(), vecNew.end());
    return 0;
}

/** What the line does besides its modes: a dwell, offsets or a motion. */
int GrblInterpreter::carryOut(GrblWords& words, const GrblModes& modes,
                              std::vector<GrblAction>& vecAction)
{
    const Point target = getTarget(words, modes);
    if (40 == words.getNonModal()) {
        double dSeconds = 0;
        const bool bTime = words.take('P', dSeconds);
        vecAction.push_back({GRBL_DWELL, {}, dSeconds});
        return bTime ? 0 : GRBL_ERROR_MISSING_VALUE;
    }
    if (words.getNonModal() >= 0 && !isMachine(words)) {
        const bool bAxes = words.hasAxes();
        const int nError = m_offsets.apply(words, modes, m_position);
        if (0 == nError) {
            appendHome(words, bAxes, target, vecAction);
        }
        return nError;
    }
    if (words.hasG(GrblWords::GROUP_TOOL_LENGTH)) {
        const bool bLength = 431 == words.getG(GrblWords::GROUP_TOOL_LENGTH);
        double dLength = 0; // G49
        if (bLength && !words.take('Z', dLength)) {
            return GRBL_ERROR_TOOL_AXIS;
        }
        m_offsets.setToolLength(dLength);
        return 0;
    }
    return isMotion(words) ? appendMotion(words, modes, target, vecAction) : 0;
}

Point GrblInterpreter::getTarget(const GrblWords& words, const GrblModes& modes) const
{
    Point target = m_position;
    const Point offset = m_offsets.getOffset(modes.nSystem);
    for (size_t i = 0; i < target.size(); ++i) {
        double dValue = 0;
        if (!words.get(GRBL_AXES[i], dValue)) {
            continue;
        }
        dValue *= modes.getUnit();
        target[i] = isMachine(words)  ? dValue
                    : modes.bRelative ? m_position[i] + dValue
                                      : dValue + offset[i];
    }
    return target;
}

/**
 * The laser follows the lines that move without a stop; any other change of it waits for the end of
 * all motion.
 */
void GrblInterpreter::appendSpindle(const GrblModes& modes, bool bMotion,
                                    std::vector<GrblAction>& vecAction) const
{
    const bool bLaser = m_settings.isOn(GrblSettings::LASER_MODE);
    const bool bMode = modes.eSpindle != m_modes.eSpindle;
    const bool bPower = modes.dPower != m_modes.dPower;
    const bool bInMotion = bLaser && bMotion && !bMode; // the blocks carry it
    const bool bLit =
        SPINDLE_OFF != modes.eSpindle && bLaser && modes.isCutting() != m_modes.isCutting();
    if (!bMode && (bInMotion || (!bPower && !bLit) ||
                   (SPINDLE_OFF == modes.eSpindle && SPINDLE_OFF == m_modes.eSpindle))) {
        return;
    }
    GrblAction action{GRBL_SPINDLE};
    action.block.eSpindle = modes.eSpindle;
    action.block.dPower = (bLaser && !modes.isCutting()) ? 0 : modes.dPower;
    vecAction.push_back(action);
}

/** G28 and G30: to the target where the line has axis words, then to the stored position. */
void GrblInterpreter::appendHome(const GrblWords& words, bool bAxes, const Point& target,
                                 std::vector<GrblAction>& vecAction)
{
    if (280 != words.getNonModal() && 300 != words.getNonModal()) {
        return;
    }
    GrblBlock block;
    block.bRapid = true;
    if (bAxes) {
        block.target = target;
        vecAction.push_back({GRBL_MOVE, block});
    }
    block.target = (280 == words.getNonModal()) ? m_offsets.getHome28() : m_offsets.getHome30();
    vecAction.push_back({GRBL_MOVE, block});
    m_position = block.target;
}

int GrblInterpreter::appendMotion(GrblWords& words, const GrblModes& modes, const Point& target,
                                  std::vector<GrblAction>& vecAction)
{
    GrblBlock block;
    block.target = target;
    block.bRapid = 0 == modes.nMotion;
    block.eSpindle = modes.eSpindle;
    block.dPower = block.bRapid ? 0 : modes.dPower;
    if (!block.bRapid && modes.dFeed <= 0) {
        return GRBL_ERROR_NO_FEED;
    }
    block.dSpeed = modes.dFeed / SECONDS_PER_MINUTE;
    if (modes.bInverseTime) {
        double dSquares = 0;
        for (size_t i = 0; i < target.size(); ++i) {
            dSquares += (target[i] - m_position[i]) * (target[i] - m_position[i]);
        }
        block.dSpeed *= std::sqrt(dSquares);
    }
    std::vector<Point> vecEnd{target};
    if (2 == modes.nMotion || 3 == modes.nMotion) {
        GrblArc arc(m_position, target, modes);
        if (const int nError = arc.read(words); 0 != nError) {
            return nError;
        }
        vecEnd = arc.divide(m_settings.get(GrblSettings::ARC_TOLERANCE));
    }
    vecAction.push_back({GRBL_LIMITS, block});
    for (const Point& end : vecEnd) {
        block.target = end;
        vecAction.push_back({GRBL_MOVE, block});
    }
    words.drop(GRBL_AXES);
    m_position = target;
    return 0;
}

/** M0, M2 and M30, once the line's other words have been carried out. */
void GrblInterpreter::appendEnd(const GrblWords& words, std::vector<GrblAction>& vecAction)
{
    for (const int nM : words.getM()) {
        if (0 == nM) {
            vecAction.push_back({GRBL_PAUSE});
        } else if (2 == nM || 30 == nM) {
            vecAction.push_back({GRBL_SYNC});
            vecAction.push_back({GRBL_SPINDLE});
            vecAction.push_back({GRBL_COOLANT});
            vecAction.push_back({GRBL_SAY, {}, 0, false, "[MSG:Pgm End]\r\n"});
            m_modes.endProgram();
        }
    }
}

void GrblInterpreter::reset()
{
    m_modes = GrblModes();
    m_offsets.reset();
}

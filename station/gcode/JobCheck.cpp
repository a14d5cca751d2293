// Looks through a whole job before it is opened: what the guard would refuse, and what it comes to.
#include "JobCheck.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

#include <sha256.h>

#include "LineMend.h"
#include "MotionTime.h"

static const size_t EXCERPT = 60;
static const double QUARTER = 1.5707963267948966;

namespace {

std::string sumUp(const std::string& strText)
{
    std::array<char, SHA256_DIGEST_STRING_LENGTH> acSum{};
    return SHA256_Data(reinterpret_cast<const uint8_t*>(strText.data()), strText.size(),
                       acSum.data());
}

/** One look through a job. */
class JobPass
{
public:
    JobPass(const GuardLimits& limits, const ILanguage& language, const GcodeCheck& check,
            const JobCheck::MoveHandler& handler)
        : m_check(check), m_handler(handler), m_time(limits.dAcceleration, limits.dRapidFeed),
          m_bProgramEndIsDark(language.needsLaserMode())
    {
    }

    void run(const std::string& strText, std::string* pMended);

    JobReport m_report;

private:
    LINE_FAULT_E apply(const std::string& strLine);
    void follow(const GcodeLine& line);
    void takeMove(const GcodeMove& move);
    void widen(const MachinePoint& point);
    void widenByArc(const GcodeMove& move);
    void add(const JobFinding& finding);

    GcodeCheck m_check;
    const JobCheck::MoveHandler& m_handler;
    MotionTime m_time;
    bool m_bProgramEndIsDark;
    int m_nBeam = 0; // 3, 4: switched on by M3, M4
    bool m_bCoolant = false;
    bool m_bCutting = false; // G1 to G3 is modal
    double m_dPower = 0;
};

LINE_FAULT_E JobPass::apply(const std::string& strLine)
{
    if (strLine.size() > JobCheck::MAX_LINE) {
        return LINE_LONG;
    }
    GcodeLine line;
    LINE_FAULT_E eFault = parseGcode(strLine.data(), strLine.size(), line);
    if (LINE_GOOD == eFault) {
        int64_t s64DurationUs = 0;
        eFault = m_check.apply(line, true, s64DurationUs);
    }
    if (LINE_GOOD == eFault) {
        follow(line);
    }
    return eFault;
}

/** Beam, stops and lengths behind a line that passes. */
void JobPass::follow(const GcodeLine& line)
{
    const bool bEnd = line.hasM(20) || line.hasM(300);
    const int nFormerBeam = m_nBeam;
    const bool bFormerCutting = m_bCutting;
    const bool bFormerCoolant = m_bCoolant;
    if (line.hasM(30) || line.hasM(40)) {
        m_nBeam = line.hasM(30) ? 3 : 4;
    } else if (line.hasM(50)) {
        m_nBeam = 0;
    }
    if (line.hasM(70) || line.hasM(80)) {
        m_bCoolant = true;
    } else if (line.hasM(90)) {
        m_bCoolant = false;
    }
    if (line.hasG(0)) {
        m_bCutting = false;
    } else if (line.hasG(10) || line.hasG(20) || line.hasG(30)) {
        m_bCutting = true;
    }
    // Beam and power change on the way where a move carries them; else all motion ends first.
    const GcodeMove& move = m_check.getMove();
    const bool bLight = m_check.getPower() != m_dPower || bFormerCutting != m_bCutting;
    if (nFormerBeam != m_nBeam || bFormerCoolant != m_bCoolant ||
        (0 != m_nBeam && bLight && !(move.dLength > 0))) {
        m_time.stop(0);
    }
    m_dPower = m_check.getPower();
    if (0 != m_nBeam) {
        m_report.dMaxPower = std::max(m_report.dMaxPower, m_dPower);
    }
    if (line.hasG(40)) {
        m_time.stop(line.get('P'));
    }
    if (move.dLength > 0) {
        takeMove(move);
    }
    if (bEnd) {
        m_time.stop(0);
        m_bCutting = true;
        m_nBeam = m_bProgramEndIsDark ? 0 : m_nBeam;
    }
}

void JobPass::takeMove(const GcodeMove& move)
{
    if (!m_report.bMoves) {
        m_report.bMoves = true;
        m_report.minimum = move.from;
        m_report.maximum = move.from;
    }
    widen(move.to);
    if (move.nMotion >= 2) {
        widenByArc(move);
    }
    const bool bLit = 0 != m_nBeam && m_dPower > 0;
    m_report.dPath += move.dLength;
    MOVE_BEAM_E eBeam = MOVE_DARK;
    if (0 == move.nMotion) {
        m_report.dLitTravel += bLit ? move.dLength : 0;
        eBeam = bLit ? MOVE_LIT_TRAVEL : MOVE_DARK;
    } else {
        m_report.dBurn += bLit ? move.dLength : 0;
        m_report.dMaxFeed = std::max(m_report.dMaxFeed, move.dFeed);
        eBeam = bLit ? MOVE_BURN : MOVE_DARK;
    }
    m_time.add(move);
    if (m_handler) {
        m_handler(move, eBeam);
    }
}

void JobPass::widen(const MachinePoint& point)
{
    for (size_t u = 0; u < point.size(); ++u) {
        m_report.minimum[u] = std::min(m_report.minimum[u], point[u]);
        m_report.maximum[u] = std::max(m_report.maximum[u], point[u]);
    }
}

void JobPass::widenByArc(const GcodeMove& move)
{
    for (int n = 0; n < 4; ++n) {
        const double dWay = (n * QUARTER - move.dStart) * ((2 == move.nMotion) ? -1 : 1);
        if (std::fmod(dWay + 8 * QUARTER, 4 * QUARTER) <= move.dTravel) {
            widen({move.dCentreX + move.dRadius * std::cos(n * QUARTER),
                   move.dCentreY + move.dRadius * std::sin(n * QUARTER), move.to[2]});
        }
    }
}

void JobPass::add(const JobFinding& finding)
{
    ++m_report.mapReason[finding.pReason];
    m_report.uRefused += finding.bRefused ? 1 : 0;
    m_report.uMendable += (finding.bRefused && finding.bMendable) ? 1 : 0;
    if (m_report.vecFinding.size() < JobCheck::MAX_FINDINGS) {
        m_report.vecFinding.push_back(finding);
    }
}

void JobPass::run(const std::string& strText, std::string* pMended)
{
    for (size_t uPlace = 0; uPlace < strText.size();) {
        const size_t uFound = strText.find('\n', uPlace);
        const size_t uEnd = (std::string::npos == uFound) ? strText.size() : uFound;
        std::string strLine = strText.substr(uPlace, uEnd - uPlace);
        uPlace = uEnd + 1;
        ++m_report.uLines;
        if (const LINE_FAULT_E eFault = apply(strLine); LINE_GOOD != eFault) {
            const std::string strMended = mendLine(strLine);
            const bool bMendable = strMended != strLine && LINE_GOOD == apply(strMended);
            add({m_report.uLines, getLineFaultName(eFault), true, bMendable,
                 strLine.substr(0, EXCERPT)});
            strLine = bMendable ? strMended : strLine;
        }
        if (nullptr != pMended) {
            *pMended += strLine + "\n";
        }
    }
    if (!strText.empty() && '\n' != strText.back()) {
        // The service waits for more, and the job never ends.
        add({m_report.uLines, "last line without a line end", true, true, ""});
    }
    if (0 != m_nBeam) {
        add({m_report.uLines, "beam left on at the end", false, true, ""});
        if (nullptr != pMended) {
            *pMended += "M5\n";
        }
    }
    m_report.dSeconds = m_time.finish();
}

} // namespace

JobCheck::JobCheck(const GuardLimits& limits, const ILanguage& language)
    : m_limits(limits), m_language(language)
{
}

void JobCheck::setStart(const MachinePoint& start)
{
    m_start = start;
}

void JobCheck::setSystem(size_t uSystem, const MachinePoint& origin)
{
    m_aSystem[uSystem] = origin;
}

void JobCheck::onMove(MoveHandler handler)
{
    m_handler = std::move(handler);
}

JobReport JobCheck::check(const std::string& strText, std::string* pMended) const
{
    GcodeCheck check(m_limits, m_language.getWords(), m_language.getPowerUpFeed());
    check.setPosition(m_start);
    for (size_t u = 0; u < m_aSystem.size(); ++u) {
        check.setSystem(u, m_aSystem[u]);
    }
    JobPass pass(m_limits, m_language, check, m_handler);
    if (strText.empty() || strText.size() > MAX_SIZE) {
        const char* const pReason = strText.empty() ? "empty" : "over 32 MiB";
        pass.m_report.vecFinding.push_back({0, pReason, true, false, ""});
        pass.m_report.mapReason[pReason] = 1;
        pass.m_report.uRefused = 1;
        return pass.m_report;
    }
    pass.m_report.uSize = strText.size();
    pass.m_report.strSum = sumUp(strText);
    pass.run(strText, pMended);
    return pass.m_report;
}

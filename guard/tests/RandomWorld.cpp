// What an interlock lives among: a service, an operator and a controller that do anything.
#include "RandomWorld.h"

#include <array>
#include <cstdio>
#include <utility>

#include "DeskLimits.h"

namespace {

const char* const LONG_LINE = "G4P9";
const int64_t LONG_US = 9000000;

/** Neighbours are equal by twos; one takes longer than the service waits for the answer behind it.
 */
std::string makeLine(size_t uIndex)
{
    if (0 == uIndex % 40) {
        return "M3S500";
    }
    if (30 == uIndex) {
        return LONG_LINE;
    }
    std::array<char, 32> acLine{};
    snprintf(acLine.data(), acLine.size(), "G1X%.3fF6000", static_cast<double>(uIndex / 2) / 1000);
    return acLine.data();
}

} // namespace

RandomWorld::RandomWorld(const ILanguage& language, unsigned uSeed)
    : m_language(language), m_interlock(language, deskLimits(), *this), m_random(uSeed)
{
    for (size_t u = 0; u < JOB_LINES; ++u) {
        m_vecLine.push_back(makeLine(u));
        m_strJob += m_vecLine.back() + "\n";
    }
}

bool RandomWorld::isJobLine(const std::string& strLine) const
{
    return ("G1X" == strLine.substr(0, 3) && "G1X5F100" != strLine) || "M3S500" == strLine ||
           LONG_LINE == strLine;
}

void RandomWorld::toController(const char* pBytes, size_t uLength)
{
    const std::string strText(pBytes, uLength);
    if ("?" == strText) {
        ++m_uQuestions;
        return;
    }
    const bool bQuestion = "$$\n" == strText || "$#\n" == strText;
    if (m_bTripped && !bQuestion && "M5\n" != strText) {
        complain("after a trip: " + strText);
    }
    if (!m_interlock.isBeamSeenOff()) {
        complain("before the beam was seen off: " + strText);
    }
    if ("!" == strText || "~" == strText) {
        m_bHeld = "!" == strText;
        return;
    }
    const std::string strLine = strText.substr(0, uLength - 1);
    if (isJobLine(strLine)) {
        ++m_u64Lines;
        if (LEVEL_JOB != m_interlock.getLevel()) {
            complain("outside a job: " + strLine);
        }
        size_t uUnanswered = 0;
        for (const std::string& strWaiting : m_deqLine) {
            uUnanswered += isJobLine(strWaiting) ? 1 : 0;
        }
        if (0 != uUnanswered || m_uTaken >= m_vecLine.size() || strLine != m_vecLine[m_uTaken]) {
            complain("out of order or twice: " + strLine);
        }
    }
    m_deqLine.push_back(strLine);
}

void RandomWorld::cutBeam(const char* /*pBytes*/, size_t /*uLength*/)
{
    m_deqLine.clear();
    m_bBeam = false;
    m_bHeld = false;
    m_bGreet = true;
    m_s64BusyUs = 0;
    m_bOwes = false;
    m_uQuestions = 0;
}

void RandomWorld::toService(const char* pBytes, size_t uLength)
{
    const std::string strText(pBytes, uLength);
    if ('\n' != strText.back()) {
        complain("no whole line: " + strText);
    }
    if ("error:2\n" == strText || "error:9\n" == strText) {
        complain("a lock code");
    }
    if (std::string::npos != strText.find("status:1") && "status:1\n" != strText) {
        complain("a hold together with something");
    }
    if (m_bWaiting && std::string::npos != strText.find("ok\n") && m_uNext < m_vecLine.size()) {
        ++m_uNext;
    }
    m_bWaiting = false;
    m_bTold = "wait\n" == strText;
}

void RandomWorld::tell(NOTICE_E eNotice, int nDetail)
{
    if (NOTICE_TRIP == eNotice) {
        ++m_u64Trips;
        m_bTripped = true;
        m_bPaused = false;
    } else if (NOTICE_JOB_DONE == eNotice) {
        ++m_u64JobsDone;
        if (static_cast<size_t>(nDetail) != m_vecLine.size() || m_uTaken != m_vecLine.size()) {
            complain("ended before its end");
        }
    }
}

void RandomWorld::stepService()
{
    if (LEVEL_JOB != m_interlock.getLevel() || m_bWaiting) {
        return;
    }
    m_bWaiting = true;
    m_u64Repeats += std::exchange(m_bTold, false) ? 1 : 0;
    serve((m_uNext < m_vecLine.size()) ? m_vecLine[m_uNext] + "\n\n" : "\n");
}

std::string RandomWorld::report()
{
    const char* const pRun = m_bHeld ? "Hold:0" : (0 == pick(3) ? "Run" : "Idle");
    return std::string("<") + pRun + "|MPos:0.000,0.000,0.000|FS:0," +
           ((m_bBeam && !m_bHeld) ? "500" : "0") + ">\n";
}

void RandomWorld::answerLine()
{
    const std::string strLine = m_deqLine.front();
    if (m_bHeld && !m_language.hasReports() && "~" != strLine && "M5" != strLine) {
        m_deqLine.pop_front();
        reply("status:1\n");
        return;
    }
    m_deqLine.pop_front();
    if (0 == pick(400)) {
        static const char* const REFUSED[] = {"error:2\n", "error:9\n", "error:20\n", "alarm:1\n",
                                              "ALARM:1\n", "\xFF",      "",           "o"};
        m_bOwes = true;
        reply(REFUSED[pick(8)]);
        return;
    }
    if ("~" == strLine) {
        m_bHeld = false;
    }
    if ("M5" == strLine) {
        m_bBeam = false;
    }
    if (isJobLine(strLine)) {
        ++m_uTaken;
        m_bBeam = m_bBeam || "M3S500" == strLine;
        m_s64BusyUs = (LONG_LINE == strLine) ? m_s64NowUs + LONG_US : m_s64BusyUs;
    }
    if ("$$" == strLine) {
        reply("$32=1\n");
    }
    if (!m_language.hasReports() && 0 == pick(100)) {
        static const char* const STATUS[] = {"status:1\n", "status:2\n", "status:3\n",
                                             "status:4\n"};
        reply(STATUS[pick(4)]);
    }
    reply("ok\n");
    if ("$H" == strLine && !m_language.hasReports()) {
        reply("done\n");
    }
}

void RandomWorld::stepController()
{
    if (!m_bPort) {
        return;
    }
    if (m_bGreet) {
        m_bGreet = false;
        reply(m_language.hasReports() ? "Grbl 1.1h ['$' for help]\n" : "ready\n");
    } else if (m_uQuestions > 0) {
        --m_uQuestions;
        reply(report());
    } else if (!m_deqLine.empty() && (m_bHeld || m_s64NowUs >= m_s64BusyUs) &&
               !(m_bHeld && m_language.hasReports())) {
        answerLine();
    }
}

void RandomWorld::stepOperator()
{
    const LEVEL_E eLevel = m_interlock.getLevel();
    WISH_E eWish = WISH_LEVEL;
    const bool bTripped = std::exchange(m_bTripped, false); // what the operator wishes may pass
    switch (pick(8)) {
    case 0:
        eWish = m_interlock.raise(m_s64NowUs);
        break;
    case 1:
        eWish = m_interlock.home(m_s64NowUs);
        break;
    case 2:
    case 3:
        eWish = m_interlock.openJob(m_strJob.data(), m_strJob.size(), (0 == pick(2)) ? 0 : 10000000,
                                    m_s64NowUs);
        if (WISH_DONE == eWish) {
            ++m_u64Jobs;
            m_uTaken = 0;
            m_uNext = 0;
            m_bWaiting = false;
            m_bTold = false;
        }
        break;
    case 4:
        if (0 == pick(4)) {
            m_bPaused = WISH_DONE == m_interlock.pause(m_s64NowUs) || m_bPaused;
        }
        break;
    case 5:
        m_bPaused = WISH_DONE != m_interlock.resume(m_s64NowUs) && m_bPaused;
        break;
    case 6:
        (void)m_interlock.renewLease(m_s64NowUs);
        break;
    default:
        eWish =
            (LEVEL_DARK == eLevel && 0 == pick(20)) ? m_interlock.unlock(m_s64NowUs) : WISH_LEVEL;
        break;
    }
    m_bTripped = m_bTripped || (bTripped && WISH_DONE != eWish);
}

void RandomWorld::stepFault()
{
    static const char* const FROM_SERVICE[] = {
        "M5\n",         "$H\n",    "G05 X1.00 Y1.00 F2000 \nM18 S1\n",
        "$X\n",         "~\n",     "M21\n",
        "M3 S1000\n\n", "G1 X",    "\n",
        "\x18\x18\n",   "G28\n\n", "G1 X5 F100\n\n",
        "!\n",          "M18 S1\n"};
    static const char* const FROM_CONTROLLER[] = {"ok\n",
                                                  "error:2\n",
                                                  "error:9\n",
                                                  "alarm:1\n",
                                                  "ALARM:1\n",
                                                  "status:1\n",
                                                  "status:3\n",
                                                  "status:4\n",
                                                  "done\n",
                                                  "o",
                                                  "\xFF",
                                                  "ready\n",
                                                  "Grbl 1.1h ['$' for help]\n",
                                                  "<Alarm|MPos:0.000,0.000,0.000|FS:0,0>\n",
                                                  "[MSG:x]\n",
                                                  "\n"};
    switch (pick(8)) {
    case 0:
    case 1:
    case 2:
        serve(FROM_SERVICE[pick(sizeof(FROM_SERVICE) / sizeof(FROM_SERVICE[0]))]);
        break;
    case 3:
    case 4:
        if (m_bPort && m_deqLine.empty() &&
            !m_bOwes) { // else it could be an answer, and a wrong one
            reply(FROM_CONTROLLER[pick(sizeof(FROM_CONTROLLER) / sizeof(FROM_CONTROLLER[0]))]);
        }
        break;
    case 5:
        m_interlock.onServiceGone(m_s64NowUs);
        m_bWaiting = false;
        break;
    case 6:
        if (m_bPort) {
            m_bPort = false;
            m_bBeam = false; // out of reach: nobody can do anything about it
            m_deqLine.clear();
            m_interlock.onPortLost(m_s64NowUs);
        }
        break;
    default:
        m_interlock.off(m_s64NowUs);
        break;
    }
}

void RandomWorld::step()
{
    const LEVEL_E eBefore = m_interlock.getLevel();
    bool bOperator = false;
    const unsigned uKind = pick(1000);
    if (uKind < 2) {
        stepFault();
    } else if (uKind < 40) {
        bOperator = true;
        stepOperator();
    } else if (uKind < 45 && !m_bPort) {
        m_bPort = true;
        m_interlock.onPortUp(m_s64NowUs);
    } else if (uKind < 400) {
        stepService();
    } else if (uKind < 800) {
        stepController();
    } else {
        const bool bBusy = m_s64NowUs < m_s64BusyUs;
        const int64_t s64Us = (0 == pick(200))          ? 1000000
                              : (bBusy && 0 == pick(4)) ? 400000
                                                        : 1000 * pick(40);
        m_s64NowUs += s64Us;
        if (m_interlock.getDeadline() <= m_s64NowUs) {
            m_interlock.onTime(m_s64NowUs);
        }
    }
    if (m_interlock.getLevel() > eBefore && !bOperator) {
        complain("the level has risen by itself");
    }
    if (m_bBeam && LEVEL_JOB != m_interlock.getLevel()) {
        complain("beam on outside a job");
    }
    const size_t uLine = m_interlock.getJobLine();
    if (LEVEL_JOB == m_interlock.getLevel() && uLine != m_uTaken) {
        complain("the place is not where the controller is");
    }
}

// A job that begins at one of its lines: what has to be said before that line.
#include "JobRestart.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "GcodeLine.h"

static const double MM_PER_INCH = 25.4;
static const size_t QUEUED_MOVES = 18; // as the guard counts them: 16, one under way, one just sent
static const int NO_COOLANT = 0;       // nothing was said of it

namespace {

bool hasMotion(const GcodeLine& line)
{
    return line.hasG(0) || line.hasG(10) || line.hasG(20) || line.hasG(30);
}

bool hasAxis(const GcodeLine& line)
{
    return line.has('X') || line.has('Y') || line.has('Z');
}

/** A decimal number as short as it can be said. */
std::string toWord(char cLetter, double dValue)
{
    std::array<char, 48> acText{};
    snprintf(acText.data(), acText.size(), "%.4f", dValue);
    std::string strText = acText.data();
    strText.erase(strText.find_last_not_of('0') + 1);
    if ('.' == strText.back()) {
        strText.pop_back();
    }
    return cLetter + (("-0" == strText) ? "0" : strText);
}

/** The file's lines, one after the other. */
class Lines
{
public:
    explicit Lines(const std::string& strText) : m_strText(strText) {}

    /** @return false behind the last one */
    bool next(GcodeLine& line)
    {
        if (m_uNext >= m_strText.size()) {
            return false;
        }
        m_uPlace = m_uNext;
        const size_t uEnd = std::min(m_strText.find('\n', m_uPlace), m_strText.size());
        m_uNext = uEnd + 1;
        line = {};
        (void)parseGcode(m_strText.data() + m_uPlace, uEnd - m_uPlace,
                         line); // its check has passed
        return true;
    }

    /** Where the line that next() has given begins. */
    size_t getPlace() const
    {
        return m_uPlace;
    }

private:
    const std::string& m_strText;
    size_t m_uPlace = 0;
    size_t m_uNext = 0;
};

/** What is modal behind some lines. */
class ModalState
{
public:
    void follow(const GcodeLine& line);
    std::string makeReason() const;
    std::vector<std::string> makeLines(bool bModeNeeded) const;

    int getMotion() const
    {
        return m_nMotion;
    }

private:
    enum PLACE_E
    {
        PLACE_NOT_NAMED,
        PLACE_KNOWN,
        PLACE_UNKNOWN // from where the job began, or in another coordinate system
    };

    void followSystem(const GcodeLine& line);
    void followAxes(const GcodeLine& line);
    std::string tellPlace() const;

    size_t m_uLine = 0;
    size_t m_uShift = 0; // the first line with G92; 0: none
    size_t m_uEnd = 0;   // the first line that ends the program
    std::array<PLACE_E, 3> m_aePlace{};
    std::array<double, 3> m_adPlace{}; // mm in the coordinate system
    int m_nSystem = 54;
    bool m_bInches = false;
    bool m_bRelative = false;
    int m_nMotion = 0;
    bool m_bFeed = false;
    double m_dFeed = 0; // mm/min
    bool m_bPower = false;
    double m_dPower = 0;
    int m_nBeam = 5; // M word
    int m_nCoolant = NO_COOLANT;
};

void ModalState::follow(const GcodeLine& line)
{
    ++m_uLine;
    if (0 == m_uShift && line.hasG(920)) {
        m_uShift = m_uLine;
    }
    if (0 == m_uEnd && (line.hasM(20) || line.hasM(300))) {
        m_uEnd = m_uLine;
    }
    if (line.hasG(200) || line.hasG(210)) {
        m_bInches = line.hasG(200);
    }
    if (line.hasG(900) || line.hasG(910)) {
        m_bRelative = line.hasG(910);
    }
    followSystem(line);
    for (int n = 0; n <= 3; ++n) {
        m_nMotion = line.hasG(10 * n) ? n : m_nMotion;
    }
    if (line.has('F')) {
        m_bFeed = true;
        m_dFeed = line.get('F') * (m_bInches ? MM_PER_INCH : 1);
    }
    if (line.has('S')) {
        m_bPower = true;
        m_dPower = line.get('S');
    }
    for (const int n : {3, 4, 5}) {
        m_nBeam = line.hasM(10 * n) ? n : m_nBeam;
    }
    for (const int n : {7, 8, 9}) {
        m_nCoolant = line.hasM(10 * n) ? n : m_nCoolant;
    }
    followAxes(line);
}

void ModalState::followSystem(const GcodeLine& line)
{
    for (int n = 54; n <= 59; ++n) {
        if (!line.hasG(10 * n) || n == m_nSystem) {
            continue;
        }
        m_nSystem = n; // whose origin nobody has told
        for (PLACE_E& ePlace : m_aePlace) {
            ePlace = (PLACE_NOT_NAMED == ePlace) ? ePlace : PLACE_UNKNOWN;
        }
    }
}

void ModalState::followAxes(const GcodeLine& line)
{
    for (size_t u = 0; u < m_aePlace.size(); ++u) {
        const char cAxis = static_cast<char>('X' + u);
        if (!line.has(cAxis)) {
            continue;
        }
        const double dValue = line.get(cAxis) * (m_bInches ? MM_PER_INCH : 1);
        if (!m_bRelative) {
            m_aePlace[u] = PLACE_KNOWN;
            m_adPlace[u] = dValue;
        } else if (PLACE_KNOWN == m_aePlace[u]) {
            m_adPlace[u] += dValue;
        } else {
            m_aePlace[u] = PLACE_UNKNOWN;
        }
    }
}

std::string ModalState::makeReason() const
{
    if (0 != m_uEnd) {
        return "line " + std::to_string(m_uEnd) + " has ended the program";
    }
    if (0 != m_uShift) {
        return "line " + std::to_string(m_uShift) +
               " has shifted the origin by where the arm stood";
    }
    for (size_t u = 0; u < m_aePlace.size(); ++u) {
        if (PLACE_UNKNOWN == m_aePlace[u]) {
            return std::string("the lines before do not tell where ") + static_cast<char>('X' + u) +
                   " stands";
        }
    }
    return "";
}

/** " X1 Y2": of the axes that are known. */
std::string ModalState::tellPlace() const
{
    std::string strText;
    for (size_t u = 0; u < m_aePlace.size(); ++u) {
        if (PLACE_KNOWN == m_aePlace[u]) {
            strText += " " + toWord(static_cast<char>('X' + u), m_adPlace[u]);
        }
    }
    return strText;
}

std::vector<std::string> ModalState::makeLines(bool bModeNeeded) const
{
    std::vector<std::string> vecLine{"M5", "G21 G90 G17 G" + std::to_string(m_nSystem)};
    const std::string strPlace = tellPlace();
    const std::string strFeed = m_bFeed ? toWord('F', m_dFeed) : "";
    if (!strPlace.empty()) { // with the feed: a controller without a rapid rate goes by that
        vecLine.push_back("G0" + strPlace + (m_bFeed ? " " : "") + strFeed);
    } else if (m_bFeed) {
        vecLine.push_back(strFeed);
    }
    if (bModeNeeded && 1 == m_nMotion) {
        vecLine.push_back("G1" + strPlace); // it stands there: no way
    }
    if (m_bInches) {
        vecLine.emplace_back("G20");
    }
    if (m_bRelative) {
        vecLine.emplace_back("G91");
    }
    if (NO_COOLANT != m_nCoolant) {
        vecLine.push_back("M" + std::to_string(m_nCoolant));
    }
    const std::string strPower = m_bPower ? toWord('S', m_dPower) : "";
    if (5 != m_nBeam) {
        vecLine.push_back("M" + std::to_string(m_nBeam) + (m_bPower ? " " : "") + strPower);
    } else if (m_bPower) {
        vecLine.push_back(strPower);
    }
    return vecLine;
}

/** Whether a line that moves comes without saying how, before one that does. */
bool needsMode(Lines lines, GcodeLine line)
{
    do {
        if (hasMotion(line)) {
            return false;
        }
        if (hasAxis(line) && !line.hasG(920)) {
            return true;
        }
    } while (lines.next(line));
    return false;
}

} // namespace

RestartedJob restartJob(const std::string& strText, size_t uLine)
{
    RestartedJob job;
    Lines lines(strText);
    ModalState modal;
    GcodeLine line;
    bool bThere = lines.next(line);
    for (size_t u = 1; u < uLine && bThere; ++u) {
        modal.follow(line);
        bThere = lines.next(line);
    }
    if (!bThere || 0 == uLine) {
        job.strReason = "the file has no such line";
        return job;
    }
    const bool bModeNeeded = needsMode(lines, line);
    job.strReason = modal.makeReason();
    if (job.strReason.empty() && bModeNeeded && modal.getMotion() >= 2) {
        job.strReason = "that line goes on an arc without saying so";
    }
    if (!job.strReason.empty()) {
        return job;
    }
    for (const std::string& strLine : modal.makeLines(bModeNeeded)) {
        job.strText += strLine + "\n";
        ++job.uAdded;
    }
    job.strText += strText.substr(lines.getPlace());
    return job;
}

size_t findUnsure(const std::string& strText, size_t uThrough)
{
    std::vector<size_t> vecMove; // the lines that moved
    Lines lines(strText);
    GcodeLine line;
    size_t uLine = 0;
    while (uLine < uThrough && lines.next(line)) {
        ++uLine;
        if (hasAxis(line) && !line.hasG(920)) {
            vecMove.push_back(uLine);
        }
    }
    return (vecMove.size() < QUEUED_MOVES) ? 1 : vecMove[vecMove.size() - QUEUED_MOVES];
}

// Commands that are given at set times.
#include "TimedScript.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

const double MAX_SECONDS = 1e6;

} // namespace

bool TimedScript::load(const std::string& strPath, const Untimed& untimed, std::string& strError)
{
    std::ifstream file(strPath);
    if (!file) {
        strError = strPath + ": " + strerror(errno);
        return false;
    }
    int nLine = 0;
    for (std::string strLine; std::getline(file, strLine);) {
        ++nLine;
        const size_t uStart = strLine.find_first_not_of(" \t\r");
        if (std::string::npos == uStart || '#' == strLine[uStart]) {
            continue;
        }
        char* pEnd = nullptr;
        const double dSeconds = strtod(strLine.c_str(), &pEnd);
        const bool bTimed = pEnd != strLine.c_str();
        if (!bTimed && untimed && untimed(strLine)) {
            continue;
        }
        std::string strCommand = pEnd;
        strCommand.erase(0, strCommand.find_first_not_of(" \t"));
        if (!bTimed || !(dSeconds >= 0 && dSeconds < MAX_SECONDS) || strCommand.empty()) {
            strError = strPath + ":" + std::to_string(nLine);
            strError += ": not understood: " + strLine;
            return false;
        }
        add(dSeconds, strCommand);
    }
    return true;
}

void TimedScript::add(double dSeconds, const std::string& strCommand)
{
    const auto isLater = [](double dTime, const Line& line) { return dTime < line.dSeconds; };
    const auto first = m_vecLine.begin() + static_cast<std::ptrdiff_t>(m_uNext);
    m_vecLine.insert(std::upper_bound(first, m_vecLine.end(), dSeconds, isLater),
                     {dSeconds, strCommand});
}

std::string TimedScript::takeDue(double dSeconds)
{
    if (m_uNext >= m_vecLine.size() || m_vecLine[m_uNext].dSeconds > dSeconds) {
        return "";
    }
    return m_vecLine[m_uNext++].strCommand;
}

double TimedScript::getNext() const
{
    return m_uNext < m_vecLine.size() ? m_vecLine[m_uNext].dSeconds : -1;
}

// Commands that are given at set times.
#include "TimedScript.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

bool TimedScript::load(const std::string& strPath)
{
    std::ifstream file(strPath);
    if (!file) {
        perror(strPath.c_str());
        return false;
    }
    int nLine = 0;
    for (std::string strLine; std::getline(file, strLine);) {
        nLine++;
        const size_t nStart = strLine.find_first_not_of(" \t\r");
        if (std::string::npos == nStart || '#' == strLine[nStart]) {
            continue;
        }
        char* pEnd = nullptr;
        const double dSeconds = strtod(strLine.c_str(), &pEnd);
        std::string strCommand = pEnd;
        strCommand.erase(0, strCommand.find_first_not_of(" \t"));
        if (pEnd == strLine.c_str() || !(dSeconds >= 0) || strCommand.empty()) {
            fprintf(stderr, "%s:%d: not a line of SECONDS COMMAND\n", strPath.c_str(), nLine);
            return false;
        }
        m_vecLine.push_back({dSeconds, strCommand});
    }
    std::stable_sort(m_vecLine.begin(), m_vecLine.end(), [](const Line& left, const Line& right) {
        return left.dSeconds < right.dSeconds;
    });
    return true;
}

std::string TimedScript::due(double dSeconds)
{
    if (m_nNext >= m_vecLine.size() || m_vecLine[m_nNext].dSeconds > dSeconds) {
        return "";
    }
    return m_vecLine[m_nNext++].strCommand;
}

double TimedScript::next() const
{
    return m_nNext < m_vecLine.size() ? m_vecLine[m_nNext].dSeconds : -1;
}

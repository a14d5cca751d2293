// Takes server-sent events apart.
#include "EventText.h"

#include <utility>

static const size_t MAX_LINE = 1048576; // a state has some thousand bytes

bool EventText::take(const std::string& strBytes)
{
    for (const char c : strBytes) {
        if ('\n' != c) {
            m_strLine += c;
        } else if (!takeLine(std::exchange(m_strLine, {}))) {
            return false;
        }
    }
    return m_strLine.size() <= MAX_LINE;
}

bool EventText::takeLine(const std::string& strWithReturn)
{
    const bool bReturn = !strWithReturn.empty() && '\r' == strWithReturn.back();
    const std::string strLine = strWithReturn.substr(0, strWithReturn.size() - (bReturn ? 1 : 0));
    if (strLine.empty()) {
        const std::string strName = std::exchange(m_strName, {});
        const std::string strData = std::exchange(m_strData, {});
        return strData.empty() || m_sink(strName.empty() ? "message" : strName, strData);
    }
    const size_t uColon = strLine.find(':');
    const std::string strField = strLine.substr(0, uColon);
    std::string strValue = (std::string::npos == uColon) ? "" : strLine.substr(uColon + 1);
    if (!strValue.empty() && ' ' == strValue[0]) {
        strValue.erase(0, 1);
    }
    if ("event" == strField) {
        m_strName = strValue;
    } else if ("data" == strField) {
        m_strData += (m_strData.empty() ? "" : "\n") + strValue;
    }
    return true;
}

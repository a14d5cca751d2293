// The record of everything that crosses the virtual controller's wire and pins.
#include "ControllerJournal.h"

#include <cinttypes>
#include <cstdlib>

static const int64_t SECOND_US = 1000000;

ControllerJournal::~ControllerJournal()
{
    if (nullptr != m_pFile) {
        fclose(m_pFile);
    }
}

bool ControllerJournal::open(const std::string& strPath)
{
    m_pFile = fopen(strPath.c_str(), "we");
    return nullptr != m_pFile;
}

void ControllerJournal::record(int64_t s64NowUs, const char* pKind, const std::string& strText)
{
    if (nullptr != m_pFile) {
        fprintf(m_pFile, "%" PRId64 ".%06" PRId64 " %s %s\n", s64NowUs / SECOND_US,
                s64NowUs % SECOND_US, pKind, escape(strText).c_str());
    }
}

void ControllerJournal::flush()
{
    if (nullptr != m_pFile) {
        fflush(m_pFile);
    }
}

std::string ControllerJournal::escape(const std::string& strText)
{
    std::string strResult;
    for (const char c : strText) {
        const unsigned uByte = static_cast<unsigned char>(c);
        if ('\n' == c) {
            strResult += "\\n";
        } else if ('\r' == c) {
            strResult += "\\r";
        } else if ('\t' == c) {
            strResult += "\\t";
        } else if ('\\' == c) {
            strResult += "\\\\";
        } else if (uByte < 0x20 || uByte > 0x7e) {
            char acHex[8] = {0};
            snprintf(acHex, sizeof(acHex), "\\x%02x", uByte);
            strResult += acHex;
        } else {
            strResult += c;
        }
    }
    return strResult;
}

std::string ControllerJournal::unescape(const std::string& strText)
{
    std::string strResult;
    for (size_t i = 0; i < strText.size(); ++i) {
        const std::string strTwo = strText.substr(i, 2);
        if ("\\n" == strTwo || "\\r" == strTwo || "\\t" == strTwo || "\\\\" == strTwo) {
            const char c = strTwo[1];
            strResult += ('n' == c) ? '\n' : ('r' == c) ? '\r' : ('t' == c) ? '\t' : '\\';
            ++i;
        } else if ("\\x" == strTwo && i + 3 < strText.size() &&
                   std::string::npos ==
                       strText.substr(i + 2, 2).find_first_not_of("0123456789abcdefABCDEF")) {
            strResult += static_cast<char>(strtoul(strText.substr(i + 2, 2).c_str(), nullptr, 16));
            i += 3;
        } else {
            strResult += strText[i];
        }
    }
    return strResult;
}

// What can be taken out of a line of a job without changing what it does.
#include "LineMend.h"

static const std::string BYTE_ORDER_MARK = "\xEF\xBB\xBF";
static const char* const BLANKS = " \t\r";

std::string mendLine(const std::string& strLine)
{
    const bool bMark = 0 == strLine.compare(0, BYTE_ORDER_MARK.size(), BYTE_ORDER_MARK);
    std::string strKept;
    for (size_t u = bMark ? BYTE_ORDER_MARK.size() : 0; u < strLine.size(); ++u) {
        const char c = strLine[u];
        if (';' == c) {
            break;
        }
        if ('(' == c) {
            const size_t uEnd = strLine.find(')', u);
            if (std::string::npos == uEnd) {
                return strLine;
            }
            u = uEnd;
        } else {
            strKept += ('\t' == c) ? ' ' : c;
        }
    }
    const size_t uFirst = strKept.find_first_not_of(BLANKS);
    if (std::string::npos == uFirst || '%' == strKept[uFirst]) {
        return "";
    }
    return strKept.substr(uFirst, strKept.find_last_not_of(BLANKS) + 1 - uFirst);
}

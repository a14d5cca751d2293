// The decimal number of a G-code word.
#include "DecimalNumber.h"

#include <cstdlib>

bool takeNumber(const std::string& strText, size_t& uPos, double& dValue)
{
    const size_t uStart = uPos;
    if (uPos < strText.size() && ('-' == strText[uPos] || '+' == strText[uPos])) {
        ++uPos;
    }
    bool bDigit = false;
    bool bPoint = false;
    for (; uPos < strText.size(); ++uPos) {
        const char c = strText[uPos];
        if ('.' == c && !bPoint) {
            bPoint = true;
        } else if (c >= '0' && c <= '9') {
            bDigit = true;
        } else {
            break;
        }
    }
    dValue = strtod(strText.substr(uStart, uPos - uStart).c_str(), nullptr);
    return bDigit;
}

// Regular expressions for tests: the C library's, since std::regex draws warnings under sanitizers.
#pragma once

#include <string>

#include <regex.h>

/** @return true when the extended POSIX expression is found in the text; anchor it with ^ and $ */
inline bool hasPattern(const std::string& strText, const std::string& strPattern)
{
    regex_t expression;
    if (0 != regcomp(&expression, strPattern.c_str(), REG_EXTENDED | REG_NOSUB)) {
        return false;
    }
    const bool bFound = 0 == regexec(&expression, strText.c_str(), 0, nullptr, 0);
    regfree(&expression);
    return bFound;
}

/** @return the text with every match replaced */
inline std::string replacePattern(std::string strText, const std::string& strPattern,
                                  const std::string& strBy)
{
    regex_t expression;
    if (0 != regcomp(&expression, strPattern.c_str(), REG_EXTENDED)) {
        return strText;
    }
    std::string strResult;
    regmatch_t match;
    while (!strText.empty() && 0 == regexec(&expression, strText.c_str(), 1, &match, 0) &&
           match.rm_eo > 0) {
        strResult.append(strText, 0, static_cast<size_t>(match.rm_so)) += strBy;
        strText.erase(0, static_cast<size_t>(match.rm_eo));
    }
    regfree(&expression);
    return strResult + strText;
}

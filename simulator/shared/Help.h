// The option --help of our programs.
#pragma once

#include <cstdio>
#include <cstring>

/** Print the usage on standard output when --help is the only argument. @return whether it was */
inline bool printHelp(int nArgs, char** apArgs, const char* pUsage)
{
    const bool bAsked = 2 == nArgs && 0 == strcmp("--help", apArgs[1]);
    if (bAsked) {
        fputs(pUsage, stdout);
    }
    return bAsked;
}

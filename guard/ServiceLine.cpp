// What a line of the service's is by its words.
#include "ServiceLine.h"

#include <cstring>

bool isText(const char* pText, size_t uLength, const char* pOther)
{
    while (uLength > 0 && ' ' == pText[uLength - 1]) {
        --uLength;
    }
    return strlen(pOther) == uLength && 0 == memcmp(pText, pOther, uLength);
}

static bool startsWith(const char* pText, size_t uLength, const char* pPrefix)
{
    const size_t uPrefix = strlen(pPrefix);
    return uPrefix <= uLength && 0 == memcmp(pText, pPrefix, uPrefix);
}

bool isPilot(const char* pText, size_t uLength)
{
    return startsWith(pText, uLength, "M18");
}

bool isMove(const char* pText, size_t uLength)
{
    return startsWith(pText, uLength, "G05") || isText(pText, uLength, "$H");
}

int parsePilot(const char* pText, size_t uLength)
{
    GcodeLine line;
    if (LINE_GOOD != parseGcode(pText, uLength, line) || 1 != line.uM || !line.hasM(180) ||
        0 != line.uG || 0 != (line.u32Has & ~(1U << ('S' - 'A')))) {
        return -1;
    }
    return (!line.has('S') || line.get('S') > 0) ? 1 : 0;
}

bool isMoveLine(const GcodeLine& line)
{
    uint32_t u32Allowed = 0;
    for (const char c : {'X', 'Y', 'Z', 'F'}) {
        u32Allowed |= 1U << static_cast<unsigned>(c - 'A');
    }
    return 1 == line.uG && line.hasG(50) && 0 == line.uM && 'G' == line.acText[0] &&
           0 == (line.u32Has & ~u32Allowed);
}

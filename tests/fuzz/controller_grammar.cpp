// Fuzzes the virtual controller's language: any line it receives.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Grammar.h"

namespace {

void require(bool bHolds, const char* pWhat)
{
    if (!bHolds) {
        fprintf(stderr, "not true: %s\n", pWhat);
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    const std::string strText(reinterpret_cast<const char*>(pData), uSize);

    const ParsedLine line = parseLine(strText);
    require((LINE_KIND_REFUSED == line.eKind) == (0 != line.nError), "refused with a reason");
    require(uSize <= MAX_LINE || LINE_KIND_REFUSED == line.eKind, "too long is refused");
    for (const double dWord : {line.dX, line.dY, line.dZ, line.dF, line.dS}) {
        require(std::isfinite(dWord), "numbers are finite");
    }
    return 0;
}

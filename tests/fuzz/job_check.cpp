// Jobs of any words: what the check lets pass passes the guard line by line, and so does its mended
// copy.
#include <cstdio>
#include <cstdlib>

#include "JobWorld.h"

/** The first byte chooses the language and whether the rest is text or picks words. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    static const GrblLanguage GRBL;
    static const KestrelLanguage KESTREL;
    if (0 == uSize) {
        return 0;
    }
    const ILanguage& language = (0 == (pData[0] & 1)) ? static_cast<const ILanguage&>(GRBL)
                                                      : static_cast<const ILanguage&>(KESTREL);
    const std::string strJob =
        (0 == (pData[0] & 2)) ? makeJob(pData + 1, uSize - 1)
                              : std::string(reinterpret_cast<const char*>(pData) + 1, uSize - 1);
    bool bPassed = false;
    if (const std::string strFlaw = findFlaw(language, strJob, bPassed); !strFlaw.empty()) {
        fprintf(stderr, "%s\n", strFlaw.c_str());
        abort();
    }
    return 0;
}

// Fuzzes the search for the camera in the kernel's list of input devices.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "UvcProber.h"

namespace {

const uint8_t* g_pList = nullptr;
size_t g_uListSize = 0;

} // namespace

// The linker puts this in fopen's place in the service's code: the list is the fuzzer's.
extern "C" FILE* __real_fopen(const char* pPath, const char* pMode);
extern "C" FILE* __wrap_fopen(const char* pPath, const char* pMode)
{
    if (0 != strcmp("/proc/bus/input/devices", pPath)) {
        return __real_fopen(pPath, pMode);
    }
    return (0 == g_uListSize) ? nullptr : fmemopen(const_cast<uint8_t*>(g_pList), g_uListSize, "r");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    g_pList = pData;
    g_uListSize = uSize;
    const int32_t s32Index = UvcProber::getInstance().find(0x05A3, 0x9230);
    if (s32Index < -1) {
        fprintf(stderr, "an index below -1: %d\n", s32Index);
        abort();
    }
    return 0;
}

// Finds the video node of a USB camera.
#include "UvcProber.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "File.h"

namespace {

const char* const DEVICE_LIST = "/proc/bus/input/devices";
const int LINE_SIZE = 1024; // bytes, with the terminating zero

enum STATE_E
{
    STATE_SEARCHING,
    STATE_MATCHED, // inside, or anywhere after, the entry of the camera
    STATE_DONE,
};

int32_t videoIndex(int32_t s32Event)
{
    const int32_t s32Index = (s32Event >= 3) ? s32Event - 3 : s32Event;
    return (s32Index < 2) ? 0 : s32Index - 2;
}

} // namespace

UvcProber& UvcProber::getInstance()
{
    static UvcProber s_instance;
    return s_instance;
}

int32_t UvcProber::find(uint32_t u32Vendor, uint32_t u32Product)
{
    const std::unique_ptr<char[]> pLine(new (std::nothrow) char[LINE_SIZE]);
    File file;
    if (nullptr == pLine || 0 != file.open(DEVICE_LIST, FILE_FLAG_READ)) {
        return -1;
    }
    STATE_E eState = STATE_SEARCHING;
    int nEvent = 0;
    while (STATE_DONE != eState && 0 == file.readLine(pLine.get(), LINE_SIZE)) {
        if ('I' == pLine[0]) {
            unsigned int uBus = 0;
            unsigned int uVendor = 0;
            unsigned int uProduct = 0;
            unsigned int uVersion = 0;
            const int nParsed = sscanf(pLine.get(), "I: Bus=%x Vendor=%x Product=%x Version=%x",
                                       &uBus, &uVendor, &uProduct, &uVersion);
            if (nParsed >= 3 && uVendor == u32Vendor && uProduct == u32Product) {
                eState = STATE_MATCHED;
            }
        } else if ('H' == pLine[0] && STATE_MATCHED == eState) {
            (void)sscanf(pLine.get(), "H: Handlers=kbd event%d", &nEvent);
            eState = STATE_DONE;
        }
    }
    return (STATE_DONE == eState) ? videoIndex(nEvent) : -1;
}

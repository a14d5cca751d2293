// A vision plug-in for the tests: records its calls and gives the answers that are set.
// WITHOUT_<name> leaves that entry point out, RESULT and FOCUS_RESULT are what all or autoFocus()
// return at first; with WAITING init() makes the file "inside" and waits for "go"; with UNRESOLVED
// a name is missing that only uninit() would need.
#include "TestPlugin.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

#ifndef RESULT
#define RESULT 0
#endif
#ifndef FOCUS_RESULT
#define FOCUS_RESULT RESULT
#endif

TestPlugin g_plugin(RESULT, FOCUS_RESULT);

PluginCall makeCall(const char* pName)
{
    PluginCall call;
    call.strName = pName;
    call.s32Tid = static_cast<int32_t>(syscall(SYS_gettid));
    return call;
}

PluginCall makeCall(const char* pName, uint32_t u32Size, uint32_t u32Width, uint32_t u32Height,
                    const uint8_t* pData)
{
    PluginCall call = makeCall(pName);
    call.u32Size = u32Size;
    call.u32Width = u32Width;
    call.u32Height = u32Height;
    call.vecData.assign(pData, pData + u32Size);
    return call;
}

void record(const PluginCall& call)
{
    const std::lock_guard<std::mutex> guard(g_plugin.mutex);
    g_plugin.vecCall.push_back(call);
}

} // namespace

TestPlugin* testPlugin(void)
{
    return &g_plugin;
}

#ifndef WITHOUT_init
void init(void)
{
#ifdef WAITING
    close(open("inside", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    while (0 != access("go", F_OK)) {
        usleep(1000);
    }
#endif
    record(makeCall("init"));
}
#endif

#ifdef UNRESOLVED
extern "C" void nobodyHasThis(void);
#endif

#ifndef WITHOUT_uninit
void uninit(void)
{
#ifdef UNRESOLVED
    nobodyHasThis();
#endif
    record(makeCall("uninit"));
}
#endif

#ifndef WITHOUT_undistort
int undistort(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
              FRAME_PROCESS_UNDISTORT_T* pOut)
{
    record(makeCall("undistort", u32Size, u32Width, u32Height, pData));
    *pOut = g_plugin.undistorted;
    return g_plugin.nUndistortResult;
}
#endif

#ifndef WITHOUT_autoFocus
int autoFocus(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
              float* pMeasure)
{
    record(makeCall("autoFocus", u32Size, u32Width, u32Height, pData));
    if (g_plugin.nAutoFocusResult <= 0) {
        *pMeasure = g_plugin.fMeasure;
    }
    return g_plugin.nAutoFocusResult;
}
#endif

#ifndef WITHOUT_findPos
int findPos(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
            float* pX, float* pY)
{
    record(makeCall("findPos", u32Size, u32Width, u32Height, pData));
    g_plugin.fXBefore = *pX;
    g_plugin.fYBefore = *pY;
    if (g_plugin.nFindPosResult <= 0) {
        *pX = g_plugin.fX;
        *pY = g_plugin.fY;
    }
    return g_plugin.nFindPosResult;
}
#endif

#ifndef WITHOUT_setExposure
void setExposure(int32_t* pExposure)
{
    record(makeCall("setExposure"));
    g_plugin.s32ExposureBefore = *pExposure;
    *pExposure = g_plugin.s32Exposure;
}
#endif

#ifndef WITHOUT_easyFun
void easyFun(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
             int32_t* pArg1, int32_t* pArg2, void* pValues)
{
    PluginCall call = makeCall("easyFun", u32Size, u32Width, u32Height, pData);
    call.apOther[0] = pArg1;
    call.apOther[1] = pArg2;
    call.apOther[2] = pValues;
    record(call);
}
#endif

// The plug-in when memory runs out at any of its allocations: nothing is thrown at a C caller.
#include <cstdlib>
#include <cstring>
#include <new>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "SceneCamera.h"
#include "frame_process.h"

namespace {

thread_local int t_nAllowed = -1; // allocations until one fails; -1: all succeed

} // namespace

// Every library of the program takes its memory here. Not inlined: the compiler takes free() of
// what it sees come from operator new for a mistake.
__attribute__((noinline)) void* operator new(size_t nSize)
{
    if (0 == t_nAllowed) {
        throw std::bad_alloc();
    }
    t_nAllowed -= t_nAllowed > 0 ? 1 : 0;
    void* const pMemory = malloc(0 == nSize ? 1 : nSize);
    if (nullptr == pMemory) {
        throw std::bad_alloc();
    }
    return pMemory;
}

__attribute__((noinline)) void operator delete(void* pMemory) noexcept
{
    free(pMemory);
}

__attribute__((noinline)) void operator delete(void* pMemory, size_t) noexcept
{
    free(pMemory);
}

// When an allocation inside OpenCV fails, it loses what it had allocated for the same picture.
extern "C" const char* __lsan_default_suppressions(); // NOLINT(*-reserved-identifier,*-naming)
extern "C" const char* __lsan_default_suppressions()  // NOLINT(*-reserved-identifier,*-naming)
{
    return "leak:libopencv_core\n";
}

namespace {

template <typename FUNCTION> FUNCTION* entryPoint(const char* pName)
{
    void* const pHandle = dlopen(FRAME_PROCESS_LIBRARY, RTLD_LAZY); // never closed
    EXPECT_NE(nullptr, pHandle) << dlerror();
    void* const pSymbol = dlsym(pHandle, pName);
    EXPECT_NE(nullptr, pSymbol) << pName;
    FUNCTION* pFunction = nullptr;
    memcpy(&pFunction, &pSymbol, sizeof(pFunction));
    return pFunction;
}

// Lets the first, the second, ... allocation of a call fail until the call gets by with those that
// succeed. Returns how many failures the call reported.
template <typename CALL> int failEachAllocation(const CALL& call)
{
    EXPECT_EQ(0, call()); // what is allocated once and kept
    for (int nAllowed = 0;; nAllowed++) {
        t_nAllowed = nAllowed;
        const int nResult = call();
        t_nAllowed = -1;
        if (0 == nResult) {
            return nAllowed;
        }
        EXPECT_GT(nResult, 0);
    }
}

} // namespace

TEST(PluginWithoutMemory, FindPosFails)
{
    auto* const pFindPos = entryPoint<decltype(::findPos)>("findPos");
    SceneCamera camera;
    const JpegPicture picture = camera.take();

    const int nFailures = failEachAllocation([&] {
        float fX = 7;
        float fY = 8;
        const int nResult = pFindPos(picture.u32Size, 640, 480, picture.pData, &fX, &fY);
        EXPECT_TRUE(0 == nResult || (7 == fX && 8 == fY));
        return nResult;
    });

    EXPECT_GT(nFailures, 10);
}

TEST(PluginWithoutMemory, AutoFocusFails)
{
    auto* const pAutoFocus = entryPoint<decltype(::autoFocus)>("autoFocus");
    SceneCamera camera;
    const JpegPicture picture = camera.take();

    const int nFailures = failEachAllocation([&] {
        float fMeasure = 7;
        const int nResult = pAutoFocus(picture.u32Size, 640, 480, picture.pData, &fMeasure);
        EXPECT_TRUE(0 == nResult || 7 == fMeasure);
        return nResult;
    });

    EXPECT_GT(nFailures, 10);
}

TEST(PluginWithoutMemory, UndistortFails)
{
    auto* const pUndistort = entryPoint<decltype(::undistort)>("undistort");
    SceneCamera camera;
    const JpegPicture picture = camera.take();

    const int nFailures = failEachAllocation([&] {
        FRAME_PROCESS_UNDISTORT_T record{};
        const int nResult = pUndistort(picture.u32Size, 640, 480, picture.pData, &record);
        EXPECT_TRUE(0 == nResult || nullptr == record.pData);
        return nResult;
    });

    EXPECT_GT(nFailures, 3);
}

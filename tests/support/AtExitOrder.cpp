// In which order the static objects of a test program die.
#include "AtExitOrder.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

#include <dlfcn.h>

static const size_t MOST_AT_EXIT = 4096;
static const void* g_apAtExit[MOST_AT_EXIT];
static std::atomic<size_t> g_uAtExit{0};

/** In place of the C library's. */
// NOLINTNEXTLINE(readability-identifier-naming,bugprone-reserved-identifier)
extern "C" int __cxa_atexit(void (*pDestructor)(void*), void* pObject, void* pLibrary)
{
    const size_t uPlace = g_uAtExit++;
    if (uPlace < MOST_AT_EXIT) {
        g_apAtExit[uPlace] = pObject;
    }
    using AtExit = int (*)(void (*)(void*), void*, void*);
    static const AtExit s_pReal = reinterpret_cast<AtExit>(dlsym(RTLD_NEXT, "__cxa_atexit"));
    return s_pReal(pDestructor, pObject, pLibrary);
}

size_t placeAtExit(const void* pObject)
{
    const auto pEnd = g_apAtExit + std::min(g_uAtExit.load(), MOST_AT_EXIT);
    const auto pFound = std::find(g_apAtExit, pEnd, pObject);
    return (pEnd == pFound) ? SIZE_MAX : static_cast<size_t>(pFound - g_apAtExit);
}

bool outlive(std::initializer_list<const void*> listObject, const void* pObject)
{
    return std::all_of(listObject.begin(), listObject.end(), [pObject](const void* pOther) {
        return placeAtExit(pOther) < placeAtExit(pObject);
    });
}

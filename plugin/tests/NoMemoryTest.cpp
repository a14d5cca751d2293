// The plug-in when memory runs out at any of its allocations: each is answered by a failure.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "Fault.h"
#include "JpegCodec.h"
#include "LensFile.h"
#include "SceneCamera.h"
#include "ScratchFolder.h"
#include "frame_process.h"

// When an allocation inside OpenCV fails, it loses what it had allocated for the same picture.
extern "C" const char* __lsan_default_suppressions(); // NOLINT(*-reserved-identifier,*-naming)
extern "C" const char* __lsan_default_suppressions()  // NOLINT(*-reserved-identifier,*-naming)
{
    return "leak:libopencv_core\n";
}

// What OpenCV's start allocates and keeps is told apart by whole stacks only.
extern "C" const char* __asan_default_options(); // NOLINT(*-reserved-identifier,*-naming)
extern "C" const char* __asan_default_options()  // NOLINT(*-reserved-identifier,*-naming)
{
    return "fast_unwind_on_malloc=0";
}

namespace {

// operator new is among those of malloc.
const char* const ALLOCATORS[] = {"malloc", "calloc", "realloc", "posix_memalign"};

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

/**
 * Let the first, the second, ... allocation of a call fail, alone and with all that follow, until
 * the call gets by without it. Returns how many failures the call reported. libjpeg asks again for
 * less, so that a call may succeed with one failed allocation, but then as if nothing had been.
 * @param call       the entry point's result
 * @param untouched  whether the caller's values are as before the call
 * @param good       whether they are what an undisturbed call writes
 */
template <typename CALL, typename UNTOUCHED, typename GOOD>
int failEachAllocation(const CALL& call, const UNTOUCHED& untouched, const GOOD& good)
{
    EXPECT_EQ(0, call()); // what is allocated once and kept
    int nFailures = 0;
    for (const char* const pAllocator : ALLOCATORS) {
        for (const char* const pEnd : {"", "-"}) {
            for (int nWhich = 1;; ++nWhich) {
                const std::string strPlan =
                    std::string(pAllocator) + ":" + std::to_string(nWhich) + pEnd + ":ENOMEM";
                EXPECT_EQ(0, faultPlan(strPlan.c_str()));
                const int nResult = call();
                const unsigned uHits = faultHits();
                EXPECT_EQ(0, faultPlan(""));
                if (0 == uHits) {
                    EXPECT_EQ(0, nResult) << strPlan;
                    break;
                }
                if (0 == nResult && '\0' == *pEnd) {
                    EXPECT_TRUE(good()) << strPlan;
                    continue;
                }
                EXPECT_GT(nResult, 0) << strPlan;
                EXPECT_TRUE(untouched()) << strPlan;
                ++nFailures;
            }
        }
    }
    EXPECT_EQ(0, call());
    EXPECT_TRUE(good());
    return nFailures;
}

} // namespace

TEST(NoMemory, FindPosFails)
{
    auto* const pFindPos = entryPoint<decltype(::findPos)>("findPos");
    SceneCamera camera(0, 320, 240); // small, as there are hundreds of calls
    camera.setSpot(3, 4, 2);
    const JpegPicture picture = camera.take();
    float fX = 0;
    float fY = 0;

    const int nFailures = failEachAllocation(
        [&] {
            fX = 7;
            fY = 8;
            return pFindPos(picture.u32Size, 320, 240, picture.pData, &fX, &fY);
        },
        [&] { return 7 == fX && 8 == fY; }, [&] { return std::hypot(fX - 3, fY - 4) < 0.1F; });

    EXPECT_GT(nFailures, 50);
}

TEST(NoMemory, AutoFocusFails)
{
    auto* const pAutoFocus = entryPoint<decltype(::autoFocus)>("autoFocus");
    SceneCamera camera(0, 320, 240); // small, as there are hundreds of calls
    camera.setSpot(3, 4, 2);
    const JpegPicture picture = camera.take();
    float fMeasure = 0;

    const int nFailures = failEachAllocation(
        [&] {
            fMeasure = 7;
            return pAutoFocus(picture.u32Size, 320, 240, picture.pData, &fMeasure);
        },
        [&] { return 7 == fMeasure; }, [&] { return std::fabs(std::fabs(fMeasure) - 2) < 0.3F; });

    EXPECT_GT(nFailures, 50);
}

TEST(NoMemory, UndistortFails)
{
    auto* const pUndistort = entryPoint<decltype(::undistort)>("undistort");
    SceneCamera camera(0, 320, 240); // small, as there are hundreds of calls
    const JpegPicture picture = camera.take();
    FRAME_PROCESS_UNDISTORT_T record{};
    ASSERT_EQ(0, pUndistort(picture.u32Size, 320, 240, picture.pData, &record));
    const std::vector<uint8_t> vecGood(record.pData, record.pData + record.s32Size);

    const int nFailures = failEachAllocation(
        [&] {
            record = {};
            return pUndistort(picture.u32Size, 320, 240, picture.pData, &record);
        },
        [&] { return nullptr == record.pData; },
        [&] { return vecGood == std::vector(record.pData, record.pData + record.s32Size); });

    EXPECT_GT(nFailures, 20);
}

TEST(NoMemoryLensFile, ReadingFailsAndLeavesTheLens)
{
    const ScratchFolder folder;
    folder.write("lens.yml", "%YAML:1.0\n"
                             "---\n"
                             "image_width: 640\n"
                             "image_height: 480\n"
                             "camera_matrix: !!opencv-matrix\n"
                             "   rows: 3\n"
                             "   cols: 3\n"
                             "   dt: d\n"
                             "   data: [ 400., 0., 319.5, 0., 400., 239.5, 0., 0., 1. ]\n"
                             "distortion_coefficients: !!opencv-matrix\n"
                             "   rows: 1\n"
                             "   cols: 4\n"
                             "   dt: d\n"
                             "   data: [ -0.05, 0., 0., 0. ]\n");
    const std::string strPath = folder.path() / "lens.yml";
    Parameters parameters;
    std::string strReason;

    const int nFailures = failEachAllocation(
        [&] {
            parameters = Parameters();
            try {
                return LensFile::READ == LensFile::read(strPath, parameters, strReason) ? 0 : 1;
            } catch (const std::exception&) {
                return 2;
            }
        },
        [&] { return 0.5 == parameters.dFocalLengthX && 0 == parameters.dRadialK1; },
        [&] { return 0.625 == parameters.dFocalLengthX && -0.05 == parameters.dRadialK1; });

    EXPECT_GT(nFailures, 20);
}

// A picture of noise takes a megabyte: the encoder's buffer grows again and again.
TEST(NoMemoryJpegCodec, GrowthThatFailsIsAFailure)
{
    cv::Mat noise(480, 640, CV_8UC3);
    std::mt19937 random(3);
    std::generate(noise.data, noise.data + 3 * noise.total(),
                  [&] { return static_cast<uint8_t>(random()); });
    std::vector<uint8_t> vecJpeg;
    ASSERT_TRUE(JpegCodec::encode(noise, 90, vecJpeg));
    const std::vector<uint8_t> vecWhole = vecJpeg;

    for (size_t nSize = 4096; nSize < 2 * vecWhole.size(); nSize *= 2) {
        const std::string strPlan = "malloc=" + std::to_string(nSize) + ":1:ENOMEM";
        std::vector<uint8_t> vecOut;
        ASSERT_EQ(0, faultPlan(strPlan.c_str()));
        const bool bEncoded = JpegCodec::encode(noise, 90, vecOut);
        const bool bHit = 0 != faultHits();
        ASSERT_EQ(0, faultPlan(""));

        EXPECT_EQ(nSize >= 65536 && nSize / 2 < vecWhole.size(), bHit) << nSize;
        EXPECT_EQ(!bHit, bEncoded) << nSize;
        EXPECT_EQ(bHit, vecOut.empty()) << nSize;
    }
    EXPECT_TRUE(JpegCodec::encode(noise, 90, vecJpeg));
    EXPECT_EQ(vecWhole, vecJpeg);
}

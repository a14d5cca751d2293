// The built library with a file about its lens beside it.
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "JpegCodec.h"
#include "SceneCamera.h"
#include "ScratchFolder.h"
#include "frame_process.h"

namespace {

// A copy of the library, loaded from a folder of its own, with a lens.yml beside it.
class PluginLens : public testing::Test
{
protected:
    template <typename FUNCTION> FUNCTION* load(const char* pName)
    {
        const std::filesystem::path copy = m_folder.path() / "libframe_process.so";
        std::filesystem::copy_file(FRAME_PROCESS_LIBRARY, copy,
                                   std::filesystem::copy_options::skip_existing);
        void* const pHandle = dlopen(copy.c_str(), RTLD_LAZY); // never closed, as the service does
        EXPECT_NE(nullptr, pHandle) << dlerror();
        void* const pSymbol = dlsym(pHandle, pName);
        EXPECT_NE(nullptr, pSymbol) << pName;
        FUNCTION* pFunction = nullptr;
        memcpy(&pFunction, &pSymbol, sizeof(pFunction));
        return pFunction;
    }

    // Pixels between where the spot is and where it is told to be, far from the centre.
    double offPlace()
    {
        auto* const pFindPos = load<decltype(::findPos)>("findPos");
        SceneCamera camera(-0.08);
        camera.setSpot(25, -17, 0);
        const JpegPicture picture = camera.take();
        float fX = 0;
        float fY = 0;
        EXPECT_EQ(0, pFindPos(picture.u32Size, 640, 480, picture.pData, &fX, &fY));
        return std::hypot(fX - 25, fY + 17) * 10;
    }

    ScratchFolder m_folder;
};

} // namespace

TEST_F(PluginLens, FileBesideTheLibraryCorrectsPositions)
{
    m_folder.write("lens.yml", "%YAML:1.0\n"
                               "---\n"
                               "image_width: 1280\n" // the same camera in another size
                               "image_height: 960\n"
                               "camera_matrix: !!opencv-matrix\n"
                               "   rows: 3\n"
                               "   cols: 3\n"
                               "   dt: d\n"
                               "   data: [ 640., 0., 639.5, 0., 640., 479.5, 0., 0., 1. ]\n"
                               "distortion_coefficients: !!opencv-matrix\n"
                               "   rows: 1\n"
                               "   cols: 5\n"
                               "   dt: d\n"
                               "   data: [ -0.08, 0., 0., 0., 0. ]\n");

    EXPECT_LT(offPlace(), 0.3);
}

TEST_F(PluginLens, WithoutFileNothingIsCorrected)
{
    EXPECT_GT(offPlace(), 5);
}

TEST_F(PluginLens, UnusableFileIsToldOnceAndNothingIsMeasured)
{
    m_folder.write("lens.yml", "no lens\n");
    SceneCamera camera;
    const JpegPicture picture = camera.take();
    FRAME_PROCESS_UNDISTORT_T record{1, 2, 3, nullptr};
    float fX = 4;
    float fY = 5;
    float fMeasure = 6;
    int32_t s32Exposure = 0;

    testing::internal::CaptureStderr();
    load<decltype(::init)>("init")();
    EXPECT_EQ(7, load<decltype(::findPos)>("findPos")(picture.u32Size, 640, 480, picture.pData, &fX,
                                                      &fY));
    EXPECT_EQ(7, load<decltype(::autoFocus)>("autoFocus")(picture.u32Size, 640, 480, picture.pData,
                                                          &fMeasure));
    EXPECT_EQ(7, load<decltype(::undistort)>("undistort")(picture.u32Size, 640, 480, picture.pData,
                                                          &record));
    load<decltype(::setExposure)>("setExposure")(&s32Exposure);
    const std::string strTold = testing::internal::GetCapturedStderr();

    EXPECT_EQ("libframe_process.so: " + m_folder.path().string() +
                  "/lens.yml: does not begin with %YAML:1.0; nothing is measured or corrected\n",
              strTold);
    EXPECT_EQ(4, fX);
    EXPECT_EQ(5, fY);
    EXPECT_EQ(6, fMeasure);
    EXPECT_EQ(1, record.s32Size);
    EXPECT_EQ(157, s32Exposure);
}

// The built library as the service sees it: seven names, C linkage, no exceptions, any thread.
#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "JpegCodec.h"
#include "SceneCamera.h"
#include "frame_process.h"

// The program has functions of the same names: the library must not mistake them for its own.
namespace {
int g_nOwnCalls = 0;
}
void init(void)
{
    g_nOwnCalls++;
}
void uninit(void)
{
    g_nOwnCalls++;
}

namespace {

class Plugin : public testing::Test
{
protected:
    void SetUp() override
    {
        m_pHandle = dlopen(FRAME_PROCESS_LIBRARY, RTLD_LAZY);
        ASSERT_NE(nullptr, m_pHandle) << dlerror();
        find("init", m_pInit);
        find("uninit", m_pUninit);
        find("undistort", m_pUndistort);
        find("autoFocus", m_pAutoFocus);
        find("findPos", m_pFindPos);
        find("setExposure", m_pSetExposure);
        find("easyFun", m_pEasyFun);
        m_pInit();
    }

    void TearDown() override
    {
        if (nullptr != m_pUninit) {
            m_pUninit();
        }
    }

    template <typename FUNCTION> void find(const char* pName, FUNCTION& pFunction)
    {
        void* const pSymbol = dlsym(m_pHandle, pName);
        ASSERT_NE(nullptr, pSymbol) << pName;
        memcpy(&pFunction, &pSymbol, sizeof(pFunction));
    }

    // All entry points that judge a picture refuse it and write nothing.
    void expectRefused(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height,
                       const uint8_t* pData)
    {
        FRAME_PROCESS_UNDISTORT_T record{1, 2, 3, nullptr};
        float fX = 4;
        float fY = 5;
        float fMeasure = 6;
        int32_t s32Before = 0;
        m_pSetExposure(&s32Before);

        EXPECT_GT(m_pUndistort(u32Size, u32Width, u32Height, pData, &record), 0);
        EXPECT_GT(m_pFindPos(u32Size, u32Width, u32Height, pData, &fX, &fY), 0);
        EXPECT_GT(m_pAutoFocus(u32Size, u32Width, u32Height, pData, &fMeasure), 0);
        m_pEasyFun(u32Size, u32Width, u32Height, pData, nullptr, nullptr, nullptr);

        EXPECT_EQ(1, record.s32Size);
        EXPECT_EQ(2, record.s32Width);
        EXPECT_EQ(3, record.s32Height);
        EXPECT_EQ(nullptr, record.pData);
        EXPECT_EQ(4, fX);
        EXPECT_EQ(5, fY);
        EXPECT_EQ(6, fMeasure);
        int32_t s32After = 0;
        m_pSetExposure(&s32After);
        EXPECT_EQ(s32Before, s32After);
    }

    void* m_pHandle = nullptr; // never closed, as the service does
    decltype(&::init) m_pInit = nullptr;
    decltype(&::uninit) m_pUninit = nullptr;
    decltype(&::undistort) m_pUndistort = nullptr;
    decltype(&::autoFocus) m_pAutoFocus = nullptr;
    decltype(&::findPos) m_pFindPos = nullptr;
    decltype(&::setExposure) m_pSetExposure = nullptr;
    decltype(&::easyFun) m_pEasyFun = nullptr;
};

} // namespace

TEST_F(Plugin, NothingButTheSevenNamesIsVisible)
{
    FILE* const pPipe = popen("nm -D --defined-only " FRAME_PROCESS_LIBRARY, "re");
    ASSERT_NE(nullptr, pPipe);
    std::set<std::string> setName;
    char acAddress[64];
    char acKind[8];
    char acName[256];
    while (3 == fscanf(pPipe, "%63s %7s %255s", acAddress, acKind, acName)) {
        setName.insert(acName);
    }
    ASSERT_EQ(0, pclose(pPipe));

    const std::set<std::string> setExpected{"init",    "uninit",      "undistort", "autoFocus",
                                            "findPos", "setExposure", "easyFun"};
    EXPECT_EQ(setExpected, setName);
}

TEST_F(Plugin, ProgramsOwnInitIsNotCalled)
{
    m_pInit();
    m_pUninit();

    EXPECT_EQ(0, g_nOwnCalls);
    EXPECT_NE(&::init, m_pInit);
}

TEST_F(Plugin, MeasuringSequenceTellsSpotAndFocus)
{
    SceneCamera camera;
    camera.setSpot(-12.34, 5.67, 0.5);
    int32_t s32Exposure = 0;
    float fX = 0;
    float fY = 0;
    float fMeasure = 0;

    const JpegPicture first = camera.take();
    m_pSetExposure(&s32Exposure);
    ASSERT_LE(m_pFindPos(first.u32Size, 640, 480, first.pData, &fX, &fY), 0);
    const JpegPicture second = camera.take();
    ASSERT_LE(m_pAutoFocus(second.u32Size, 640, 480, second.pData, &fMeasure), 0);

    EXPECT_EQ(157, s32Exposure);
    EXPECT_NEAR(-12.34, static_cast<double>(fX), 0.03);
    EXPECT_NEAR(5.67, static_cast<double>(fY), 0.03);
    EXPECT_NEAR(-0.5, static_cast<double>(fMeasure), 0.1);
    m_pSetExposure(&s32Exposure); // the scene is brighter than the middle
    EXPECT_LT(s32Exposure, 157);
    EXPECT_GT(s32Exposure, 100);
}

TEST_F(Plugin, InitForgetsWhatWasSeen)
{
    SceneCamera camera;
    const JpegPicture picture = camera.take();
    m_pEasyFun(picture.u32Size, 640, 480, picture.pData, nullptr, nullptr, nullptr);
    int32_t s32Exposure = 0;
    m_pSetExposure(&s32Exposure);
    ASSERT_NE(157, s32Exposure);

    m_pInit();

    m_pSetExposure(&s32Exposure);
    EXPECT_EQ(157, s32Exposure);
}

TEST_F(Plugin, IdleValuesStayAsTheyAre)
{
    SceneCamera camera;
    const JpegPicture picture = camera.take();
    std::vector<int32_t> vecValue;
    int32_t s32First = 0;
    int32_t s32Second = 0;

    m_pEasyFun(picture.u32Size, 640, 480, picture.pData, &s32First, &s32Second, &vecValue);

    EXPECT_TRUE(vecValue.empty());
    EXPECT_EQ(0, s32First);
    EXPECT_EQ(0, s32Second);
}

TEST_F(Plugin, GarbageIsRefused)
{
    const std::vector<uint8_t> vecZero(5000, 0);
    const std::vector<uint8_t> vecOnes(5000, 0xff);
    SceneCamera camera;
    const JpegPicture picture = camera.take();
    std::vector<uint8_t> vecHeaderOnly(picture.pData, picture.pData + 700);
    vecHeaderOnly.resize(5000, 0x11);

    expectRefused(5000, 640, 480, vecZero.data());
    expectRefused(5000, 640, 480, vecOnes.data());
    expectRefused(5000, 640, 480, vecHeaderOnly.data());
    expectRefused(0, 640, 480, vecZero.data());
    expectRefused(0, 640, 480, nullptr);
    expectRefused(1, 1, 1, vecOnes.data());
}

TEST_F(Plugin, TruncatedPictureIsRefused)
{
    SceneCamera camera;
    const JpegPicture picture = camera.take();

    for (uint32_t u32Size = 0; u32Size < picture.u32Size; u32Size += picture.u32Size / 13) {
        // A copy of its own, so that a sanitizer sees any byte read beyond it.
        const std::vector<uint8_t> vecCut(picture.pData, picture.pData + u32Size);
        expectRefused(u32Size, 640, 480, vecCut.data());
    }
    const std::vector<uint8_t> vecCut(picture.pData, picture.pData + picture.u32Size - 1);
    expectRefused(picture.u32Size - 1, 640, 480, vecCut.data());
}

TEST_F(Plugin, PictureSizesThatLieAreRefused)
{
    SceneCamera camera;
    const JpegPicture picture = camera.take();

    expectRefused(picture.u32Size, 0, 0, picture.pData);
    expectRefused(picture.u32Size, 640, 0, picture.pData);
    expectRefused(picture.u32Size, 641, 480, picture.pData);
    expectRefused(picture.u32Size, 480, 640, picture.pData);
    expectRefused(picture.u32Size, 1, 1, picture.pData);
    expectRefused(picture.u32Size, 0xffffffff, 0xffffffff, picture.pData);
    expectRefused(picture.u32Size, 0x80000280, 480, picture.pData);
    expectRefused(picture.u32Size, 4097, 4097, picture.pData);
}

TEST_F(Plugin, BytesBehindThePictureAreIgnored)
{
    SceneCamera camera;
    camera.setSpot(1, 2, 0);
    const JpegPicture picture = camera.take();
    std::vector<uint8_t> vecLonger(picture.pData, picture.pData + picture.u32Size);
    vecLonger.resize(vecLonger.size() + 333, 0xd8);
    float fX = 0;
    float fY = 0;

    ASSERT_LE(
        m_pFindPos(static_cast<uint32_t>(vecLonger.size()), 640, 480, vecLonger.data(), &fX, &fY),
        0);

    EXPECT_NEAR(1, static_cast<double>(fX), 0.03);
    EXPECT_NEAR(2, static_cast<double>(fY), 0.03);
}

TEST_F(Plugin, TinyPicturesDoNoHarm)
{
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(2, 1), cv::Size(1, 7), cv::Size(5, 5)}) {
        std::vector<uint8_t> vecJpeg;
        const cv::Mat red(size, CV_8UC3, cv::Scalar(255, 0, 0));
        ASSERT_TRUE(JpegCodec::encode(red, 95, vecJpeg));
        const uint32_t u32Size = static_cast<uint32_t>(vecJpeg.size());
        const uint32_t u32Width = static_cast<uint32_t>(size.width);
        const uint32_t u32Height = static_cast<uint32_t>(size.height);
        FRAME_PROCESS_UNDISTORT_T record{};
        float fValue = 0;

        EXPECT_GT(m_pFindPos(u32Size, u32Width, u32Height, vecJpeg.data(), &fValue, &fValue), 0);
        EXPECT_GT(m_pAutoFocus(u32Size, u32Width, u32Height, vecJpeg.data(), &fValue), 0);
        ASSERT_EQ(0, m_pUndistort(u32Size, u32Width, u32Height, vecJpeg.data(), &record));

        EXPECT_EQ(size.width, record.s32Width);
        EXPECT_EQ(size.height, record.s32Height);
        cv::Mat rgb;
        EXPECT_TRUE(
            JpegCodec::decode(record.pData, static_cast<size_t>(record.s32Size), size, rgb));
    }
}

TEST_F(Plugin, CorrectedPictureStaysWhileOtherThreadsCorrectTheirs)
{
    SceneCamera camera;
    const JpegPicture picture = camera.take();
    FRAME_PROCESS_UNDISTORT_T record{};
    ASSERT_EQ(0, m_pUndistort(picture.u32Size, 640, 480, picture.pData, &record));
    const std::vector<uint8_t> vecBefore(record.pData, record.pData + record.s32Size);

    std::vector<uint8_t> vecSmall; // fits into the memory of the first one
    ASSERT_TRUE(JpegCodec::encode(cv::Mat(48, 64, CV_8UC3, cv::Scalar(1, 2, 3)), 90, vecSmall));
    std::thread([&] {
        FRAME_PROCESS_UNDISTORT_T own{};
        EXPECT_EQ(
            0, m_pUndistort(static_cast<uint32_t>(vecSmall.size()), 64, 48, vecSmall.data(), &own));
        EXPECT_NE(record.pData, own.pData);
    }).join();

    EXPECT_TRUE(std::equal(vecBefore.begin(), vecBefore.end(), record.pData));
}

TEST_F(Plugin, ThreadsWorkSideBySide)
{
    SceneCamera camera;
    camera.setSpot(6, -7, 0);
    const JpegPicture picture = camera.take();
    std::vector<std::thread> vecThread(4);
    for (std::thread& thread : vecThread) {
        thread = std::thread([&] {
            for (int i = 0; i < 5; i++) {
                float fX = 0;
                float fY = 0;
                float fMeasure = 1;
                int32_t s32Exposure = 0;
                FRAME_PROCESS_UNDISTORT_T record{};
                EXPECT_LE(m_pFindPos(picture.u32Size, 640, 480, picture.pData, &fX, &fY), 0);
                EXPECT_LE(m_pAutoFocus(picture.u32Size, 640, 480, picture.pData, &fMeasure), 0);
                m_pSetExposure(&s32Exposure);
                EXPECT_EQ(0, m_pUndistort(picture.u32Size, 640, 480, picture.pData, &record));
                EXPECT_NEAR(6, static_cast<double>(fX), 0.03);
                EXPECT_NEAR(-7, static_cast<double>(fY), 0.03);
                EXPECT_EQ(0, fMeasure);
                EXPECT_GT(s32Exposure, 0);
                EXPECT_EQ(0xff, record.pData[0]);
                EXPECT_EQ(0xd8, record.pData[1]);
            }
        });
    }
    for (std::thread& thread : vecThread) {
        thread.join();
    }
}

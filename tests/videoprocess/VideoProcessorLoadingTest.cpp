// Loading the plug-in, whole, incomplete or not at all.
#include <thread>

#include <dlfcn.h>

#include "Eventually.h"
#include "Fault.h"
#include "IdlePrintEvent.h"
#include "VisionHost.h"

namespace {

using Lines = std::vector<std::string>;

const std::string PREFIX = "[debug] [videoprocess/VideoProcessor ] [init] ";

class VideoProcessorLoading : public VisionHost
{
protected:
    RET_E measure()
    {
        float fResult = 5;
        const RET_E eRet = m_host.measure(&fResult);
        EXPECT_EQ(RET_SUCCESS == eRet ? m_fMeasure : 0.0F, fResult);
        return eRet;
    }

    int idle()
    {
        std::vector<int32_t> vecValue;
        int32_t s32First = 0;
        int32_t s32Second = 0;
        IdlePrintEvent event(&vecValue, &s32First, &s32Second);
        return m_host.onIdlePrint(&event);
    }

    /** Whether a frame comes back as another one. */
    bool corrects()
    {
        VENC_FRAME_T header{};
        header.u32Size = 10;
        PVENC_FRAME_T in = makeFrame(header, "no picture");
        PVENC_FRAME_T out;
        m_host.undistort(in, out);
        return in.get() != out.get();
    }

    /** Nothing but the loader knows the loader's text. */
    static std::string loaderError()
    {
        EXPECT_EQ(nullptr, dlopen("./libframe_process.so", RTLD_LAZY));
        return dlerror();
    }

    float m_fMeasure = 0;
};

} // namespace

TEST_F(VideoProcessorLoading, NothingWorksBeforeInit)
{
    EXPECT_EQ(RET_FAILED, measure());
    EXPECT_EQ(RET_FAILED, idle());
    EXPECT_FALSE(corrects());
    EXPECT_EQ(RET_SUCCESS, m_host.uninit());
}

TEST_F(VideoProcessorLoading, MissingLibraryIsLoggedAndRefusesWhatNeedsIt)
{
    EXPECT_EQ(RET_SUCCESS, m_host.init());

    EXPECT_EQ(Lines{PREFIX + "open ./libframe_process.so failed(" + loaderError() + ") !\n"},
              messages());
    EXPECT_EQ(RET_FAILED, measure());
    EXPECT_EQ(RET_FAILED, idle());
    EXPECT_FALSE(corrects());
    EXPECT_EQ(RET_SUCCESS, m_host.uninit());
}

TEST_F(VideoProcessorLoading, FileThatIsNoLibraryIsLogged)
{
    m_folder.write("libframe_process.so", "no library");

    EXPECT_EQ(RET_SUCCESS, m_host.init());

    EXPECT_EQ(Lines{PREFIX + "open ./libframe_process.so failed(" + loaderError() + ") !\n"},
              messages());
    EXPECT_EQ(RET_FAILED, measure());
}

TEST_F(VideoProcessorLoading, NoEntryPointRunsBeforeThePluginsInitHas)
{
    startCapture();
    std::thread loader([this] { load("test_plugin_waiting"); });
    EXPECT_TRUE(eventually([] { return std::filesystem::exists("inside"); }));

    EXPECT_EQ(RET_FAILED, measure());
    EXPECT_EQ(RET_FAILED, idle());
    EXPECT_FALSE(corrects());

    m_folder.write("go", "");
    loader.join();
    EXPECT_EQ(Lines{"init"}, plugin().names());
    EXPECT_EQ(0, idle());
}

TEST_F(VideoProcessorLoading, WithoutMemoryAnIdlePrintIsRefusedAndTheNextIsNot)
{
    load("test_plugin");
    {
        FaultScope fault("malloc:1:ENOMEM"); // the subscription that waits for a frame
        EXPECT_EQ(RET_FAILED, idle());
        EXPECT_EQ(1u, faultHits());
    }

    startCapture();
    EXPECT_EQ(0, idle());
}

TEST_F(VideoProcessorLoading, FailedSecondInitKeepsWhatTheFirstHasLoaded)
{
    load("test_plugin");
    {
        FaultScope fault("dlopen:1:ENOENT");
        EXPECT_EQ(RET_SUCCESS, m_host.init());
        EXPECT_EQ(1u, faultHits());
    }

    startCapture();
    EXPECT_EQ(0, idle());
}

TEST_F(VideoProcessorLoading, CompletePluginIsInitialisedOnce)
{
    load("test_plugin");

    EXPECT_EQ(Lines{}, messages());
    EXPECT_EQ(Lines{"init"}, plugin().names());
}

// The names that the plug-in itself lacks are looked for when they are used.
TEST_F(VideoProcessorLoading, PluginThatLacksANameOfItsOwnIsLoaded)
{
    load("test_plugin_unresolved");

    ASSERT_EQ(Lines{}, messages());
    EXPECT_EQ(Lines{"init"}, plugin().names());
    startCapture();
    EXPECT_EQ(0, idle());
}

// The library stays mapped and in use.
TEST_F(VideoProcessorLoading, DeliberateUninitCallsThePluginAndNeverClosesIt)
{
    load("test_plugin");
    plugin().nUndistortResult = 0;
    uint8_t u8Picture = 1;
    plugin().undistorted = {1, 1, 1, &u8Picture};

    EXPECT_EQ(RET_SUCCESS, m_host.uninit());

    void* pHandle = dlopen("./libframe_process.so", RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(nullptr, pHandle);
    dlclose(pHandle);
    EXPECT_EQ((Lines{"init", "uninit"}), plugin().names());
    EXPECT_TRUE(corrects());
}

/** A library that lacks one name, and what still works without it and the later ones. */
struct MissingName
{
    const char* pName;
    bool bMeasures;
    bool bCorrects;
    bool bUninit;
};

/** What the C library says of a name that the loaded plug-in lacks. */
std::string symbolError(const std::string& strName)
{
    void* pHandle = dlopen("./libframe_process.so", RTLD_LAZY | RTLD_NOLOAD);
    EXPECT_EQ(nullptr, dlsym(pHandle, strName.c_str()));
    std::string strError = dlerror();
    dlclose(pHandle);
    return strError;
}

void PrintTo(const MissingName& missing, std::ostream* pStream)
{
    *pStream << missing.pName;
}

class VideoProcessorLoadingMissingName : public VideoProcessorLoading,
                                         public testing::WithParamInterface<MissingName>
{
};

TEST_P(VideoProcessorLoadingMissingName, IsLoggedAndRefusesWhatNeedsItOrALaterOne)
{
    const std::string strName = GetParam().pName;
    load("test_plugin_without_" + strName);
    uint8_t u8Picture = 1;
    plugin().undistorted = {1, 1, 1, &u8Picture};
    plugin().fMeasure = m_fMeasure = 2.5F;

    EXPECT_EQ(Lines{PREFIX + "dlsym " + strName + " failed(" + symbolError(strName) + ") !\n"},
              messages());
    EXPECT_EQ(Lines{}, plugin().names()); // not initialised
    if (GetParam().bMeasures) {
        startCapture();
    }
    EXPECT_EQ(GetParam().bMeasures ? RET_SUCCESS : RET_FAILED, measure());
    EXPECT_EQ(GetParam().bCorrects, corrects());
    EXPECT_EQ(RET_FAILED, idle());
    const size_t uCalls = plugin().names().size();
    EXPECT_EQ(RET_SUCCESS, m_host.uninit());
    EXPECT_EQ(uCalls + (GetParam().bUninit ? 1 : 0), plugin().names().size());
}

INSTANTIATE_TEST_SUITE_P(Names, VideoProcessorLoadingMissingName,
                         testing::Values(MissingName{"init", false, false, false},
                                         MissingName{"uninit", false, false, false},
                                         MissingName{"undistort", false, false, true},
                                         MissingName{"autoFocus", false, true, true},
                                         MissingName{"findPos", false, true, true},
                                         MissingName{"setExposure", false, true, true},
                                         MissingName{"easyFun", true, true, true}),
                         [](const testing::TestParamInfo<MissingName>& missing) {
                             return missing.param.pName;
                         });

// The plug-in's seven entry points.
#include "frame_process.h"

#include <cstdio>
#include <string>
#include <vector>

#include <dlfcn.h>

#include "FrameProcessor.h"
#include "LensFile.h"
#include "Parameters.h"

namespace {

const char LENS_FILE[] = "lens.yml";

/** Where this library was loaded from, with a last slash; "" for the working directory. */
std::string ownFolder()
{
    Dl_info info{};
    if (0 == dladdr(LENS_FILE, &info) || nullptr == info.dli_fname) {
        return std::string();
    }
    const std::string strLibrary = info.dli_fname;
    return strLibrary.substr(0, strLibrary.rfind('/') + 1); // none found: 0
}

/** What the entry points work with. */
class Plugin
{
public:
    static Plugin& getInstance()
    {
        // Never destroyed: the service keeps the library loaded to its end, and its threads may
        // still be here while the process exits.
        static Plugin* const s_pPlugin = new Plugin;
        return *s_pPlugin;
    }

    FrameProcessor& processor()
    {
        return m_processor;
    }

    /** Positions and corrected pictures of an unknown lens would be wrong: there are none. */
    bool knowsItsLens() const
    {
        return LensFile::UNUSABLE != m_eLens;
    }

private:
    Plugin() : m_eLens(LensFile::ABSENT), m_processor(parameters(m_eLens)) {}

    static Parameters parameters(LensFile::RESULT_E& eLens)
    {
        Parameters parameters;
        const std::string strPath = ownFolder() + LENS_FILE;
        std::string strReason;
        eLens = LensFile::read(strPath, parameters, strReason);
        if (LensFile::UNUSABLE == eLens) {
            fprintf(stderr, "libframe_process.so: %s: %s; nothing is measured or corrected\n",
                    strPath.c_str(), strReason.c_str());
        }
        return parameters;
    }

    LensFile::RESULT_E m_eLens; // before m_processor, whose construction sets it
    FrameProcessor m_processor;
};

// A corrected picture belongs to the thread that asked for it, until that thread asks again.
thread_local std::vector<uint8_t> t_vecCorrected;

// C callers can't catch: whatever an operation throws becomes a result.
template <typename OPERATION> int guarded(const OPERATION& operation) noexcept
{
    try {
        return operation();
    } catch (...) {
        return FrameProcessor::RESULT_ERROR;
    }
}

// An operation on what a picture shows of the workpiece.
template <typename OPERATION> int measured(const OPERATION& operation) noexcept
{
    return guarded([&] {
        Plugin& plugin = Plugin::getInstance();
        return plugin.knowsItsLens() ? operation(plugin.processor())
                                     : FrameProcessor::RESULT_NO_LENS;
    });
}

void reset()
{
    (void)guarded([] { // nobody could be told
        Plugin::getInstance().processor().reset();
        return FrameProcessor::RESULT_OK;
    });
}

} // namespace

// No entry point calls another: a program's own "init" would be called instead.

void init(void)
{
    reset();
}

void uninit(void)
{
    reset();
}

int undistort(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
              struct FRAME_PROCESS_UNDISTORT_T* pOut)
{
    return measured([&](FrameProcessor& processor) {
        const FrameProcessor::RESULT_E eResult =
            processor.undistort({pData, u32Size, u32Width, u32Height}, t_vecCorrected);
        if (FrameProcessor::RESULT_OK == eResult) {
            pOut->s32Size = static_cast<int32_t>(t_vecCorrected.size());
            pOut->s32Width = static_cast<int32_t>(u32Width);
            pOut->s32Height = static_cast<int32_t>(u32Height);
            pOut->pData = t_vecCorrected.data();
        }
        return eResult;
    });
}

int autoFocus(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
              float* pMeasure)
{
    return measured([&](FrameProcessor& processor) {
        double dHomed = 0;
        const FrameProcessor::RESULT_E eResult =
            processor.autoFocus({pData, u32Size, u32Width, u32Height}, dHomed);
        if (FrameProcessor::RESULT_OK == eResult) {
            *pMeasure = static_cast<float>(dHomed);
        }
        return eResult;
    });
}

int findPos(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
            float* pX, float* pY)
{
    return measured([&](FrameProcessor& processor) {
        cv::Point2d millimetre;
        const FrameProcessor::RESULT_E eResult =
            processor.findPosition({pData, u32Size, u32Width, u32Height}, millimetre);
        if (FrameProcessor::RESULT_OK == eResult) {
            *pX = static_cast<float>(millimetre.x);
            *pY = static_cast<float>(millimetre.y);
        }
        return eResult;
    });
}

void setExposure(int32_t* pExposure)
{
    (void)guarded([&] { // the caller's 0 stays
        *pExposure = Plugin::getInstance().processor().suggestExposure();
        return FrameProcessor::RESULT_OK;
    });
}

// The print service's values have no meaning to a camera: they stay as they are.
void easyFun(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
             int32_t* /*pArg1*/, int32_t* /*pArg2*/, void* /*pValues*/)
{
    (void)guarded([&] { // has no result
        return Plugin::getInstance().processor().look({pData, u32Size, u32Width, u32Height});
    });
}

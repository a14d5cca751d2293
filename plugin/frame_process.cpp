// The plug-in's seven entry points.
#include "frame_process.h"

#include <vector>

#include "FrameProcessor.h"
#include "Parameters.h"

namespace {

FrameProcessor& processor()
{
    // Never destroyed: the service keeps the library loaded to its end, and its threads may still
    // be here while the process exits.
    static FrameProcessor* const s_pProcessor = new FrameProcessor(Parameters());
    return *s_pProcessor;
}

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

void reset()
{
    (void)guarded([] { // nobody could be told
        processor().reset();
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
    return guarded([&] {
        const FrameProcessor::RESULT_E eResult =
            processor().undistort({pData, u32Size, u32Width, u32Height}, t_vecCorrected);
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
    return guarded([&] {
        double dHomed = 0;
        const FrameProcessor::RESULT_E eResult =
            processor().autoFocus({pData, u32Size, u32Width, u32Height}, dHomed);
        if (FrameProcessor::RESULT_OK == eResult) {
            *pMeasure = static_cast<float>(dHomed);
        }
        return eResult;
    });
}

int findPos(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
            float* pX, float* pY)
{
    return guarded([&] {
        cv::Point2d millimetre;
        const FrameProcessor::RESULT_E eResult =
            processor().findPosition({pData, u32Size, u32Width, u32Height}, millimetre);
        if (FrameProcessor::RESULT_OK == eResult) {
            *pX = static_cast<float>(millimetre.x);
            *pY = static_cast<float>(millimetre.y);
        }
        return eResult;
    });
}

void setExposure(int32_t* pExposure)
{
    (void)guarded([&] { // the caller keeps its 0
        *pExposure = processor().suggestExposure();
        return FrameProcessor::RESULT_OK;
    });
}

// The print service's values have no meaning to a camera: they stay as they are.
void easyFun(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
             int32_t* /*pArg1*/, int32_t* /*pArg2*/, void* /*pValues*/)
{
    (void)guarded([&] { // has no result
        return processor().look({pData, u32Size, u32Width, u32Height});
    });
}

// The plug-in's operations, on whole JPEG pictures.
#include "FrameProcessor.h"

#include "JpegCodec.h"
#include "SpotFinder.h"

FrameProcessor::FrameProcessor(const Parameters& parameters)
    : m_parameters(parameters), m_exposureAdvisor(parameters), m_focusJudge(parameters)
{
    cv::setNumThreads(0); // the service's threads are the service's
}

void FrameProcessor::reset()
{
    const std::lock_guard<std::mutex> guard(m_mtxState);
    m_exposureAdvisor = ExposureAdvisor(m_parameters);
    m_focusJudge = FocusJudge(m_parameters);
}

bool FrameProcessor::read(const JpegPicture& picture, ExposureAdvisor::TAKEN_E eTaken, cv::Mat& rgb)
{
    const uint32_t u32MaxSide = static_cast<uint32_t>(m_parameters.nMaxSide);
    if (0 == picture.u32Width || picture.u32Width > u32MaxSide || 0 == picture.u32Height ||
        picture.u32Height > u32MaxSide) {
        return false;
    }
    const cv::Size size(static_cast<int>(picture.u32Width), static_cast<int>(picture.u32Height));
    if (!JpegCodec::decode(picture.pData, picture.u32Size, size, rgb)) {
        return false;
    }
    const int nMedian = ExposureAdvisor::median(rgb);
    const std::lock_guard<std::mutex> guard(m_mtxState);
    m_exposureAdvisor.see(nMedian, eTaken);
    return true;
}

FrameProcessor::RESULT_E FrameProcessor::undistort(const JpegPicture& picture,
                                                   std::vector<uint8_t>& vecOut)
{
    cv::Mat rgb;
    if (!read(picture, ExposureAdvisor::TAKEN_AFTER_SUGGESTION, rgb)) {
        return RESULT_BAD_PICTURE;
    }
    cv::Mat corrected;
    LensModel(m_parameters, rgb.size()).rectify(rgb, cv::Rect(cv::Point(), rgb.size()), corrected);
    return JpegCodec::encode(corrected, m_parameters.nJpegQuality, vecOut) ? RESULT_OK
                                                                           : RESULT_ERROR;
}

FrameProcessor::RESULT_E FrameProcessor::findSpot(const JpegPicture& picture,
                                                  ExposureAdvisor::TAKEN_E eTaken,
                                                  cv::Point2d& millimetre, double& dSigmaMm)
{
    cv::Mat rgb;
    if (!read(picture, eTaken, rgb)) {
        return RESULT_BAD_PICTURE;
    }
    const LensModel lens(m_parameters, rgb.size());
    Spot spot;
    if (!SpotFinder::find(rgb, lens, m_parameters, spot)) {
        return RESULT_NO_SPOT;
    }
    millimetre = lens.toMillimetre(spot.ideal);
    dSigmaMm = spot.dSigma / lens.pixelsPerMillimetre();
    return RESULT_OK;
}

FrameProcessor::RESULT_E FrameProcessor::autoFocus(const JpegPicture& picture, double& dCorrection)
{
    cv::Point2d millimetre;
    double dSigmaMm = 0;
    const RESULT_E eResult =
        findSpot(picture, ExposureAdvisor::TAKEN_AFTER_SUGGESTION, millimetre, dSigmaMm);
    if (RESULT_OK == eResult) {
        const std::lock_guard<std::mutex> guard(m_mtxState);
        dCorrection = m_focusJudge.correction(dSigmaMm);
    }
    return eResult;
}

FrameProcessor::RESULT_E FrameProcessor::findPosition(const JpegPicture& picture,
                                                      cv::Point2d& millimetre)
{
    // The service fetches the picture first, then asks for an exposure, then for the position.
    double dSigmaMm = 0;
    return findSpot(picture, ExposureAdvisor::TAKEN_BEFORE_SUGGESTION, millimetre, dSigmaMm);
}

FrameProcessor::RESULT_E FrameProcessor::look(const JpegPicture& picture)
{
    cv::Mat rgb;
    return read(picture, ExposureAdvisor::TAKEN_AFTER_SUGGESTION, rgb) ? RESULT_OK
                                                                       : RESULT_BAD_PICTURE;
}

int FrameProcessor::suggestExposure()
{
    const std::lock_guard<std::mutex> guard(m_mtxState);
    return m_exposureAdvisor.suggest();
}

// The plug-in's operations, on whole JPEG pictures.
#include "FrameProcessor.h"

#include <cmath>

#include "JpegCodec.h"
#include "LensModel.h"
#include "SpotFinder.h"

static const cv::Point2d NOWHERE(NAN, NAN);

FrameProcessor::FrameProcessor(const Parameters& parameters)
    : m_parameters(parameters), m_exposureAdvisor(parameters), m_focusJudge(parameters),
      m_lastMillimetre(NOWHERE)
{
    cv::setNumThreads(0); // the service's threads are the service's
}

void FrameProcessor::reset()
{
    const std::lock_guard<std::mutex> guard(m_mtxState);
    m_exposureAdvisor = ExposureAdvisor(m_parameters);
    m_focusJudge = FocusJudge(m_parameters);
    m_lastMillimetre = NOWHERE;
}

bool FrameProcessor::read(const JpegPicture& picture, ExposureAdvisor::TAKEN_E eTaken, cv::Mat& rgb,
                          JpegCoding* pCoding, int* pMedian)
{
    const uint32_t u32MaxSide = static_cast<uint32_t>(m_parameters.nMaxSide);
    if (0 == picture.u32Width || picture.u32Width > u32MaxSide || 0 == picture.u32Height ||
        picture.u32Height > u32MaxSide) {
        return false;
    }
    const cv::Size size(static_cast<int>(picture.u32Width), static_cast<int>(picture.u32Height));
    if (!JpegCodec::decode(picture.pData, picture.u32Size, size, rgb, pCoding)) {
        return false;
    }
    const int nMedian = ExposureAdvisor::median(rgb);
    if (nullptr != pMedian) {
        *pMedian = nMedian;
    }
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
                                                  ExposureAdvisor::TAKEN_E eTaken, SpotSeen& seen)
{
    cv::Mat rgb;
    JpegCoding coding;
    int nMedian = 0;
    if (!read(picture, eTaken, rgb, &coding, &nMedian)) {
        return RESULT_BAD_PICTURE;
    }
    if (nMedian > m_parameters.nMaxMedian) {
        return RESULT_TOO_BRIGHT;
    }
    const LensModel lens(m_parameters, rgb.size());
    Spot spot;
    const SpotFinder::RESULT_E eFound = SpotFinder::find(rgb, coding, lens, m_parameters, spot);
    if (SpotFinder::FOUND != eFound) {
        return SpotFinder::OVEREXPOSED == eFound ? RESULT_TOO_BRIGHT : RESULT_NO_SPOT;
    }
    seen.millimetre = lens.toMillimetre(spot.ideal);
    seen.dSigmaMm = spot.dSigma / lens.pixelsPerMillimetre();
    seen.dRedness = spot.dRedness;
    seen.dClipped = spot.dClipped;
    seen.dBrightness = spot.dBrightness;
    // The same light on less of the workpiece.
    const double dRatio = seen.dSigmaMm / m_parameters.dFocusedSigmaMm;
    return seen.dRedness * dRatio * dRatio < m_parameters.dMinFocusedRedness ? RESULT_TOO_DARK
                                                                             : RESULT_OK;
}

FrameProcessor::RESULT_E FrameProcessor::autoFocus(const JpegPicture& picture, double& dHomed)
{
    SpotSeen seen{};
    const RESULT_E eResult = findSpot(picture, ExposureAdvisor::TAKEN_AFTER_SUGGESTION, seen);
    if (RESULT_OK != eResult) {
        return eResult;
    }
    if (seen.dClipped > m_parameters.dMaxClippedForFocus) {
        return RESULT_TOO_BRIGHT;
    }
    if (seen.dRedness < m_parameters.dMinFocusRedness) {
        return RESULT_NO_FOCUS;
    }
    const std::lock_guard<std::mutex> guard(m_mtxState);
    if (!m_focusJudge.judge(seen.dSigmaMm, dHomed, seen.dRedness)) {
        return RESULT_NO_FOCUS;
    }
    if (m_focusJudge.wantsLight()) {
        m_exposureAdvisor.brighten(m_parameters.dSpotBrightness / seen.dBrightness);
    }
    return RESULT_OK;
}

FrameProcessor::RESULT_E FrameProcessor::findPosition(const JpegPicture& picture,
                                                      cv::Point2d& millimetre)
{
    // The service fetches the picture first, then asks for an exposure, then for the position.
    SpotSeen seen{};
    const RESULT_E eResult = findSpot(picture, ExposureAdvisor::TAKEN_BEFORE_SUGGESTION, seen);
    if (RESULT_OK != eResult) {
        return eResult;
    }
    const bool bWidthKnown = seen.dClipped <= m_parameters.dMaxClippedForSide;
    const std::lock_guard<std::mutex> guard(m_mtxState);
    m_focusJudge.seeBefore(bWidthKnown ? seen.dSigmaMm : 0);
    if (!(cv::norm(seen.millimetre - m_lastMillimetre) <= m_parameters.dStillMm)) {
        m_lastMillimetre = seen.millimetre;
    }
    millimetre = m_lastMillimetre;
    return RESULT_OK;
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

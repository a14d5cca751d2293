// Suggests an exposure from the brightness of the last picture.
#include "ExposureAdvisor.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>

ExposureAdvisor::ExposureAdvisor(const Parameters& parameters)
    : m_parameters(parameters), m_nSuggested(parameters.nStartExposure),
      m_nBefore(parameters.nStartExposure)
{
}

int ExposureAdvisor::median(const cv::Mat& rgb)
{
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    const int anChannel[] = {0};
    const int anBins[] = {256};
    const float afRange[] = {0, 256};
    const float* apRange[] = {afRange};
    cv::Mat histogram;
    cv::calcHist(&grey, 1, anChannel, cv::noArray(), histogram, 1, anBins, apRange);
    const double dHalf = static_cast<double>(grey.total()) / 2;
    double dBelow = 0;
    int nLevel = 0;
    while (nLevel < 255 && (dBelow += static_cast<double>(histogram.at<float>(nLevel))) < dHalf) {
        nLevel++;
    }
    return nLevel;
}

void ExposureAdvisor::see(int nMedian, TAKEN_E eTaken)
{
    m_nMedian = nMedian;
    m_nMedianExposure = TAKEN_BEFORE_SUGGESTION == eTaken ? m_nBefore : m_nSuggested;
}

void ExposureAdvisor::brighten(double dFactor)
{
    m_dBrighten = std::clamp(dFactor, 1.0, m_parameters.dMaxBrightening);
}

int ExposureAdvisor::suggest()
{
    m_nBefore = m_nSuggested;
    if (m_nMedian >= 0) {
        const double dFactor =
            std::clamp(static_cast<double>(m_parameters.nTargetMedian) / std::max(m_nMedian, 1),
                       1 / m_parameters.dMaxExposureStep, m_parameters.dMaxExposureStep);
        m_nSuggested = std::clamp(cvRound(m_nMedianExposure * dFactor * m_dBrighten),
                                  m_parameters.nMinExposure, m_parameters.nMaxExposure);
        m_dBrighten = 1;
    }
    return m_nSuggested;
}

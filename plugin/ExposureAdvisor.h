// Suggests an exposure from the brightness of the last picture.
#pragma once

#include <opencv2/core.hpp>

#include "Parameters.h"

/**
 * Assumes that the camera follows each suggestion and that brightness is proportional to exposure.
 * Where it is not, because the picture is clipped, repeating gets there as well. A camera whose
 * brightness doesn't follow ends at the shortest or the longest exposure.
 *
 * Not thread-safe.
 */
class ExposureAdvisor
{
public:
    enum TAKEN_E
    {
        TAKEN_BEFORE_SUGGESTION, // the last one did not yet apply
        TAKEN_AFTER_SUGGESTION,
    };

    explicit ExposureAdvisor(const Parameters& parameters);

    /** Brightness of a picture's median pixel, 0 to 255. rgb: 8 bits per channel, not empty. */
    static int median(const cv::Mat& rgb);

    /** Remember a picture's median and the exposure that it was taken with. */
    void see(int nMedian, TAKEN_E eTaken);

    /** Make only the next suggestion longer by a factor; below 1 counts as 1. */
    void brighten(double dFactor);

    /** @return exposure_absolute; without a new picture the same again */
    int suggest();

private:
    Parameters m_parameters;
    int m_nSuggested;          // last
    int m_nBefore;             // the one before it
    int m_nMedian = -1;        // of the last picture; -1: none yet
    int m_nMedianExposure = 0; // with which it was taken
    double m_dBrighten = 1;    // of the next suggestion
};

// Finds the red laser spot in a picture.
#pragma once

#include <opencv2/core.hpp>

#include "LensModel.h"
#include "Parameters.h"

/** The spot, free of the lens's distortion. */
struct Spot
{
    cv::Point2d ideal; // centre, as LensModel has it
    double dSigma = 0; // standard deviation of its profile on the workpiece, in ideal pixels
};

/** No state; any thread. */
class SpotFinder
{
public:
    /**
     * The reddest patch, its centre to a fraction of a pixel.
     * @param rgb   8 bits per channel, red first, of the lens's picture size
     * @return false when nothing is red enough, or when the picture's edge cuts the patch so far
     *         that its centre could only be guessed
     */
    static bool find(const cv::Mat& rgb, const LensModel& lens, const Parameters& parameters,
                     Spot& spot);
};

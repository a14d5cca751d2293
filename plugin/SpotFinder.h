// Finds the red laser spot in a picture.
#pragma once

#include <opencv2/core.hpp>

#include "JpegCodec.h"
#include "LensModel.h"
#include "Parameters.h"

/** The spot, free of the lens's distortion. */
struct Spot
{
    cv::Point2d ideal;   // centre, as LensModel has it
    double dSigma = 0;   // standard deviation of its profile on the workpiece, in ideal pixels
    double dRedness = 0; // at the centre, as if no pixel were clipped
    /** Part of the spot's light that fell on pixels at the end of their range, 0 to 1. */
    double dClipped = 0;
    double dBrightness = 1; // of the brightest pixel there and around, in any colour, 1 to 255
};

/** No state; any thread. */
class SpotFinder
{
public:
    enum RESULT_E
    {
        FOUND,
        NO_SPOT,
        OVEREXPOSED,
    };

    /**
     * The reddest patch, its centre to a fraction of a pixel. Pixels at the end of their range,
     * where a bright spot's top is cut off, say nothing: centre and width are fitted to the others.
     * @param rgb   8 bits per channel, red first, of the lens's picture size
     * @param coding  of the picture
     * @return OVEREXPOSED when more of it than dMaxClipped is cut off; NO_SPOT when nothing is red
     *         enough, or when the picture's edge cuts the patch so far that its centre could only
     *         be guessed
     */
    static RESULT_E find(const cv::Mat& rgb, const JpegCoding& coding, const LensModel& lens,
                         const Parameters& parameters, Spot& spot);
};

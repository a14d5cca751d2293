// Finds the red laser spot in a picture.
#include "SpotFinder.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace {

const double SMOOTHING_SIGMA = 2.0; // pixels; a spot in focus is wider
const double WINDOW_SIGMAS = 4.0;   // a Gaussian has nothing left beyond
const double EDGE_SIGMAS = 1.5;     // what a spot must keep from the picture's edge
const int MAX_ROUNDS = 50;
const double ROUND_ENOUGH = 1e-3; // pixels

struct Patch
{
    cv::Point2d seen; // centre, in the picture
    double dSigma;    // rough
};

// The region around the reddest pixel that is at least half as red.
bool findPatch(const cv::Mat& rgb, double dMinRedness, Patch& patch)
{
    cv::Mat channel[3];
    cv::split(rgb, channel);
    // Against the larger of the others: yellow and white light are not red.
    const cv::Mat redness = channel[0] - cv::max(channel[1], channel[2]); // saturates at 0
    cv::Mat smooth;
    cv::GaussianBlur(redness, smooth, cv::Size(), SMOOTHING_SIGMA);
    double dPeak = 0;
    cv::Point peak;
    cv::minMaxLoc(smooth, nullptr, &dPeak, nullptr, &peak);
    if (dPeak < dMinRedness) {
        return false;
    }

    cv::Mat labels;
    cv::Mat statistics;
    cv::Mat centroids;
    cv::connectedComponentsWithStats(smooth >= dPeak / 2, labels, statistics, centroids);
    const int nLabel = labels.at<int>(peak);
    patch.seen = {centroids.at<double>(nLabel, 0), centroids.at<double>(nLabel, 1)};
    // Half of its height or more a Gaussian has on an area of 2 pi ln 2 sigma^2.
    const double dArea = statistics.at<int>(nLabel, cv::CC_STAT_AREA);
    patch.dSigma = std::sqrt(dArea / (2 * CV_PI * std::log(2.0)));
    return true;
}

// Red against the mean of the others: signed, so that noise averages out; the border's mean is
// what the surroundings add.
cv::Mat signedRedness(const cv::Mat& window)
{
    cv::Mat redness;
    cv::transform(window, redness, cv::Matx13d(1.0, -0.5, -0.5));
    const int nLastRow = redness.rows - 1;
    const int nLastCol = redness.cols - 1;
    const double dBorder = (cv::mean(redness.row(0))[0] + cv::mean(redness.row(nLastRow))[0] +
                            cv::mean(redness.col(0))[0] + cv::mean(redness.col(nLastCol))[0]) /
                           4;
    return redness - dBorder;
}

// Moments under a Gaussian weight that is fitted to the spot round by round: what is far from the
// spot counts for nothing. A Gaussian of variance s seen through a weight of variance w has the
// variance 1 / (1 / s + 1 / w).
bool fit(const cv::Mat& redness, cv::Point2d& centre, double& dSigma)
{
    for (int i = 0; i < MAX_ROUNDS; i++) {
        const double dWeightVariance = dSigma * dSigma;
        double dSum = 0;
        double dSumX = 0;
        double dSumY = 0;
        double dSumSquares = 0;
        for (int y = 0; y < redness.rows; y++) {
            const float* pRow = redness.ptr<float>(y);
            for (int x = 0; x < redness.cols; x++) {
                const double dX = x - centre.x;
                const double dY = y - centre.y;
                const double dSquare = dX * dX + dY * dY;
                const double dMass =
                    static_cast<double>(pRow[x]) * std::exp(-dSquare / (2 * dWeightVariance));
                dSum += dMass;
                dSumX += dMass * dX;
                dSumY += dMass * dY;
                dSumSquares += dMass * dSquare;
            }
        }
        if (dSum <= 0 || dSumSquares <= 0) {
            return false;
        }
        // The product of both Gaussians lies half way when both are equally wide.
        const cv::Point2d step(2 * dSumX / dSum, 2 * dSumY / dSum);
        const double dVariance = dSumSquares / dSum / 2;
        const double dInverse =
            std::max(1 / dVariance - 1 / dWeightVariance, 0.25 / dWeightVariance);
        const double dNewSigma = std::sqrt(1 / dInverse);
        const bool bEnough = std::hypot(step.x, step.y) < ROUND_ENOUGH &&
                             std::fabs(dNewSigma - dSigma) < ROUND_ENOUGH;
        centre += step;
        dSigma = dNewSigma;
        if (centre.x < 0 || centre.y < 0 || centre.x > redness.cols - 1 ||
            centre.y > redness.rows - 1) {
            return false;
        }
        if (bEnough) {
            return true;
        }
    }
    return false;
}

} // namespace

bool SpotFinder::find(const cv::Mat& rgb, const LensModel& lens, const Parameters& parameters,
                      Spot& spot)
{
    Patch patch{};
    if (!findPatch(rgb, parameters.dMinRedness, patch)) {
        return false;
    }
    const double dKeep = EDGE_SIGMAS * patch.dSigma;
    if (patch.seen.x < dKeep || patch.seen.y < dKeep || patch.seen.x > rgb.cols - 1 - dKeep ||
        patch.seen.y > rgb.rows - 1 - dKeep) {
        return false;
    }

    const cv::Point2d rough = lens.toIdeal(patch.seen);
    const int nHalf = cvCeil(WINDOW_SIGMAS * patch.dSigma) + 1;
    const cv::Rect window(cvRound(rough.x) - nHalf, cvRound(rough.y) - nHalf, 2 * nHalf + 1,
                          2 * nHalf + 1);
    cv::Mat pixels;
    rgb.convertTo(pixels, CV_32F);
    cv::Mat rectified;
    lens.rectify(pixels, window, rectified);
    const cv::Point2d corner = window.tl();
    cv::Point2d centre = rough - corner;
    double dSigma = patch.dSigma;
    if (!fit(signedRedness(rectified), centre, dSigma)) {
        return false;
    }
    spot.ideal = centre + corner;
    const double dBlur = parameters.dPictureBlurPixels;
    spot.dSigma =
        std::sqrt(std::max(dSigma * dSigma - dBlur * dBlur, 0.25)); // at least half a pixel
    return true;
}

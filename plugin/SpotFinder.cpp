// Finds the red laser spot in a picture.
#include "SpotFinder.h"

#include <algorithm>
#include <cmath>
#include <new>

#include <opencv2/imgproc.hpp>

namespace {

const double SMOOTHING_SIGMA = 2.0; // pixels; a spot in focus is wider
const double WINDOW_SIGMAS = 4.0;   // a Gaussian has nothing left beyond
const double REACH_SIGMAS = 3.8;    // what is fitted to when nothing is clipped
const double EDGE_SIGMAS = 1.5;     // what a spot must keep from the picture's edge
const int MAX_ROUNDS = 60;
const int MAX_WINDOWS = 4;
const double WINDOW_FITS = 0.05;  // difference of the widths that the window was made for and found
const double ROUND_ENOUGH = 1e-3; // pixels
const int LEAST_PIXELS = 20;

// Redness for the fit is signed, so that noise averages out: red against this much green and the
// rest blue. JPEG stores red and blue by their difference from the brightness, in whole numbers,
// and what a weak red loses by that shows less against blue. This share and REACH_SIGMAS are those
// with the smallest error of the width over the virtual camera's exposures.
const double GREEN_SHARE = 0.35;

const double DRAWN_GREY = 128;
const int CODING_ROUNDS = 3;
const double MOST_CODING_PIXELS = 1; // larger differences are no work of the coding
const double MOST_CODING_SHARE = 0.25;
const double MOST_CLIPPED_TO_DRAW = 0.02;

// JPEG lets a value overshoot or fall short of the end of its range by some levels.
const int CLIPPED = 250;
// Beside a clipped pixel its colour is wrong too: the camera stores one for two or four pixels.
const int CLIPPED_REACH = 1;

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

// 1 where a pixel may be believed, 0 at and beside those at the end of their range.
cv::Mat believable(const cv::Mat& rgb)
{
    cv::Mat channel[3];
    cv::split(rgb, channel);
    const cv::Mat brightest = cv::max(channel[0], cv::max(channel[1], channel[2]));
    cv::Mat clipped;
    const int nSide = 2 * CLIPPED_REACH + 1;
    cv::dilate(brightest >= CLIPPED, clipped, cv::Mat::ones(nSide, nSide, CV_8U));
    cv::Mat result;
    clipped.convertTo(result, CV_32F, -1.0 / 255, 1);
    return result;
}

double brightest(const cv::Mat& rgb, const cv::Rect& area)
{
    const cv::Mat part = rgb(area & cv::Rect(cv::Point(), rgb.size()));
    double dBrightest = 0;
    cv::minMaxLoc(part.reshape(1), nullptr, &dBrightest);
    return dBrightest;
}

// A Gaussian on even ground.
struct Profile
{
    cv::Point2d centre;
    double dSigma;
    double dHeight;
    double dGround;
    double dReach; // how far from the centre pixels are looked at
};

struct Window
{
    cv::Mat redness; // of each pixel
    cv::Mat trust;   // 1: may be believed
};

// Sum of squared differences over the pixels that may be believed, with the normal equations of the
// next step: unknowns height, x, y, sigma, ground.
double compare(const Window& window, const Profile& profile, cv::Matx<double, 5, 5>& matrix,
               cv::Vec<double, 5>& vector, int& nPixels)
{
    matrix = cv::Matx<double, 5, 5>::zeros();
    vector = cv::Vec<double, 5>::all(0);
    nPixels = 0;
    double dSquares = 0;
    const double dVariance = profile.dSigma * profile.dSigma;
    for (int y = 0; y < window.redness.rows; ++y) {
        const float* const pRedness = window.redness.ptr<float>(y);
        const float* const pTrust = window.trust.ptr<float>(y);
        for (int x = 0; x < window.redness.cols; ++x) {
            if (pTrust[x] < 0.999F) { // between pixels it is a mean
                continue;
            }
            const double dX = x - profile.centre.x;
            const double dY = y - profile.centre.y;
            const double dSquare = dX * dX + dY * dY;
            if (dSquare > profile.dReach * profile.dReach) {
                continue;
            }
            const double dWeight = std::exp(-dSquare / (2 * dVariance));
            const double dLight = profile.dHeight * dWeight;
            const double dDifference = static_cast<double>(pRedness[x]) - dLight - profile.dGround;
            const double adSlope[5] = {dWeight, dLight * dX / dVariance, dLight * dY / dVariance,
                                       dLight * dSquare / (dVariance * profile.dSigma), 1};
            for (int i = 0; i < 5; ++i) {
                for (int j = 0; j <= i; ++j) {
                    matrix(i, j) += adSlope[i] * adSlope[j];
                }
                vector[i] += adSlope[i] * dDifference;
            }
            dSquares += dDifference * dDifference;
            ++nPixels;
        }
    }
    for (int i = 0; i < 5; ++i) {
        for (int j = i + 1; j < 5; ++j) {
            matrix(i, j) = matrix(j, i);
        }
    }
    return dSquares;
}

// Least squares by Levenberg and Marquardt's method.
bool fit(const Window& window, Profile& profile)
{
    cv::Matx<double, 5, 5> matrix;
    cv::Vec<double, 5> vector;
    int nPixels = 0;
    double dSquares = compare(window, profile, matrix, vector, nPixels);
    double dDamping = 1e-3;
    for (int i = 0; i < MAX_ROUNDS; ++i) {
        if (nPixels < LEAST_PIXELS) {
            return false;
        }
        cv::Matx<double, 5, 5> damped = matrix;
        for (int j = 0; j < 5; ++j) {
            damped(j, j) *= 1 + dDamping;
        }
        cv::Vec<double, 5> step;
        if (!cv::solve(damped, vector, step, cv::DECOMP_CHOLESKY)) {
            return false;
        }
        Profile next = profile;
        next.dHeight += step[0];
        next.centre += cv::Point2d(step[1], step[2]);
        next.dSigma += step[3];
        next.dGround += step[4];
        cv::Matx<double, 5, 5> nextMatrix;
        cv::Vec<double, 5> nextVector;
        const double dNextSquares = next.dSigma < 0.3 || next.dSigma > window.redness.cols
                                        ? INFINITY
                                        : compare(window, next, nextMatrix, nextVector, nPixels);
        if (!(dNextSquares <= dSquares)) {
            dDamping *= 10;
            if (dDamping > 1e9) {
                return false;
            }
            continue;
        }
        const bool bEnough =
            std::hypot(step[1], step[2]) < ROUND_ENOUGH && std::fabs(step[3]) < ROUND_ENOUGH;
        profile = next;
        dSquares = dNextSquares;
        matrix = nextMatrix;
        vector = nextVector;
        dDamping = std::max(dDamping / 10, 1e-9);
        if (bEnough) {
            return profile.dHeight > 0;
        }
    }
    return false;
}

double clippedShare(const Window& window, const Profile& profile)
{
    double dAll = 0;
    double dClipped = 0;
    for (int y = 0; y < window.trust.rows; ++y) {
        const float* const pTrust = window.trust.ptr<float>(y);
        for (int x = 0; x < window.trust.cols; ++x) {
            const double dX = x - profile.centre.x;
            const double dY = y - profile.centre.y;
            const double dWeight =
                std::exp(-(dX * dX + dY * dY) / (2 * profile.dSigma * profile.dSigma));
            dAll += dWeight;
            dClipped += pTrust[x] < 0.999F ? dWeight : 0;
        }
    }
    return dClipped / dAll;
}

// Redness and trust of a whole picture.
struct Seen
{
    cv::Mat rgb;
    cv::Mat redness;
    cv::Mat trust;
};

Seen look(const cv::Mat& rgb)
{
    Seen seen;
    seen.rgb = rgb;
    cv::Mat pixels;
    rgb.convertTo(pixels, CV_32F);
    cv::transform(pixels, seen.redness, cv::Matx13d(1.0, -GREEN_SHARE, GREEN_SHARE - 1));
    seen.trust = believable(rgb);
    return seen;
}

struct Fitted
{
    Profile profile; // in ideal pixels
    bool bClipped;   // some of it is
    double dClipped; // how much
    double dBrightness;
};

// Fit in windows that grow or shrink with the spot.
bool fitIn(const Seen& seen, const LensModel& lens, cv::Point2d centre, double dSigma,
           Fitted& fitted)
{
    for (int i = 0; i < MAX_WINDOWS; ++i) {
        const int nHalf = cvCeil(WINDOW_SIGMAS * dSigma) + 1;
        if (nHalf > seen.rgb.cols) {
            return false;
        }
        const cv::Rect area(cvRound(centre.x) - nHalf, cvRound(centre.y) - nHalf, 2 * nHalf + 1,
                            2 * nHalf + 1);
        const cv::Point2d corner = area.tl();
        Window window;
        lens.rectify(seen.redness, area, window.redness);
        lens.rectify(seen.trust, area, window.trust); // 0 beyond the picture
        fitted.dBrightness = brightest(seen.rgb, area);
        fitted.bClipped = fitted.dBrightness >= CLIPPED;
        Profile profile{centre - corner, dSigma, 0, 0,
                        (fitted.bClipped ? WINDOW_SIGMAS : REACH_SIGMAS) * dSigma};
        cv::minMaxLoc(window.redness, nullptr, &profile.dHeight);
        if (!fit(window, profile)) {
            return false;
        }
        centre = profile.centre + corner;
        if (centre.x < 0 || centre.y < 0 || centre.x > seen.rgb.cols - 1 ||
            centre.y > seen.rgb.rows - 1) {
            return false;
        }
        const bool bFits = std::fabs(profile.dSigma - dSigma) < dSigma * WINDOW_FITS;
        dSigma = profile.dSigma;
        if (bFits) {
            fitted.dClipped = clippedShare(window, profile);
            fitted.profile = profile;
            fitted.profile.centre = centre;
            return true;
        }
    }
    return false;
}

// A spot on even grey, as the camera would code it.
void drawCoded(const Profile& profile, const JpegCoding& coding, const LensModel& lens,
               cv::Mat& rgb)
{
    rgb.create(lens.size(), CV_8UC3);
    rgb.setTo(cv::Scalar::all(DRAWN_GREY));
    const int nHalf = cvCeil(WINDOW_SIGMAS * 1.25 * profile.dSigma) + 1;
    const cv::Point2d seen = lens.toSeen(profile.centre);
    const cv::Rect area =
        cv::Rect(cvRound(seen.x) - nHalf, cvRound(seen.y) - nHalf, 2 * nHalf + 1, 2 * nHalf + 1) &
        cv::Rect(cv::Point(), rgb.size());
    cv::Mat ideal;
    lens.idealOf(area, ideal);
    uint32_t u32Noise = 1;
    for (int y = 0; y < area.height; ++y) {
        for (int x = 0; x < area.width; ++x) {
            const cv::Point2d off = ideal.at<cv::Point2d>(y, x) - profile.centre;
            const double dRed =
                profile.dHeight * std::exp(-off.dot(off) / (2 * profile.dSigma * profile.dSigma));
            u32Noise = u32Noise * 1664525U + 1013904223U; // Numerical Recipes' generator
            const double dGrey = DRAWN_GREY + (u32Noise >> 16) / 65536.0 - 0.5;
            const auto u8Other = cv::saturate_cast<uint8_t>(dGrey - dRed / 2);
            rgb.at<cv::Vec3b>(area.y + y, area.x + x) = {
                cv::saturate_cast<uint8_t>(dGrey + dRed / 2), u8Other, u8Other};
        }
    }
    std::vector<uint8_t> vecJpeg;
    if (!JpegCodec::encode(rgb, coding, vecJpeg) ||
        !JpegCodec::decode(vecJpeg.data(), vecJpeg.size(), rgb.size(), rgb)) {
        throw std::bad_alloc(); // a picture of our own fails no other way
    }
}

// Look for the spot that would be seen as this one is. What cannot be improved stays.
void undoCoding(const JpegCoding& coding, const LensModel& lens, Profile& profile)
{
    const Profile seen = profile;
    Profile truth = profile;
    for (int i = 0; i < CODING_ROUNDS; ++i) {
        cv::Mat rgb;
        Fitted drawn{};
        drawCoded(truth, coding, lens, rgb);
        if (!fitIn(look(rgb), lens, seen.centre, seen.dSigma, drawn)) {
            return;
        }
        truth.centre += seen.centre - drawn.profile.centre;
        truth.dSigma += seen.dSigma - drawn.profile.dSigma;
        truth.dHeight += seen.dHeight - drawn.profile.dHeight;
        if (cv::norm(truth.centre - seen.centre) > MOST_CODING_PIXELS ||
            std::fabs(truth.dSigma / seen.dSigma - 1) > MOST_CODING_SHARE ||
            std::fabs(truth.dHeight / seen.dHeight - 1) > MOST_CODING_SHARE) {
            return;
        }
    }
    profile = truth;
}

} // namespace

SpotFinder::RESULT_E SpotFinder::find(const cv::Mat& rgb, const JpegCoding& coding,
                                      const LensModel& lens, const Parameters& parameters,
                                      Spot& spot)
{
    Patch patch{};
    if (!findPatch(rgb, parameters.dMinRedness, patch)) {
        return NO_SPOT;
    }
    const double dKeep = EDGE_SIGMAS * patch.dSigma;
    if (patch.seen.x < dKeep || patch.seen.y < dKeep || patch.seen.x > rgb.cols - 1 - dKeep ||
        patch.seen.y > rgb.rows - 1 - dKeep) {
        return NO_SPOT;
    }
    Fitted fitted{};
    if (!fitIn(look(rgb), lens, lens.toIdeal(patch.seen), patch.dSigma, fitted)) {
        return fitted.bClipped ? OVEREXPOSED : NO_SPOT;
    }
    if (fitted.dClipped > parameters.dMaxClipped) {
        return OVEREXPOSED;
    }
    if (0 != coding.auTable[1][0] && fitted.dClipped < MOST_CLIPPED_TO_DRAW) {
        undoCoding(coding, lens, fitted.profile);
    }
    spot.ideal = fitted.profile.centre;
    spot.dSigma = std::max(fitted.profile.dSigma, 0.5);
    spot.dRedness = fitted.profile.dHeight;
    spot.dClipped = fitted.dClipped;
    spot.dBrightness = std::max(fitted.dBrightness, 1.0);
    return FOUND;
}

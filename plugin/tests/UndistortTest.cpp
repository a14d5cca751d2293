// Whether the grid's lines are straight in a corrected picture.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "FrameProcessor.h"
#include "JpegCodec.h"
#include "SceneCamera.h"

namespace {

const int BAND = 12;  // pixels along a line that are averaged: the plate's grain hides single ones
const int REACH = 12; // pixels to each side in which a line is looked for
const int NEAR = 3;   // pixels to each side of the darkest that tell its middle

cv::Mat greyOf(const uint8_t* pData, size_t nSize, cv::Size size)
{
    cv::Mat rgb;
    EXPECT_TRUE(JpegCodec::decode(pData, nSize, size, rgb));
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    cv::Mat real;
    grey.convertTo(real, CV_64F);
    return real;
}

// The middle of the dark vertical line near column nExpected in a band of rows.
double middle(const cv::Mat& grey, int nFirstRow, int nExpected)
{
    const cv::Range columns(nExpected - REACH, nExpected + REACH + 1);
    cv::Mat profile;
    cv::reduce(grey(cv::Range(nFirstRow, nFirstRow + BAND), columns), profile, 0, cv::REDUCE_AVG);
    cv::Mat smooth;
    cv::blur(profile, smooth, cv::Size(3, 1));
    cv::Point darkest;
    cv::minMaxLoc(smooth.colRange(NEAR, smooth.cols - NEAR), nullptr, nullptr, &darkest, nullptr);
    const int nDarkest = darkest.x + NEAR;
    const double dGround = (profile.at<double>(0) + profile.at<double>(profile.cols - 1)) / 2;
    double dSum = 0;
    double dMoment = 0;
    for (int x = nDarkest - NEAR; x <= nDarkest + NEAR; x++) {
        const double dDark = dGround - profile.at<double>(x);
        dSum += dDark;
        dMoment += dDark * x;
    }
    return columns.start + dMoment / dSum;
}

struct Straightness
{
    double dWorstBend = 0;     // largest distance from the straight line fitted to a grid line
    double dWorstDistance = 0; // largest distance from where the grid line truly is
    int nPoints = 0;
};

// Vertical lines; for horizontal ones give the picture and the size transposed.
Straightness judge(const cv::Mat& grey, bool bTransposed)
{
    const double dCentre = ((bTransposed ? 480 : 640) - 1) / 2.0;
    const double dCentreAlong = ((bTransposed ? 640 : 480) - 1) / 2.0;
    const int nLines = bTransposed ? 3 : 5;
    const double dAlongMm = bTransposed ? 27 : 17; // the camera's writing covers what is beyond
    Straightness result;
    for (int nLine = -nLines; nLine <= nLines; nLine++) {
        const double dExpected = dCentre + nLine * 50.0;
        std::vector<cv::Point2d> vecPoint;
        for (int nRow = cvCeil(dCentreAlong - dAlongMm * 10);
             nRow + BAND < dCentreAlong + dAlongMm * 10; nRow += BAND) {
            const double dFromCrossing =
                std::remainder(nRow + (BAND - 1) / 2.0 - dCentreAlong, 50.0);
            if (std::fabs(dFromCrossing) < BAND / 2.0 + 3) {
                continue; // a crossing line would hide this one
            }
            vecPoint.emplace_back(nRow + (BAND - 1) / 2.0, middle(grey, nRow, cvRound(dExpected)));
        }
        // Least squares, x = a + b * row.
        double dN = 0, dR = 0, dRR = 0, dX = 0, dRX = 0;
        for (const cv::Point2d& point : vecPoint) {
            dN += 1;
            dR += point.x;
            dRR += point.x * point.x;
            dX += point.y;
            dRX += point.x * point.y;
        }
        const double dB = (dN * dRX - dR * dX) / (dN * dRR - dR * dR);
        const double dA = (dX - dB * dR) / dN;
        for (const cv::Point2d& point : vecPoint) {
            result.dWorstBend = std::max(result.dWorstBend, std::fabs(point.y - dA - dB * point.x));
            result.dWorstDistance = std::max(result.dWorstDistance, std::fabs(point.y - dExpected));
            result.nPoints++;
        }
    }
    return result;
}

class Undistort : public testing::TestWithParam<double>
{
};

} // namespace

TEST_P(Undistort, GridLinesAreStraightWithinHalfAPixel)
{
    const double dK1 = GetParam();
    Parameters parameters;
    parameters.dRadialK1 = dK1;
    FrameProcessor processor(parameters);
    SceneCamera camera(dK1);
    camera.setLaser(false);
    const cv::Size size(640, 480);

    const JpegPicture picture = camera.take();
    std::vector<uint8_t> vecJpeg;
    ASSERT_EQ(FrameProcessor::RESULT_OK, processor.undistort(picture, vecJpeg));

    const cv::Mat before = greyOf(picture.pData, picture.u32Size, size);
    const cv::Mat after = greyOf(vecJpeg.data(), vecJpeg.size(), size);
    for (const bool bTransposed : {false, true}) {
        const Straightness bent = judge(bTransposed ? before.t() : before, bTransposed);
        const Straightness straight = judge(bTransposed ? after.t() : after, bTransposed);
        printf("%s lines, %d points: bent by %.2f pixels before, %.2f after, off by %.2f\n",
               bTransposed ? "horizontal" : "vertical", straight.nPoints, bent.dWorstBend,
               straight.dWorstBend, straight.dWorstDistance);
        EXPECT_GT(straight.nPoints, 100);
        EXPECT_LT(straight.dWorstBend, 0.5);
        EXPECT_LT(straight.dWorstDistance, 0.5);
        if (0 != dK1) {
            EXPECT_GT(bent.dWorstBend, 1.0) << "nothing was there to correct";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Lenses, Undistort, testing::Values(-0.12, -0.05, 0.0, 0.08));

TEST(UndistortPicture, CorrectedPictureKeepsSizeAndLooks)
{
    FrameProcessor processor{Parameters()}; // no distortion
    SceneCamera camera;
    const JpegPicture picture = camera.take();
    std::vector<uint8_t> vecJpeg;

    ASSERT_EQ(FrameProcessor::RESULT_OK, processor.undistort(picture, vecJpeg));

    const cv::Size size(640, 480);
    const cv::Mat difference =
        greyOf(picture.pData, picture.u32Size, size) - greyOf(vecJpeg.data(), vecJpeg.size(), size);
    EXPECT_LT(cv::norm(difference, cv::NORM_L1) / static_cast<double>(difference.total()), 3.0);
}

// How straight the lines of the virtual workpiece's grid are in a picture of 640 x 480.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace GridLines {

inline const int BAND =
    12; // pixels along a line that are averaged: the plate's grain hides single ones
inline const int REACH = 12; // pixels to each side in which a line is looked for
inline const int NEAR = 3;   // pixels to each side of the darkest that tell its middle

// The middle of the dark vertical line near column nExpected in a band of rows.
inline double middle(const cv::Mat& grey, int nFirstRow, int nExpected)
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
inline Straightness judge(const cv::Mat& grey, bool bTransposed)
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

} // namespace GridLines

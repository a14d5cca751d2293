// Pictures of a printed chessboard through the virtual camera's lens, for tests of the calibration.
#pragma once

#include <cmath>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

#include "SceneGeometry.h"

/** How the board is held: its middle and turns about the axes; the board's squares are 1 wide. */
struct BoardPose
{
    double dX, dY, dDistance;
    double dTiltX, dTiltY, dTurn; // degrees
};

/** Held to all sides, in all parts of a picture of 4 by 3. */
inline const std::vector<BoardPose>& boardPoses()
{
    static const std::vector<BoardPose> POSES{
        {0, 0, 7.5, 25, 0, 0},         {0, 0, 7.5, -25, 0, 5},      {0, 0, 7.5, 0, 25, 0},
        {0, 0, 7.5, 0, -25, -5},       {-3, -2, 9, 20, 20, 10},     {3, -2, 9, 20, -20, -10},
        {-3, 2, 9, -20, 20, 0},        {3, 2, 9, -20, -20, 15},     {-4, 0, 10, 0, 35, 0},
        {4, 0, 10, 0, -35, 0},         {0, -2.5, 10, 35, 0, 0},     {0, 2.5, 10, -35, 0, 0},
        {-3.5, -2.5, 8.5, -15, 15, 0}, {3.5, 2.5, 8.5, 15, -15, 0}, {3.5, -2.5, 8.5, -15, -15, 0},
        {-3.5, 2.5, 8.5, 15, 15, 0},
    };
    return POSES;
}

class BoardCamera
{
public:
    static const int COLUMNS = 9; // of inner corners
    static const int ROWS = 6;

    explicit BoardCamera(double dK1, cv::Size size = {640, 480}) : m_rays(size * 2, CV_64FC2)
    {
        const SceneGeometry geometry(static_cast<uint32_t>(size.width),
                                     static_cast<uint32_t>(size.height), dK1);
        for (int y = 0; y < m_rays.rows; ++y) {
            for (int x = 0; x < m_rays.cols; ++x) { // four to a pixel
                const SceneGeometry::Point at =
                    geometry.toMillimetre({x / 2.0 - 0.25, y / 2.0 - 0.25});
                m_rays.at<cv::Vec2d>(y, x) =
                    cv::Vec2d(at.dX, at.dY) / (SceneGeometry::FIELD_MM / 2); // focal length: half
            }
        }
    }

    /** A new picture, red first. */
    cv::Mat take(const BoardPose& pose) const
    {
        const double dDegree = CV_PI / 180;
        cv::Matx33d tiltX, tiltY, turn;
        cv::Rodrigues(cv::Vec3d(pose.dTiltX * dDegree, 0, 0), tiltX);
        cv::Rodrigues(cv::Vec3d(0, pose.dTiltY * dDegree, 0), tiltY);
        cv::Rodrigues(cv::Vec3d(0, 0, pose.dTurn * dDegree), turn);
        cv::Matx33d toRay = tiltX * tiltY * turn;
        toRay(0, 2) = pose.dX;
        toRay(1, 2) = pose.dY;
        toRay(2, 2) = pose.dDistance;
        const cv::Matx33d toBoard = toRay.inv();
        cv::Mat rgb(m_rays.rows / 2, m_rays.cols / 2, CV_8UC3);
        for (int y = 0; y < rgb.rows; ++y) {
            for (int x = 0; x < rgb.cols; ++x) {
                double dGrey = 0;
                for (int i = 0; i < 4; ++i) {
                    const cv::Vec2d& ray = m_rays.at<cv::Vec2d>(2 * y + i / 2, 2 * x + i % 2);
                    const cv::Vec3d board = toBoard * cv::Vec3d(ray[0], ray[1], 1);
                    dGrey += greyAt(board[0] / board[2], board[1] / board[2]) / 4;
                }
                rgb.at<cv::Vec3b>(y, x) = cv::Vec3b::all(cv::saturate_cast<uint8_t>(dGrey));
            }
        }
        return rgb;
    }

private:
    static double greyAt(double dX, double dY)
    {
        const double dHalfWidth = (COLUMNS + 1) / 2.0;
        const double dHalfHeight = (ROWS + 1) / 2.0;
        const double dMargin = 1; // the paper's
        if (std::fabs(dX) > dHalfWidth + dMargin || std::fabs(dY) > dHalfHeight + dMargin) {
            return 110;
        }
        if (std::fabs(dX) > dHalfWidth || std::fabs(dY) > dHalfHeight) {
            return 220;
        }
        const int nSum = cvFloor(dX + dHalfWidth) + cvFloor(dY + dHalfHeight);
        return 0 == nSum % 2 ? 40 : 220;
    }

    cv::Mat m_rays; // to the quarter pixels, at distance 1
};

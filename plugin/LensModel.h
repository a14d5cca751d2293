// The camera's geometry: between the picture as taken and the workpiece's plane.
#pragma once

#include <opencv2/core.hpp>

#include "Parameters.h"

/**
 * For pictures of one size. An "ideal" pixel is where a lens without distortion would show a point;
 * pixel (0, 0) has its centre at 0, 0. Immutable, so any thread.
 */
class LensModel
{
public:
    LensModel(const Parameters& parameters, cv::Size size);

    cv::Size size() const
    {
        return m_size;
    }

    /** Ideal pixel of a pixel in the picture. */
    cv::Point2d toIdeal(cv::Point2d seen) const;

    /** Where an ideal pixel appears in the picture. */
    cv::Point2d toSeen(cv::Point2d ideal) const;

    /** The ideal pixels of an area of the picture, as CV_64FC2. */
    void idealOf(const cv::Rect& area, cv::Mat& ideal) const;

    /** Millimetres on the workpiece of an ideal pixel. */
    cv::Point2d toMillimetre(cv::Point2d ideal) const;
    double pixelsPerMillimetre() const;

    /**
     * What an ideal lens would have shown in a window of the picture, black where the picture
     * doesn't reach.
     */
    void rectify(const cv::Mat& picture, const cv::Rect& window, cv::Mat& out) const;

private:
    cv::Size m_size;
    double m_dPixelsPerMillimetre;
    cv::Matx33d m_camera;
    cv::Vec4d m_distortion;
};

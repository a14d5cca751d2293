// The camera's geometry: between the picture as taken and the workpiece's plane.
#pragma once

#include <opencv2/core.hpp>

#include "Parameters.h"

/**
 * For pictures of one size. An "ideal" pixel is where a lens without distortion would show a point;
 * pixel (0, 0) has its centre at 0, 0. Such a lens has the focal length of the real one across the
 * picture, in both directions, and its centre. Immutable, so any thread.
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

    /** Millimetres on the workpiece of an ideal pixel, from the picture's centre. */
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
    cv::Matx33d m_camera;            // the real lens
    cv::Matx33d m_ideal;             // the one without distortion
    cv::Vec<double, 5> m_distortion; // k1 k2 p1 p2 k3
    bool m_bDistorts;                // false: each pixel is its own ideal one
};

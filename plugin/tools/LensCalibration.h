// A camera's lens, from pictures of a printed chessboard.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

/**
 * OpenCV's calibration. All pictures have one size and show the whole board, each from another
 * side: tilted by some 20 to 40 degrees, and now and then near the edges and corners, where the
 * lens distorts most. One thread at a time; throws what OpenCV throws.
 */
class LensCalibration
{
public:
    static constexpr int MIN_PICTURES = 5;

    /** @param corners  inner corners of the board, across and down; at least 3 each */
    explicit LensCalibration(cv::Size corners);

    /** @param rgb  8 bits per channel, red first @return false when it doesn't show the board */
    bool add(const cv::Mat& rgb);

    /**
     * Find the lens that explains the boards seen; after MIN_PICTURES of them.
     * @return pixels between the corners as seen and as the lens would show them, root mean square
     */
    double solve();

    /** The same for each picture that shows the board, in the order of add(); after solve(). */
    const std::vector<double>& errors() const
    {
        return m_vecError;
    }

    /** The text of a LensFile, without a field's width; after solve(). */
    std::string text() const;

private:
    const cv::Size m_corners;
    cv::Size m_size;
    std::vector<std::vector<cv::Point2f>> m_vecSeen; // the corners of each picture
    double m_dError = 0;
    std::vector<double> m_vecError;
    cv::Mat m_camera;
    cv::Mat m_distortion; // k1 k2 p1 p2 k3
};

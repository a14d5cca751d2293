// A camera's lens, from pictures of a printed chessboard.
#include "LensCalibration.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

LensCalibration::LensCalibration(cv::Size corners) : m_corners(corners) {}

bool LensCalibration::add(const cv::Mat& rgb)
{
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    std::vector<cv::Point2f> vecCorner;
    if (!cv::findChessboardCorners(grey, m_corners, vecCorner)) {
        return false;
    }
    const cv::TermCriteria enough(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 30, 0.01);
    cv::cornerSubPix(grey, vecCorner, cv::Size(5, 5), cv::Size(-1, -1), enough);
    m_size = grey.size();
    m_vecSeen.push_back(vecCorner);
    return true;
}

double LensCalibration::solve()
{
    // The size of the board's squares only scales its distance.
    std::vector<cv::Point3f> vecBoard;
    for (int y = 0; y < m_corners.height; ++y) {
        for (int x = 0; x < m_corners.width; ++x) {
            vecBoard.emplace_back(static_cast<float>(x), static_cast<float>(y), 0.0F);
        }
    }
    const std::vector<std::vector<cv::Point3f>> vecBoards(m_vecSeen.size(), vecBoard);
    std::vector<cv::Mat> vecRotation;
    std::vector<cv::Mat> vecTranslation;
    cv::Mat errors;
    // Only the outermost corners determine k3, and a wrong one bends the picture beyond them.
    m_dError =
        cv::calibrateCamera(vecBoards, m_vecSeen, m_size, m_camera, m_distortion, vecRotation,
                            vecTranslation, cv::noArray(), cv::noArray(), errors, cv::CALIB_FIX_K3);
    m_vecError.assign(errors.begin<double>(), errors.end<double>());
    return m_dError;
}

std::string LensCalibration::text() const
{
    cv::FileStorage storage(".yml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
    storage << "image_width" << m_size.width << "image_height" << m_size.height;
    storage << "camera_matrix" << m_camera << "distortion_coefficients" << m_distortion;
    storage << "avg_reprojection_error" << m_dError;
    return storage.releaseAndGetString();
}

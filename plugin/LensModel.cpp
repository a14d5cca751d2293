// The camera's geometry: between the picture as taken and the workpiece's plane.
#include "LensModel.h"

#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

// The default of five rounds leaves up to a pixel in the corners of a strong lens.
static const cv::TermCriteria ENOUGH(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 50, 1e-4);

static cv::Matx33d cameraMatrix(const Parameters& parameters, cv::Size size, double dFocalLengthY)
{
    const double dWidth = size.width;
    return {parameters.dFocalLengthX * dWidth,
            0,
            (dWidth - 1) / 2 + parameters.dCentreX * dWidth, //
            0,
            dFocalLengthY * dWidth,
            (size.height - 1) / 2.0 + parameters.dCentreY * dWidth, //
            0,
            0,
            1};
}

LensModel::LensModel(const Parameters& parameters, cv::Size size)
    : m_size(size), m_dPixelsPerMillimetre(size.width / parameters.dFieldWidthMm),
      m_camera(cameraMatrix(parameters, size, parameters.dFocalLengthY)),
      m_ideal(cameraMatrix(parameters, size, parameters.dFocalLengthX)),
      m_distortion(parameters.dRadialK1, parameters.dRadialK2, parameters.dTangentialP1,
                   parameters.dTangentialP2, parameters.dRadialK3),
      m_bDistorts(0 != cv::norm(m_distortion) ||
                  parameters.dFocalLengthX != parameters.dFocalLengthY)
{
}

cv::Point2d LensModel::toIdeal(cv::Point2d seen) const
{
    const std::vector<cv::Point2d> vecSeen{seen};
    std::vector<cv::Point2d> vecIdeal;
    cv::undistortPoints(vecSeen, vecIdeal, m_camera, m_distortion, cv::noArray(), m_ideal, ENOUGH);
    return vecIdeal[0];
}

cv::Point2d LensModel::toSeen(cv::Point2d ideal) const
{
    const std::vector<cv::Point3d> vecRay{
        {(ideal.x - m_ideal(0, 2)) / m_ideal(0, 0), (ideal.y - m_ideal(1, 2)) / m_ideal(1, 1), 1}};
    std::vector<cv::Point2d> vecSeen;
    cv::projectPoints(vecRay, cv::Vec3d(), cv::Vec3d(), m_camera, m_distortion, vecSeen);
    return vecSeen[0];
}

void LensModel::idealOf(const cv::Rect& area, cv::Mat& ideal) const
{
    cv::Mat seen(area.size(), CV_64FC2);
    for (int y = 0; y < area.height; ++y) {
        for (int x = 0; x < area.width; ++x) {
            seen.at<cv::Point2d>(y, x) = cv::Point2d(area.x + x, area.y + y);
        }
    }
    if (area.empty() || !m_bDistorts) {
        ideal = seen;
        return;
    }
    cv::undistortPoints(seen.reshape(2, 1), ideal, m_camera, m_distortion, cv::noArray(), m_ideal,
                        ENOUGH);
    ideal = ideal.reshape(2, area.height);
}

cv::Point2d LensModel::toMillimetre(cv::Point2d ideal) const
{
    return {(ideal.x - (m_size.width - 1) / 2.0) / m_dPixelsPerMillimetre,
            (ideal.y - (m_size.height - 1) / 2.0) / m_dPixelsPerMillimetre};
}

double LensModel::pixelsPerMillimetre() const
{
    return m_dPixelsPerMillimetre;
}

void LensModel::rectify(const cv::Mat& picture, const cv::Rect& window, cv::Mat& out) const
{
    cv::Matx33d shifted = m_ideal;
    shifted(0, 2) -= window.x;
    shifted(1, 2) -= window.y;
    cv::Mat mapX;
    cv::Mat mapY;
    cv::initUndistortRectifyMap(m_camera, m_distortion, cv::noArray(), shifted, window.size(),
                                CV_32FC1, mapX, mapY);
    cv::remap(picture, out, mapX, mapY, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
}

// The lens's parameters in a file, as OpenCV's calibration writes them.
#include "LensFile.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "LensModel.h"

namespace {

const size_t MAX_BYTES = 65536; // OpenCV's own example writes some 1,000 without the found corners
const double MAX_PIXELS_OFF = 0.1;

struct Unusable
{
    const char* pReason;
};

std::string contents(FILE* pFile)
{
    std::string strText(MAX_BYTES + 1, '\0');
    strText.resize(fread(strText.data(), 1, strText.size(), pFile));
    if (0 != ferror(pFile)) {
        throw Unusable{strerror(errno)};
    }
    if (strText.size() > MAX_BYTES) {
        throw Unusable{"longer than 64 KB"};
    }
    return strText;
}

double number(const cv::FileNode& node, const char* pReason)
{
    if (!node.isInt() && !node.isReal()) {
        throw Unusable{pReason};
    }
    const double dValue = static_cast<double>(node);
    if (!std::isfinite(dValue)) {
        throw Unusable{pReason};
    }
    return dValue;
}

int pixels(const cv::FileNode& node, const Parameters& parameters, const char* pReason)
{
    const int nPixels = node.isInt() ? static_cast<int>(node) : 0;
    if (nPixels < 1 || nPixels > parameters.nMaxSide) {
        throw Unusable{pReason};
    }
    return nPixels;
}

/** The elements of a matrix, row by row. */
std::vector<double> elements(const cv::FileNode& matrix, int& nRows, int& nColumns,
                             const char* pReason)
{
    const cv::FileNode data = matrix.isMap() ? matrix["data"] : cv::FileNode();
    if (!data.isSeq() || !matrix["rows"].isInt() || !matrix["cols"].isInt()) {
        throw Unusable{pReason};
    }
    nRows = static_cast<int>(matrix["rows"]);
    nColumns = static_cast<int>(matrix["cols"]);
    std::vector<double> vecValue;
    for (const cv::FileNode& node : data) {
        vecValue.push_back(number(node, pReason));
    }
    return vecValue;
}

void readCamera(const cv::FileNode& matrix, cv::Size size, Parameters& parameters)
{
    static const char* const REASON = "camera_matrix is not 3 x 3 numbers of a camera";
    int nRows = 0;
    int nColumns = 0;
    const std::vector<double> vecValue = elements(matrix, nRows, nColumns, REASON);
    if (3 != nRows || 3 != nColumns || 9 != vecValue.size()) {
        throw Unusable{REASON};
    }
    const cv::Matx33d camera(vecValue.data());
    if (0 != camera(0, 1) || 0 != camera(1, 0) || 0 != camera(2, 0) || 0 != camera(2, 1) ||
        1 != camera(2, 2) || camera(0, 0) <= 0 || camera(1, 1) <= 0) {
        throw Unusable{REASON};
    }
    if (camera(0, 2) < 0 || camera(0, 2) >= size.width || camera(1, 2) < 0 ||
        camera(1, 2) >= size.height) {
        throw Unusable{"camera_matrix has the centre outside the picture"};
    }
    const double dWidth = size.width;
    parameters.dFocalLengthX = camera(0, 0) / dWidth;
    parameters.dFocalLengthY = camera(1, 1) / dWidth;
    parameters.dCentreX = (camera(0, 2) - (dWidth - 1) / 2) / dWidth;
    parameters.dCentreY = (camera(1, 2) - (size.height - 1) / 2.0) / dWidth;
}

void readDistortion(const cv::FileNode& matrix, Parameters& parameters)
{
    static const char* const REASON = "distortion_coefficients are not 4 or 5 numbers";
    int nRows = 0;
    int nColumns = 0;
    std::vector<double> vecValue = elements(matrix, nRows, nColumns, REASON);
    const int nCount = static_cast<int>(vecValue.size());
    if ((1 != nRows || nCount != nColumns) && (1 != nColumns || nCount != nRows)) {
        throw Unusable{REASON};
    }
    if (4 != nCount && 5 != nCount) {
        throw Unusable{REASON};
    }
    vecValue.resize(5, 0.0);
    parameters.dRadialK1 = vecValue[0];
    parameters.dRadialK2 = vecValue[1];
    parameters.dTangentialP1 = vecValue[2];
    parameters.dTangentialP2 = vecValue[3];
    parameters.dRadialK3 = vecValue[4];
}

/** The corners are left out: a calibrated polynomial often turns round there, where few look. */
bool showsItsEdges(const Parameters& parameters, cv::Size size)
{
    const LensModel lens(parameters, size);
    const double dRight = size.width - 1;
    const double dLow = size.height - 1;
    const std::array<cv::Point2d, 4> aEdge{cv::Point2d(0, dLow / 2), cv::Point2d(dRight, dLow / 2),
                                           cv::Point2d(dRight / 2, 0),
                                           cv::Point2d(dRight / 2, dLow)};
    for (const cv::Point2d& edge : aEdge) {
        if (!(cv::norm(lens.toSeen(lens.toIdeal(edge)) - edge) < MAX_PIXELS_OFF)) { // or no number
            return false;
        }
    }
    return true;
}

Parameters parse(const std::string& strText, Parameters parameters)
{
    static const char HEAD[] = "%YAML:1.0";
    if (0 != strText.compare(0, strlen(HEAD), HEAD)) {
        throw Unusable{"does not begin with %YAML:1.0"};
    }
    const cv::FileStorage storage(strText, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    const int nWidth =
        pixels(storage["image_width"], parameters, "image_width is not a width in pixels");
    const int nHeight =
        pixels(storage["image_height"], parameters, "image_height is not a height in pixels");
    const cv::Size size(nWidth, nHeight);
    readCamera(storage["camera_matrix"], size, parameters);
    readDistortion(storage["distortion_coefficients"], parameters);
    const cv::FileNode field = storage["field_width_mm"];
    if (!field.empty()) {
        static const char* const REASON = "field_width_mm is not a width";
        parameters.dFieldWidthMm = number(field, REASON);
        if (parameters.dFieldWidthMm <= 0) {
            throw Unusable{REASON};
        }
    }
    if (!showsItsEdges(parameters, size)) {
        throw Unusable{"its lens does not show the picture's edges"};
    }
    return parameters;
}

} // namespace

LensFile::RESULT_E LensFile::read(const std::string& strPath, Parameters& parameters,
                                  std::string& strReason)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> pFile(fopen(strPath.c_str(), "re"), fclose);
    if (nullptr == pFile) {
        if (ENOENT == errno) {
            return ABSENT;
        }
        if (ENOMEM == errno) {
            throw std::bad_alloc();
        }
        strReason = strerror(errno);
        return UNUSABLE;
    }
    try {
        parameters = parse(contents(pFile.get()), parameters);
        return READ;
    } catch (const Unusable& unusable) {
        strReason = unusable.pReason;
    } catch (const cv::Exception& exception) {
        if (cv::Error::StsNoMem == exception.code) {
            throw;
        }
        strReason = "not YAML as OpenCV writes it";
    }
    return UNUSABLE;
}

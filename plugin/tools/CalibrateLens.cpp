// kestrel-calibrate-lens: the plug-in's file of the lens, from pictures of a printed chessboard.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

#include "JpegCodec.h"
#include "LensCalibration.h"
#include "LensFile.h"

namespace {

const char* const USAGE =
    "usage: kestrel-calibrate-lens COLUMNSxROWS FILE PICTURE...\n"
    "Writes the FILE that tells the plug-in about the camera's lens: \"lens.yml\" beside it.\n"
    "  COLUMNSxROWS  inner corners of the printed chessboard, e.g. 9x6 for 10 by 7 squares\n"
    "  PICTURE       JPEG, as the camera sends it; all of one size, the whole board in each, tilted\n"
    "                to all sides and also near the corners; 5 at least, better 15\n"
    "The file gets no field_width_mm: measure with a ruler and add it, as docs/plugin.md tells.\n";

const double MAX_ERROR = 1.0; // pixels; a good set of pictures has some 0.1 to 0.4

bool parseCorners(const char* pText, cv::Size& corners)
{
    char cEnd = 0;
    return 2 == sscanf(pText, "%2dx%2d%c", &corners.width, &corners.height, &cEnd) &&
           corners.width >= 3 && corners.height >= 3;
}

bool readPicture(const char* pName, cv::Mat& rgb)
{
    std::ifstream file(pName, std::ios::binary);
    const std::vector<char> vecByte{std::istreambuf_iterator<char>(file), {}};
    const auto* const pData = reinterpret_cast<const uint8_t*>(vecByte.data());
    cv::Size size;
    return JpegCodec::measure(pData, vecByte.size(), size) &&
           JpegCodec::decode(pData, vecByte.size(), size, rgb);
}

/** The file appears whole, and only if the plug-in takes it. */
bool write(const std::string& strPath, const std::string& strText)
{
    const std::string strNew = strPath + ".new";
    {
        std::ofstream file(strNew);
        file << strText;
        file.close();
        if (!file) {
            perror(strNew.c_str());
            return false;
        }
    }
    Parameters parameters;
    std::string strReason;
    if (LensFile::READ != LensFile::read(strNew, parameters, strReason)) {
        fprintf(stderr, "the pictures tell no usable lens: %s\n", strReason.c_str());
        unlink(strNew.c_str());
        return false;
    }
    if (0 != rename(strNew.c_str(), strPath.c_str())) {
        perror(strPath.c_str());
        unlink(strNew.c_str());
        return false;
    }
    return true;
}

int calibrate(cv::Size corners, const char* pFile, const std::vector<const char*>& vecPicture)
{
    LensCalibration calibration(corners);
    std::vector<const char*> vecShown;
    cv::Size size;
    for (const char* const pName : vecPicture) {
        cv::Mat rgb;
        if (!readPicture(pName, rgb)) {
            fprintf(stderr, "%s: not a JPEG picture\n", pName);
            return 1;
        }
        if (vecShown.empty()) {
            size = rgb.size();
        } else if (rgb.size() != size) {
            fprintf(stderr, "%s: not of the same size as %s\n", pName, vecShown[0]);
            return 1;
        }
        if (calibration.add(rgb)) {
            vecShown.push_back(pName);
        } else {
            printf("%s: shows no board of %d x %d corners, left out\n", pName, corners.width,
                   corners.height);
        }
    }
    if (vecShown.size() < LensCalibration::MIN_PICTURES) {
        fprintf(stderr, "%zu pictures show the board: %d are needed\n", vecShown.size(),
                LensCalibration::MIN_PICTURES);
        return 1;
    }
    const double dError = calibration.solve();
    for (size_t i = 0; i < vecShown.size(); ++i) {
        printf("%s: corners off by %.2f pixels\n", vecShown[i], calibration.errors()[i]);
    }
    printf("all: corners off by %.2f pixels\n", dError);
    if (!(dError <= MAX_ERROR)) {
        fprintf(stderr, "more than %.0f pixel: leave out what is blurred, or print a flat board\n",
                MAX_ERROR);
        return 1;
    }
    return write(pFile, calibration.text()) ? 0 : 1;
}

} // namespace

int main(int nArgs, char** apArgs)
{
    if (2 == nArgs && 0 == strcmp("--help", apArgs[1])) {
        fputs(USAGE, stdout);
        return 0;
    }
    cv::Size corners;
    if (nArgs < 4 || !parseCorners(apArgs[1], corners)) {
        fputs(USAGE, stderr);
        return 2;
    }
    try {
        return calibrate(corners, apArgs[2], {apArgs + 3, apArgs + nArgs});
    } catch (const std::exception& exception) {
        fprintf(stderr, "%s\n", exception.what());
        return 1;
    }
}

// plugin-pictures: pictures for tests from outside, and what is seen in some.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "BoardCamera.h"
#include "GridLines.h"
#include "JpegCodec.h"
#include "SceneCamera.h"

namespace {

const char* const USAGE = "usage: plugin-pictures boards K1 FOLDER    chessboards through a lens\n"
                          "       plugin-pictures spots FOLDER X Y...  the scene's spot, in mm\n"
                          "       plugin-pictures lines FILE         how far its grid is off\n";

bool save(const std::string& strFolder, size_t uNumber, const uint8_t* pData, size_t uSize)
{
    const std::string strName = strFolder + "/" + std::to_string(100 + uNumber) + ".jpg";
    std::ofstream file(strName, std::ios::binary);
    file.write(reinterpret_cast<const char*>(pData), static_cast<std::streamsize>(uSize));
    return file.good();
}

bool drawBoards(double dK1, const std::string& strFolder)
{
    const BoardCamera camera(dK1);
    for (size_t i = 0; i < boardPoses().size(); ++i) {
        std::vector<uint8_t> vecJpeg;
        if (!JpegCodec::encode(camera.take(boardPoses()[i]), 85, vecJpeg) ||
            !save(strFolder, i, vecJpeg.data(), vecJpeg.size())) {
            return false;
        }
    }
    return true;
}

bool drawSpots(const std::string& strFolder, const std::vector<double>& vecMillimetre)
{
    SceneCamera camera;
    for (size_t i = 0; i + 1 < vecMillimetre.size(); i += 2) {
        camera.setSpot(vecMillimetre[i], vecMillimetre[i + 1], 0);
        const JpegPicture picture = camera.take();
        if (!save(strFolder, i / 2, picture.pData, picture.u32Size)) {
            return false;
        }
    }
    return true;
}

bool printLines(const char* pName)
{
    std::ifstream file(pName, std::ios::binary);
    const std::vector<char> vecByte{std::istreambuf_iterator<char>(file), {}};
    cv::Mat rgb;
    if (!JpegCodec::decode(reinterpret_cast<const uint8_t*>(vecByte.data()), vecByte.size(),
                           cv::Size(640, 480), rgb)) {
        return false;
    }
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    grey.convertTo(grey, CV_64F);
    for (const bool bTransposed : {false, true}) {
        const GridLines::Straightness seen =
            GridLines::judge(bTransposed ? grey.t() : grey, bTransposed);
        printf("%s bent %.3f off %.3f\n", bTransposed ? "horizontal" : "vertical", seen.dWorstBend,
               seen.dWorstDistance);
    }
    return true;
}

} // namespace

int main(int nArgs, char** apArgs)
{
    const std::string strWhat = nArgs > 1 ? apArgs[1] : "";
    bool bDone = false;
    if ("boards" == strWhat && 4 == nArgs) {
        bDone = drawBoards(atof(apArgs[2]), apArgs[3]);
    } else if ("spots" == strWhat && nArgs > 3) {
        std::vector<double> vecMillimetre;
        for (int i = 3; i < nArgs; ++i) {
            vecMillimetre.push_back(atof(apArgs[i]));
        }
        bDone = drawSpots(apArgs[2], vecMillimetre);
    } else if ("lines" == strWhat && 3 == nArgs) {
        bDone = printLines(apArgs[2]);
    } else {
        fputs(USAGE, stderr);
        return 2;
    }
    return bDone ? 0 : 1;
}

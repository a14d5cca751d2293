// The command line of kestrel-camera.
#include "CameraOptions.h"

#include <cstdio>
#include <cstdlib>

#include <getopt.h>

#include "SceneGeometry.h"

namespace {

const option LONG_OPTIONS[] = {
    {"dir", required_argument, nullptr, 'd'},        {"scene", required_argument, nullptr, 's'},
    {"pictures", required_argument, nullptr, 'p'},   {"script", required_argument, nullptr, 'c'},
    {"distortion", required_argument, nullptr, 'k'}, {"fps", required_argument, nullptr, 'f'},
    {"quality", required_argument, nullptr, 'q'},    {"keep", required_argument, nullptr, 'n'},
    {"unplugged", no_argument, nullptr, 'u'},        {nullptr, 0, nullptr, 0},
};

bool number(const char* pText, double dLow, double dHigh, double& dValue)
{
    char* pEnd = nullptr;
    dValue = strtod(pText, &pEnd);
    return pEnd != pText && '\0' == *pEnd && dValue >= dLow && dValue <= dHigh;
}

} // namespace

const char* const CameraOptions::USAGE =
    "usage: kestrel-camera [options]\n"
    "  --dir DIR         sockets, journal and shared files (/tmp/kestrel-camera)\n"
    "  --scene FILE      state of the laser spot (DIR/scene)\n"
    "  --pictures DIR    loop over the JPEG files of a folder instead of drawing\n"
    "  --script FILE     commands at set times, one \"SECONDS COMMAND\" a line\n"
    "  --distortion K1   radial distortion of the lens, -0.09 to 0.5 (0)\n"
    "  --fps N           1 to 200, whatever is asked of the driver\n"
    "  --quality N       of the JPEG pictures, 1 to 100 (80)\n"
    "  --keep N          keep the last N frames in DIR/frames, list all in DIR/frames.log\n"
    "  --unplugged       start without the camera plugged in\n";

bool CameraOptions::parse(int nCount, char** ppArgument)
{
    bool bGood = true;
    for (int nOption = 0;
         bGood && -1 != (nOption = getopt_long(nCount, ppArgument, "", LONG_OPTIONS, nullptr));) {
        double dValue = 0;
        switch (nOption) {
        case 'd':
            strDir = optarg;
            break;
        case 's':
            strScene = optarg;
            break;
        case 'p':
            strPictures = optarg;
            break;
        case 'c':
            strScript = optarg;
            break;
        case 'k':
            bGood = number(optarg, SceneGeometry::MIN_K1, SceneGeometry::MAX_K1, dK1);
            break;
        case 'f':
            bGood = number(optarg, 1, 200, dValue);
            u32Rate = static_cast<uint32_t>(dValue);
            break;
        case 'q':
            bGood = number(optarg, 1, 100, dValue);
            nQuality = static_cast<int>(dValue);
            break;
        case 'n':
            bGood = number(optarg, 0, 1000000, dValue);
            u32Keep = static_cast<uint32_t>(dValue);
            break;
        case 'u':
            bUnplugged = true;
            break;
        default:
            bGood = false;
            break;
        }
    }
    if (!bGood || optind < nCount) {
        fputs(USAGE, stderr);
        return false;
    }
    if (strScene.empty()) {
        strScene = strDir + "/scene";
    }
    return true;
}

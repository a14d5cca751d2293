// plugin-accuracy: how exact the plug-in's values are in the virtual camera's pictures, as
// Markdown.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "FrameProcessor.h"
#include "GridLines.h"
#include "JpegCodec.h"
#include "SceneCamera.h"
#include "ServiceLoop.h"

namespace {

const int QUALITY = 80;           // of the pictures; the virtual camera's own
const int SETTLED_EXPOSURE = 135; // what the plug-in suggests in the scene's light
const double PIXELS_PER_MM = 10;

/** Fewer places are the first of more, so that their worst is no worse. */
std::vector<cv::Point2d> places(int nCount)
{
    std::mt19937 random(5);
    std::vector<cv::Point2d> vecPlace;
    for (int i = 0; i < nCount; ++i) {
        const double dX = random() / 4294967296.0 * 50 - 25;
        const double dY = random() / 4294967296.0 * 34 - 17;
        vecPlace.emplace_back(dX, dY);
    }
    return vecPlace;
}

/** Errors of one kind of picture; a refused one has none. */
struct Errors
{
    int nSeen = 0;
    int nRefused = 0;
    double dWorst = 0;
    double dSquares = 0;

    void add(bool bRefused, double dError)
    {
        ++nSeen;
        if (bRefused) {
            ++nRefused;
            return;
        }
        dWorst = std::max(dWorst, dError);
        dSquares += dError * dError;
    }

    double rootMeanSquare() const
    {
        return std::sqrt(dSquares / (nSeen - nRefused));
    }
};

void printWorst(const Errors& errors)
{
    if (errors.nRefused == errors.nSeen) {
        printf(" refused |");
    } else if (0 != errors.nRefused) {
        printf(" %.2f, %d of %d refused |", errors.dWorst, errors.nRefused, errors.nSeen);
    } else {
        printf(" %.2f |", errors.dWorst);
    }
}

void setLight(SceneCamera& camera, int nExposure)
{
    camera.setExposure(nExposure / ServiceLoop::START_EXPOSURE);
}

void printPositions(SceneCamera& camera, int nPlaces)
{
    printf("Largest error of a position, in pixels of 0.1 mm, over %d places of the spot:\n\n"
           "| Exposure | in focus | 1 mm off | 2 mm off | 3 mm off |\n|---|---|---|---|---|\n",
           nPlaces);
    for (const int nExposure : {20, 40, 80, SETTLED_EXPOSURE, 157, 190, 220, 250, 314, 400}) {
        printf("| %d |", nExposure);
        for (const double dZ : {0.0, 1.0, 2.0, 3.0}) {
            Errors errors;
            for (const cv::Point2d& place : places(nPlaces)) {
                FrameProcessor processor{Parameters()};
                camera.setSpot(place.x, place.y, dZ);
                setLight(camera, nExposure);
                cv::Point2d found;
                const bool bRefused =
                    FrameProcessor::RESULT_OK != processor.findPosition(camera.take(), found);
                const Truth& truth = camera.truth();
                errors.add(bRefused,
                           cv::norm(found - cv::Point2d(truth.dXMillimetre, truth.dYMillimetre)) *
                               PIXELS_PER_MM);
            }
            printWorst(errors);
        }
        printf("\n");
    }
}

void printHeights(SceneCamera& camera, int nPlaces)
{
    printf(
        "\nError of the height that a single picture tells, in mm, at exposure %d, over %d places "
        "of the spot:\n\n"
        "| Distance from the focus | Root mean square | Worst |\n|---|---|---|\n",
        SETTLED_EXPOSURE, nPlaces);
    setLight(camera, SETTLED_EXPOSURE);
    for (const double dZ : {0.0, 0.5, 1.5, 3.0}) {
        Errors errors;
        for (const cv::Point2d& place : places(nPlaces)) {
            FrameProcessor processor{Parameters()};
            camera.setSpot(place.x, place.y, dZ);
            double dHomed = 0;
            const bool bRefused =
                FrameProcessor::RESULT_OK != processor.autoFocus(camera.take(), dHomed);
            errors.add(bRefused, std::fabs(std::fabs(dHomed) - dZ));
        }
        printf("| %.1f mm | %.3f |", dZ, errors.rootMeanSquare());
        printWorst(errors);
        printf("\n");
    }
}

void printLoop(SceneCamera& camera)
{
    printf("\nDistance of the arm from the focus after two measurements, and the largest after ten "
           "more, in mm:\n\n"
           "| Focus at Z | After two | In ten more |\n|---|---|---|\n");
    for (const double dFocusZ : {-3.0, -1.5, -0.5, 0.5, 1.5, 3.0}) {
        ServiceLoop loop(camera, dFocusZ);
        bool bRefused = FrameProcessor::RESULT_OK != loop.measure();
        bRefused = FrameProcessor::RESULT_OK != loop.measure() || bRefused;
        Errors after;
        after.add(bRefused, std::fabs(loop.offFocus()));
        Errors later;
        for (int i = 0; i < 10; ++i) {
            bRefused = FrameProcessor::RESULT_OK != loop.measure();
            later.add(bRefused, std::fabs(loop.offFocus()));
        }
        printf("| %.1f mm |", dFocusZ);
        printWorst(after);
        printWorst(later);
        printf("\n");
    }
}

double worstBend(const uint8_t* pData, size_t nSize)
{
    cv::Mat rgb;
    if (!JpegCodec::decode(pData, nSize, cv::Size(640, 480), rgb)) {
        return NAN;
    }
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    grey.convertTo(grey, CV_64F);
    return std::max(GridLines::judge(grey, false).dWorstDistance,
                    GridLines::judge(grey.t(), true).dWorstDistance);
}

void printLens()
{
    printf("\nLargest distance of the grid's lines from where they truly are, in pixels, by the "
           "lens's k1:\n\n"
           "| k1 | Corrected |\n|---|---|\n");
    for (const double dK1 : {-0.08, -0.05, 0.0, 0.1}) {
        Parameters parameters;
        parameters.dRadialK1 = dK1;
        FrameProcessor processor(parameters);
        SceneCamera camera(dK1, 640, 480, QUALITY);
        camera.setLaser(false);
        std::vector<uint8_t> vecJpeg;
        const bool bRefused =
            FrameProcessor::RESULT_OK != processor.undistort(camera.take(), vecJpeg);
        Errors errors;
        errors.add(bRefused, bRefused ? 0 : worstBend(vecJpeg.data(), vecJpeg.size()));
        printf("| %.2f |", dK1);
        printWorst(errors);
        printf("\n");
    }
}

} // namespace

int main(int nArgs, char** apArgs)
{
    const int nPlaces = nArgs > 1 ? atoi(apArgs[1]) : 60;
    if (nArgs > 2 || nPlaces < 1) {
        fputs("usage: plugin-accuracy [PLACES]\n", stderr);
        return 2;
    }
    SceneCamera camera(0, 640, 480, QUALITY);
    printPositions(camera, nPlaces);
    printHeights(camera, nPlaces);
    printLoop(camera);
    printLens();
    return 0;
}

// Where the spot is found, against where the scene has it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include <gtest/gtest.h>

#include "FrameProcessor.h"
#include "LensModel.h"
#include "SceneCamera.h"

namespace {

const double MAX_ERROR_PIXELS = 0.3;
const double MAX_ERROR_IN_FOCUS = 0.15; // and with the scene's own light

Parameters withLens(double dK1)
{
    Parameters parameters;
    parameters.dRadialK1 = dK1;
    return parameters;
}

std::vector<double> steps(double dFrom, double dTo, double dStep)
{
    std::vector<double> vecValue;
    for (int i = 0; dFrom + i * dStep <= dTo; i++) {
        vecValue.push_back(dFrom + i * dStep);
    }
    return vecValue;
}

struct View
{
    double dK1;
    uint32_t u32Width;
    uint32_t u32Height;
    double dZMm;
    double dExposure;
};

void PrintTo(const View& view, std::ostream* pStream)
{
    *pStream << view.u32Width << "x" << view.u32Height << " k1 " << view.dK1 << " z " << view.dZMm
             << " light " << view.dExposure;
}

class SpotAccuracy : public testing::TestWithParam<View>
{
};

} // namespace

TEST_P(SpotAccuracy, PositionIsWithinThirdOfAPixel)
{
    const View& view = GetParam();
    SceneCamera camera(view.dK1, view.u32Width, view.u32Height);
    camera.setExposure(view.dExposure);
    FrameProcessor processor(withLens(view.dK1));
    const double dReachX = 25;
    const double dReachY = 25.0 * view.u32Height / view.u32Width - 1;
    const double dAllowed =
        0 == view.dZMm && 1 == view.dExposure ? MAX_ERROR_IN_FOCUS : MAX_ERROR_PIXELS;
    double dWorst = 0;

    // Steps that fall on all fractions of a pixel, on lines of the grid and between them.
    for (const double dX : steps(-dReachX, dReachX, 8.317)) {
        for (const double dY : steps(-dReachY, dReachY, 5.739)) {
            camera.setSpot(dX, dY, view.dZMm);
            cv::Point2d found;
            ASSERT_EQ(FrameProcessor::RESULT_OK, processor.findPosition(camera.take(), found))
                << dX << ", " << dY;
            const Truth& truth = camera.truth();
            const double dError =
                std::hypot(found.x - truth.dXMillimetre, found.y - truth.dYMillimetre) *
                camera.geometry().getPixelsPerMillimetre();
            EXPECT_LT(dError, dAllowed) << dX << ", " << dY;
            dWorst = std::max(dWorst, dError);
        }
    }
    printf("largest error: %.3f pixels\n", dWorst);
}

INSTANTIATE_TEST_SUITE_P(Views, SpotAccuracy,
                         testing::Values(View{0, 640, 480, 0, 1}, View{0, 1280, 720, 0, 1},
                                         View{-0.12, 640, 480, 0, 1}, View{0.1, 640, 480, 0, 1},
                                         View{0, 640, 480, 2, 1}, View{0, 640, 480, -3, 1},
                                         View{-0.12, 640, 480, 2, 1}, View{0, 640, 480, 0, 0.4},
                                         View{0, 640, 480, 0, 1.4}));

TEST(Spot, IsFoundOnABurntWorkpiece)
{
    SceneCamera camera(0, 640, 480, 80);
    FrameProcessor processor{Parameters()};
    for (double d = -6; d <= 6; d += 0.7) { // hatched both ways, with whole fields charred
        camera.burn(-6, d, 6, d);
        camera.burn(d, -6, d, 6);
    }
    for (double d = 8; d <= 12; d += 0.2) {
        camera.burn(8, d, 12, d);
    }
    double dWorst = 0;

    for (const double dZ : {0.0, 1.5, -3.0}) {
        for (const auto& [dX, dY] : std::vector<std::pair<double, double>>{
                 {0, 0}, {0.35, 0}, {-3.21, 1.17}, {5.9, -4.4}, {10, 10}, {8.05, 9.5}, {12, 12}}) {
            camera.setSpot(dX, dY, dZ);
            cv::Point2d found;
            ASSERT_EQ(FrameProcessor::RESULT_OK, processor.findPosition(camera.take(), found))
                << dX << ", " << dY << ", " << dZ;
            const double dError = 10 * std::hypot(found.x - dX, found.y - dY);
            EXPECT_LT(dError, 2 * MAX_ERROR_PIXELS) << dX << ", " << dY << ", " << dZ;
            dWorst = std::max(dWorst, dError);
        }
    }
    printf("largest error: %.3f pixels\n", dWorst);
}

TEST(Spot, LaserOffIsNoSpot)
{
    SceneCamera camera;
    camera.setLaser(false);
    FrameProcessor processor{Parameters()};
    cv::Point2d found(11, 12);
    double dCorrection = 13;

    EXPECT_EQ(FrameProcessor::RESULT_NO_SPOT, processor.findPosition(camera.take(), found));
    EXPECT_EQ(FrameProcessor::RESULT_NO_SPOT, processor.autoFocus(camera.take(), dCorrection));

    EXPECT_EQ(cv::Point2d(11, 12), found);
    EXPECT_EQ(13, dCorrection);
}

TEST(Spot, SpotThatThePicturesEdgeCutsIsNoSpot)
{
    SceneCamera camera;
    FrameProcessor processor{Parameters()};
    cv::Point2d found;

    for (const auto& [dX, dY] : std::vector<std::pair<double, double>>{
             {-31.95, 0}, {31.95, 0}, {0, -23.95}, {0, 23.95}, {31.95, 23.95}}) {
        camera.setSpot(dX, dY, 0);
        EXPECT_EQ(FrameProcessor::RESULT_NO_SPOT, processor.findPosition(camera.take(), found))
            << dX << ", " << dY;
    }
}

TEST(Spot, SpotOutOfSightIsNoSpot)
{
    SceneCamera camera;
    camera.setSpot(100, 0, 0);
    FrameProcessor processor{Parameters()};
    cv::Point2d found;

    EXPECT_EQ(FrameProcessor::RESULT_NO_SPOT, processor.findPosition(camera.take(), found));
}

TEST(Spot, IdealPixelsAreThoseOfTheScenesLens)
{
    for (const double dK1 : {-0.09, -0.05, 0.0, 0.2}) {
        const SceneGeometry geometry(640, 480, dK1);
        const LensModel lens(withLens(dK1), cv::Size(640, 480));
        for (const double dX : steps(0, 639, 70.9)) {
            for (const double dY : steps(0, 479, 53.2)) {
                const SceneGeometry::Point truth = geometry.toMillimetre({dX, dY});
                const cv::Point2d found = lens.toMillimetre(lens.toIdeal({dX, dY}));
                EXPECT_NEAR(truth.dX, found.x, 0.001) << dK1 << " at " << dX << ", " << dY;
                EXPECT_NEAR(truth.dY, found.y, 0.001) << dK1 << " at " << dX << ", " << dY;
            }
        }
    }
}

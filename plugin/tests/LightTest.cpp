// The spot in light of every strength: what is told is right, and what cannot be told is a failure.
#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FrameProcessor.h"
#include "JpegCodec.h"
#include "SceneCamera.h"
#include "ServiceLoop.h"

namespace {

const double MAX_PIXELS = 0.3;

struct Found
{
    FrameProcessor::RESULT_E ePosition;
    FrameProcessor::RESULT_E eFocus;
    double dPixels; // off its place
    double dHomed;
};

Found lookAt(SceneCamera& camera, double dZ, double dLight)
{
    FrameProcessor processor{Parameters()};
    camera.setSpot(3.21, -4.56, dZ);
    camera.setExposure(dLight);
    const JpegPicture picture = camera.take();
    Found found{};
    cv::Point2d millimetre;
    found.ePosition = processor.findPosition(picture, millimetre);
    found.dPixels = std::hypot(millimetre.x - 3.21, millimetre.y + 4.56) * 10;
    found.eFocus = processor.autoFocus(picture, found.dHomed);
    return found;
}

// A laser far brighter than its surroundings, that shines into the other colours as well.
Found lookAtBrightLaser(double dGain, double dLeak)
{
    cv::Mat rgb(480, 640, CV_8UC3);
    std::mt19937 random(1);
    for (int y = 0; y < rgb.rows; ++y) {
        for (int x = 0; x < rgb.cols; ++x) {
            const double dLight =
                dGain * 200 * std::exp(-(std::pow(x - 400.3, 2) + std::pow(y - 200.7, 2)) / 18);
            const double dPlate = 127.0 + random() % 7;
            const auto u8Other = cv::saturate_cast<uint8_t>(dPlate + dLeak * dLight);
            rgb.at<cv::Vec3b>(y, x) = {cv::saturate_cast<uint8_t>(dPlate + dLight), u8Other,
                                       u8Other};
        }
    }
    std::vector<uint8_t> vecJpeg;
    EXPECT_TRUE(JpegCodec::encode(rgb, 90, vecJpeg));
    const JpegPicture picture{vecJpeg.data(), static_cast<uint32_t>(vecJpeg.size()), 640, 480};
    FrameProcessor processor{Parameters()};
    Found found{};
    cv::Point2d millimetre;
    found.ePosition = processor.findPosition(picture, millimetre);
    found.dPixels =
        std::hypot(millimetre.x * 10 + 319.5 - 400.3, millimetre.y * 10 + 239.5 - 200.7);
    found.eFocus = processor.autoFocus(picture, found.dHomed);
    return found;
}

} // namespace

TEST(Light, PositionIsRightFromTwoFifthsOfTheLightToTwoFifthsMore)
{
    SceneCamera camera;
    for (const double dLight : {0.4, 0.5, 0.6, 0.86, 1.0, 1.2, 1.4}) {
        const Found found = lookAt(camera, 0, dLight);
        EXPECT_EQ(FrameProcessor::RESULT_OK, found.ePosition) << "light " << dLight;
        EXPECT_LT(found.dPixels, MAX_PIXELS) << "light " << dLight;
    }
}

// Over the whole range of exposures, 1 to 400.
TEST(Light, WhatIsToldIsRightInAnyLight)
{
    SceneCamera camera;
    for (const int nExposure :
         {1, 5, 20, 40, 80, 135, 160, 190, 220, 235, 250, 265, 280, 314, 392, 400}) {
        for (const double dZ : {0.0, 1.0, 2.0}) {
            const double dLight = nExposure / ServiceLoop::START_EXPOSURE;
            const Found found = lookAt(camera, dZ, dLight);
            if (FrameProcessor::RESULT_OK == found.ePosition) {
                EXPECT_LT(found.dPixels, dZ > 1 ? 0.4 : MAX_PIXELS)
                    << "exposure " << nExposure << " z " << dZ;
            }
            if (FrameProcessor::RESULT_OK == found.eFocus) {
                EXPECT_NEAR(dZ, std::fabs(found.dHomed), dLight < 0.8 ? 0.2 : 0.1)
                    << "exposure " << nExposure << " z " << dZ;
            }
        }
    }
}

// In focus, at many places: grid, plate and table.
TEST(Light, PlaceThatIsToldIsRightOverTheWholeRangeOfExposures)
{
    SceneCamera camera(0, 640, 480, 80);
    for (const int nExposure : {40, 60, 80, 157, 220, 230, 240, 260}) {
        camera.setExposure(nExposure / ServiceLoop::START_EXPOSURE);
        int nTold = 0;
        for (double dX = -25; dX < 26; dX += 10.1) {
            for (double dY = -16; dY < 17; dY += 7.7) {
                FrameProcessor processor{Parameters()};
                camera.setSpot(dX, dY, 0);
                cv::Point2d found;
                if (FrameProcessor::RESULT_OK == processor.findPosition(camera.take(), found)) {
                    ++nTold;
                    const Truth& truth = camera.truth();
                    EXPECT_LT(
                        std::hypot(found.x - truth.dXMillimetre, found.y - truth.dYMillimetre) * 10,
                        MAX_PIXELS)
                        << "exposure " << nExposure << " at " << dX << ", " << dY;
                }
            }
        }
        EXPECT_EQ(nExposure >= 60 && nExposure <= 220 ? 30 : nTold, nTold) << nExposure;
    }
}

TEST(Light, OverexposedPictureIsAFailure)
{
    SceneCamera camera;
    for (const double dLight : {1.6, 1.8, 2.0, 2.5, 10.0}) {
        for (const double dZ : {0.0, 1.0, 2.0}) {
            const Found found = lookAt(camera, dZ, dLight);
            EXPECT_LT(0, found.ePosition) << "light " << dLight << " z " << dZ;
            EXPECT_LT(0, found.eFocus) << "light " << dLight << " z " << dZ;
        }
    }
}

TEST(Light, PictureTooDarkIsAFailure)
{
    SceneCamera camera;
    for (const double dLight : {0.0, 0.01, 0.05, 0.2}) {
        for (const double dZ : {0.0, 1.0, 2.0}) {
            const Found found = lookAt(camera, dZ, dLight);
            EXPECT_LT(0, found.ePosition) << "light " << dLight << " z " << dZ;
            EXPECT_LT(0, found.eFocus) << "light " << dLight << " z " << dZ;
        }
    }
}

TEST(Light, BrightLasersPlaceIsToldButNotItsWidth)
{
    for (const double dGain : {2.0, 4.0, 8.0}) {
        for (const double dLeak : {0.0, 0.15, 0.3}) {
            const Found found = lookAtBrightLaser(dGain, dLeak);
            EXPECT_EQ(FrameProcessor::RESULT_OK, found.ePosition) << dGain << " " << dLeak;
            EXPECT_LT(found.dPixels, 0.15) << dGain << " " << dLeak;
            EXPECT_EQ(FrameProcessor::RESULT_TOO_BRIGHT, found.eFocus) << dGain << " " << dLeak;
        }
    }
}

TEST(Light, LaserThatIsHardlyClippedTellsItsWidth)
{
    for (const double dLeak : {0.0, 0.15, 0.3}) {
        const Found found = lookAtBrightLaser(1, dLeak);
        EXPECT_EQ(FrameProcessor::RESULT_OK, found.eFocus) << dLeak;
        EXPECT_NEAR(0, found.dHomed, 0.3) << dLeak; // this picture has one colour for four pixels
    }
}

// So that the second look from home tells more than the first.
TEST(Light, SpotFarFromItsFocusIsLookedAtInMoreLight)
{
    SceneCamera camera;
    ServiceLoop loop(camera, -3);
    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
    const double dBright = loop.m_dExposure;
    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());

    EXPECT_GT(dBright, loop.m_dExposure * 1.2);
    EXPECT_LT(dBright, loop.m_dExposure * 1.5);
}

// The exposure that the first picture asks for is in force for the third.
TEST(Light, LightThatChangesCostsTwoMeasurementsAtMost)
{
    SceneCamera camera;
    for (const double dLight : {0.15, 0.5, 1.5, 2.0, 2.5}) {
        ServiceLoop loop(camera, 1.5);
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());

        loop.m_dLight = dLight;
        (void)loop.measure();
        (void)loop.measure();

        EXPECT_EQ(FrameProcessor::RESULT_OK, loop.measure()) << "light " << dLight;
        EXPECT_NEAR(0, loop.offFocus(), 0.1) << "light " << dLight;
    }
}

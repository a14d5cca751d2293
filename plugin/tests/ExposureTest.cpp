// Whether the suggested exposures bring the picture's brightness to the middle.
#include <cmath>

#include <gtest/gtest.h>

#include "ExposureAdvisor.h"
#include "FrameProcessor.h"
#include "JpegCodec.h"
#include "SceneCamera.h"

namespace {

const double NOMINAL = 157; // at which the scene has its own light

int medianOf(const JpegPicture& picture)
{
    cv::Mat rgb;
    EXPECT_TRUE(JpegCodec::decode(picture.pData, picture.u32Size, cv::Size(640, 480), rgb));
    return ExposureAdvisor::median(rgb);
}

} // namespace

TEST(ExposureAdvisor, MedianIsThatOfTheBrightness)
{
    EXPECT_EQ(0, ExposureAdvisor::median(cv::Mat(10, 10, CV_8UC3, cv::Scalar(0, 0, 0))));
    EXPECT_EQ(255, ExposureAdvisor::median(cv::Mat(10, 10, CV_8UC3, cv::Scalar(255, 255, 255))));
    cv::Mat rgb(10, 10, CV_8UC3, cv::Scalar(40, 40, 40));
    rgb.rowRange(0, 4).setTo(cv::Scalar(200, 200, 200));
    EXPECT_EQ(40, ExposureAdvisor::median(rgb));
    rgb.rowRange(0, 6).setTo(cv::Scalar(200, 200, 200));
    EXPECT_EQ(200, ExposureAdvisor::median(rgb));
}

TEST(ExposureAdvisor, WithoutAPictureTheStartIsSuggested)
{
    ExposureAdvisor advisor{Parameters()};

    EXPECT_EQ(157, advisor.suggest());
    EXPECT_EQ(157, advisor.suggest());
}

TEST(ExposureAdvisor, PictureCountsOnce)
{
    ExposureAdvisor advisor{Parameters()};

    advisor.see(64, ExposureAdvisor::TAKEN_AFTER_SUGGESTION);

    EXPECT_EQ(314, advisor.suggest());
    EXPECT_EQ(314, advisor.suggest());
}

TEST(ExposureAdvisor, PictureFromBeforeTheSuggestionIsJudgedByTheExposureBeforeIt)
{
    ExposureAdvisor advisor{Parameters()};
    advisor.see(64, ExposureAdvisor::TAKEN_AFTER_SUGGESTION);
    ASSERT_EQ(314, advisor.suggest());

    advisor.see(64, ExposureAdvisor::TAKEN_BEFORE_SUGGESTION);

    EXPECT_EQ(314, advisor.suggest());
}

TEST(ExposureAdvisor, StepsAndRangeAreBounded)
{
    Parameters parameters;
    parameters.nStartExposure = 60;
    ExposureAdvisor advisor{parameters};

    advisor.see(0, ExposureAdvisor::TAKEN_AFTER_SUGGESTION);
    EXPECT_EQ(240, advisor.suggest());
    advisor.see(0, ExposureAdvisor::TAKEN_AFTER_SUGGESTION);
    EXPECT_EQ(400, advisor.suggest());
    for (int i = 0; i < 20; i++) {
        advisor.see(255, ExposureAdvisor::TAKEN_AFTER_SUGGESTION);
        EXPECT_GE(advisor.suggest(), 1);
    }
    EXPECT_EQ(1, advisor.suggest());
}

TEST(Exposure, ExposureLeadsToAMiddlingBrightness)
{
    for (const int nStart : {20, 60, 157, 300, 400}) {
        Parameters parameters;
        parameters.nStartExposure = nStart;
        FrameProcessor processor(parameters);
        SceneCamera camera;
        camera.setExposure(nStart / NOMINAL);
        double dCorrection = 0;
        JpegPicture picture = camera.take();
        const int nFirst = medianOf(picture);
        (void)processor.autoFocus(picture, dCorrection); // its result is no matter here

        int nExposure = processor.suggestExposure();

        EXPECT_EQ(nFirst > 128, nExposure < nStart) << "from " << nStart;
        for (int i = 0; i < 3; i++) {
            camera.setExposure(nExposure / NOMINAL);
            (void)processor.look(camera.take());
            nExposure = processor.suggestExposure();
        }
        camera.setExposure(nExposure / NOMINAL);
        EXPECT_NEAR(128, medianOf(camera.take()), 8) << "from " << nStart;
    }
}

// The service's order: picture, suggestion, position on that picture. When no spot is found it
// stays at that.
TEST(Exposure, ExposureSettlesWhileNoSpotIsFound)
{
    Parameters parameters;
    parameters.nStartExposure = 20;
    FrameProcessor processor(parameters);
    SceneCamera camera;
    camera.setLaser(false);
    int nExposure = 20;

    for (int i = 0; i < 6; i++) {
        camera.setExposure(nExposure / NOMINAL);
        const JpegPicture picture = camera.take();
        nExposure = processor.suggestExposure();
        cv::Point2d found;
        ASSERT_EQ(FrameProcessor::RESULT_NO_SPOT, processor.findPosition(picture, found));
    }

    camera.setExposure(nExposure / NOMINAL);
    EXPECT_NEAR(128, medianOf(camera.take()), 8);
    EXPECT_EQ(nExposure, processor.suggestExposure());
}

TEST(ExposureAdvisor, BrightenedSuggestionIsForOnePictureOnly)
{
    const Parameters parameters;
    ExposureAdvisor advisor(parameters);
    advisor.see(parameters.nTargetMedian, ExposureAdvisor::TAKEN_AFTER_SUGGESTION);
    EXPECT_EQ(157, advisor.suggest());

    advisor.brighten(1.2);
    EXPECT_EQ(188, advisor.suggest());
    advisor.see(154, ExposureAdvisor::TAKEN_AFTER_SUGGESTION); // 128 * 1.2

    EXPECT_NEAR(157, advisor.suggest(), 1);
}

TEST(ExposureAdvisor, BrighteningHasItsBounds)
{
    const Parameters parameters;
    for (const auto& [dFactor, nExpected] : {std::pair(0.5, 157), std::pair(9.0, 220)}) {
        ExposureAdvisor advisor(parameters);
        advisor.see(parameters.nTargetMedian, ExposureAdvisor::TAKEN_AFTER_SUGGESTION);

        advisor.brighten(dFactor);

        EXPECT_EQ(nExpected, advisor.suggest());
    }
}

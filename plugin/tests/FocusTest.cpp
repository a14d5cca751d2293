// Whether the corrections lead into focus.
#include <cmath>

#include <gtest/gtest.h>

#include "FocusJudge.h"
#include "FrameProcessor.h"
#include "SceneCamera.h"

namespace {

double correctionAt(FrameProcessor& processor, SceneCamera& camera, double dZ)
{
    camera.setSpot(3.21, -4.56, dZ);
    double dCorrection = NAN;
    EXPECT_EQ(FrameProcessor::RESULT_OK, processor.autoFocus(camera.take(), dCorrection));
    return dCorrection;
}

} // namespace

TEST(FrameProcessor, SpotInFocusNeedsNoCorrection)
{
    SceneCamera camera;
    FrameProcessor processor{Parameters()};

    EXPECT_EQ(0, correctionAt(processor, camera, 0));
}

TEST(FrameProcessor, TooHighIsCorrectedAtOnce)
{
    SceneCamera camera;
    for (const double dZ : {0.5, 1.0, 2.7, 5.0}) {
        FrameProcessor processor{Parameters()};

        const double dCorrection = correctionAt(processor, camera, dZ);

        EXPECT_LT(dCorrection, 0);
        EXPECT_NEAR(0, dZ + dCorrection, 0.2) << "from " << dZ;
        EXPECT_EQ(0, correctionAt(processor, camera, 0));
    }
}

TEST(FrameProcessor, TooLowIsTurnedRoundOnTheSecondPicture)
{
    SceneCamera camera;
    for (const double dStart : {-0.5, -1.0, -2.2}) {
        FrameProcessor processor{Parameters()};
        double dZ = dStart;

        dZ += correctionAt(processor, camera, dZ);
        EXPECT_NEAR(2 * dStart, dZ, 0.2);
        const double dSecond = correctionAt(processor, camera, dZ);
        dZ += dSecond;

        EXPECT_GT(dSecond, 0);
        EXPECT_NEAR(0, dZ, 0.3) << "from " << dStart;
    }
}

TEST(FrameProcessor, RepeatedCorrectionsSettleInFocus)
{
    SceneCamera camera;
    for (const double dStart : {-3.0, -1.6, -0.3, 0.3, 1.9, 3.4, 6.0}) {
        FrameProcessor processor{Parameters()};
        double dZ = dStart;

        for (int i = 0; i < 3; i++) {
            dZ += correctionAt(processor, camera, dZ);
        }

        EXPECT_NEAR(0, dZ, 0.15) << "from " << dStart;
        EXPECT_EQ(0, correctionAt(processor, camera, dZ)) << "from " << dStart;
    }
}

TEST(FrameProcessor, SideIsRememberedUntilReset)
{
    SceneCamera camera;
    FrameProcessor processor{Parameters()};
    correctionAt(processor, camera, -1);
    correctionAt(processor, camera, -2);

    EXPECT_NEAR(1.5, correctionAt(processor, camera, -1.5), 0.2);
    processor.reset();
    EXPECT_NEAR(-1.5, correctionAt(processor, camera, -1.5), 0.2);
}

TEST(FrameProcessor, CorrectionThatWasNotCarriedOutIsAskedForAgain)
{
    SceneCamera camera;
    FrameProcessor processor{Parameters()};

    const double dFirst = correctionAt(processor, camera, 2);
    const double dSecond = correctionAt(processor, camera, 2);

    EXPECT_NEAR(-2, dFirst, 0.2);
    EXPECT_NEAR(dFirst, dSecond, 0.05);
}

TEST(FrameProcessor, LensDoesNotBlur)
{
    Parameters parameters;
    parameters.dRadialK1 = -0.12;
    FrameProcessor processor{parameters};
    SceneCamera camera(-0.12);
    camera.setSpot(24, 17, 2); // where the lens shrinks most
    double dCorrection = 0;

    ASSERT_EQ(FrameProcessor::RESULT_OK, processor.autoFocus(camera.take(), dCorrection));

    EXPECT_NEAR(-2, dCorrection, 0.2);
}

TEST(FocusJudge, SharpnessFallsAsTheSpotWidens)
{
    const FocusJudge judge{Parameters()};

    EXPECT_EQ(1.0, judge.sharpness(0.3));
    EXPECT_EQ(1.0, judge.sharpness(0.2));
    EXPECT_DOUBLE_EQ(0.5, judge.sharpness(0.6));
    EXPECT_DOUBLE_EQ(0.1, judge.sharpness(3.0));
}

TEST(FocusJudge, FirstSideIsTheParameters)
{
    Parameters parameters;
    parameters.dFirstSide = -1;
    FocusJudge judge{parameters};

    EXPECT_NEAR(2.0, judge.correction(0.6), 1e-9);
}

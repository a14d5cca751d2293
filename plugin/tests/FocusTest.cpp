// Whether measurements lead into focus, in the order in which the service makes them.
#include <cmath>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "FocusJudge.h"
#include "FrameProcessor.h"
#include "SceneCamera.h"
#include "ServiceLoop.h"

namespace {

const double STARTS[] = {-3, -1.5, -0.5, 0.5, 1.5, 3};
const double IN_FOCUS = 0.1; // millimetres

/** The height of the focus at first, and the quality of the camera's pictures. */
class FocusFrom : public testing::TestWithParam<std::tuple<double, int>>
{
public:
    /** In tenths of a millimetre, since a name holds no point: "At15Below80". */
    static std::string name(const testing::TestParamInfo<ParamType>& info)
    {
        const auto [dFocusZ, nQuality] = info.param;
        return "At" + std::to_string(std::lround(std::fabs(dFocusZ) * 10)) +
               (dFocusZ < 0 ? "Below" : "Above") + std::to_string(nQuality);
    }

protected:
    static double getFocusZ()
    {
        return std::get<0>(GetParam());
    }
    static int getQuality()
    {
        return std::get<1>(GetParam());
    }
};

class FocusAtFirst : public FocusFrom
{
};

double homedAt(FrameProcessor& processor, SceneCamera& camera, double dZ)
{
    camera.setSpot(3.21, -4.56, dZ);
    double dHomed = NAN;
    EXPECT_EQ(FrameProcessor::RESULT_OK, processor.autoFocus(camera.take(), dHomed));
    return dHomed;
}

double sigmaAt(double dDistance)
{
    return 0.3 + 0.15 * std::fabs(dDistance);
}

// A measurement with pictures that tell their widths exactly; the arm's Z afterwards.
double measure(FocusJudge& judge, double dZ, double dFocusZ)
{
    double dHomed = NAN;
    judge.seeBefore(sigmaAt(dZ - dFocusZ));
    EXPECT_TRUE(judge.judge(sigmaAt(dFocusZ), dHomed));
    return -dHomed;
}

} // namespace

TEST_P(FocusFrom, TwoMeasurementsLeadIntoFocusAndTenMoreStayThere)
{
    // The virtual camera's own quality of pictures, and a better one.
    SceneCamera camera(0, 640, 480, getQuality());
    ServiceLoop loop(camera, getFocusZ());

    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());

    EXPECT_NEAR(0, loop.offFocus(), IN_FOCUS);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
        EXPECT_NEAR(0, loop.offFocus(), IN_FOCUS);
    }
}

INSTANTIATE_TEST_SUITE_P(Focus, FocusFrom,
                         testing::Combine(testing::ValuesIn(STARTS), testing::Values(80, 90)),
                         FocusFrom::name);

TEST(Focus, TwoMeasurementsLeadIntoFocusOnABurntWorkpiece)
{
    SceneCamera camera(0, 640, 480, 80);
    for (double d = -3; d <= 3; d += 0.5) { // crossing the spot, and in its middle
        camera.burn(2, -5 + d, 8, -5 + d);
        camera.burn(5 + d, -8, 5 + d, -2);
    }
    for (const double dFocusZ : STARTS) {
        ServiceLoop loop(camera, dFocusZ); // the spot is at 5, -5 in the picture

        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());

        EXPECT_NEAR(0, loop.offFocus(), IN_FOCUS) << "focus at " << dFocusZ;
    }
}

TEST(Focus, FirstSideNeedsOneMeasurement)
{
    SceneCamera camera;
    for (const double dFocusZ : {0.5, 1.5}) {
        ServiceLoop loop(camera, dFocusZ);

        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());

        EXPECT_NEAR(0, loop.offFocus(), IN_FOCUS) << "focus at " << dFocusZ;
    }
}

TEST_P(FocusAtFirst, WorkpieceOfAnotherHeightNeedsTwoMeasurementsMore)
{
    SceneCamera camera;
    const double dFocusZ = getFocusZ();
    for (const double dNext : {-dFocusZ, dFocusZ / 3, dFocusZ + 0.3}) {
        ServiceLoop loop(camera, dFocusZ);
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());

        loop.m_dFocusZ = dNext;
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());

        EXPECT_NEAR(0, loop.offFocus(), IN_FOCUS) << "to " << dNext;
    }
}

INSTANTIATE_TEST_SUITE_P(Focus, FocusAtFirst,
                         testing::Combine(testing::ValuesIn(STARTS), testing::Values(80)),
                         FocusFrom::name);

TEST(Focus, FocusAtHomeIsLeftForEitherSide)
{
    SceneCamera camera;
    for (const double dNext : {-2.0, 2.0}) {
        ServiceLoop loop(camera, 0);
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
        EXPECT_EQ(0, loop.m_dZ);

        loop.m_dFocusZ = dNext;
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());

        EXPECT_NEAR(0, loop.offFocus(), IN_FOCUS) << "to " << dNext;
    }
}

TEST(Focus, SpotStaysWhereItIsMeasuredAgain)
{
    SceneCamera camera;
    ServiceLoop loop(camera, 1.5);
    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
    const double dX = loop.m_dX;
    const double dY = loop.m_dY;

    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
        EXPECT_EQ(dX, loop.m_dX);
        EXPECT_EQ(dY, loop.m_dY);
    }
}

TEST(Focus, BlurBeyondUseIsAFailure)
{
    SceneCamera camera;
    for (const double dZ : {-12.0, -8.0, -4.5, 4.5, 6.0, 9.0, 20.0}) {
        FrameProcessor processor{Parameters()};
        camera.setSpot(3.21, -4.56, dZ);
        double dHomed = 77;

        EXPECT_LT(0, processor.autoFocus(camera.take(), dHomed)) << "at " << dZ;

        EXPECT_EQ(77, dHomed);
    }
}

TEST(Focus, SpotInFocusNeedsNoMove)
{
    SceneCamera camera;
    FrameProcessor processor{Parameters()};

    EXPECT_EQ(0, homedAt(processor, camera, 0));
}

TEST(Focus, ResetForgetsTheSide)
{
    SceneCamera camera;
    ServiceLoop loop(camera, -1.5);
    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
    ASSERT_EQ(FrameProcessor::RESULT_OK, loop.measure());
    EXPECT_NEAR(1.5, homedAt(loop.m_processor, loop.m_camera, -1.5), 0.1);

    loop.m_processor.reset();

    EXPECT_NEAR(-1.5, homedAt(loop.m_processor, loop.m_camera, -1.5), 0.1);
}

TEST(Focus, LensDoesNotBlur)
{
    Parameters parameters;
    parameters.dRadialK1 = -0.12;
    FrameProcessor processor{parameters};
    SceneCamera camera(-0.12);
    camera.setSpot(24, 17, 2); // where the lens shrinks most
    double dHomed = 0;

    ASSERT_EQ(FrameProcessor::RESULT_OK, processor.autoFocus(camera.take(), dHomed));

    EXPECT_NEAR(-2, dHomed, 0.15);
}

TEST(FocusJudge, PictureWhereTheArmWasLeftTellsTheSide)
{
    FocusJudge judge{Parameters()};

    EXPECT_NEAR(2, measure(judge, 0, -2), 1e-9); // nothing is known
    EXPECT_NEAR(-2, measure(judge, 2, -2), 1e-9);
    EXPECT_NEAR(-2, measure(judge, -2, -2), 1e-9);
    EXPECT_NEAR(1, measure(judge, -2, 1), 1e-9); // another workpiece
}

TEST(FocusJudge, NearlySharpPictureTellsTheRestOfTheWay)
{
    FocusJudge judge{Parameters()};
    double dHomed = NAN;
    judge.seeBefore(sigmaAt(1.5));
    EXPECT_TRUE(judge.judge(sigmaAt(1.4), dHomed)); // the focus is at 1.5
    EXPECT_NEAR(-1.4, dHomed, 1e-9);

    judge.seeBefore(sigmaAt(0.1));
    EXPECT_TRUE(judge.judge(sigmaAt(1.57), dHomed));
    EXPECT_NEAR(-1.5, dHomed, 1e-9);

    for (const double dNoise : {-0.1, 0.02, 0.1}) { // it was sharp: it stays
        judge.seeBefore(sigmaAt(0.02));
        EXPECT_TRUE(judge.judge(sigmaAt(1.5 + dNoise), dHomed));
        EXPECT_NEAR(-1.5, dHomed, 1e-9);
    }
}

TEST(FocusJudge, SecondPictureFromBeforeTheArmWasHomedIsNotBelieved)
{
    for (const double dFocusZ : {-2.5, -1.5, 1.5, 2.5}) {
        FocusJudge judge{Parameters()};
        double dHomed = NAN;
        (void)measure(judge, 0, dFocusZ);
        double dZ = dFocusZ < 0 ? -dFocusZ : dFocusZ; // the first side is above

        for (int i = 0; i < 3; ++i) {
            judge.seeBefore(sigmaAt(dZ - dFocusZ));
            EXPECT_TRUE(judge.judge(sigmaAt(dZ - dFocusZ), dHomed)) << dFocusZ;
            EXPECT_NEAR(dFocusZ, -dHomed, 1e-9);
            dZ = -dHomed;
        }
    }
}

TEST(FocusJudge, WrongFirstSideLeavesTheMeanOfTwoLooksFromHome)
{
    FocusJudge judge{Parameters()};
    double dHomed = NAN;
    judge.seeBefore(sigmaAt(2));
    EXPECT_TRUE(judge.judge(sigmaAt(1.9), dHomed, 20)); // the focus is at -2
    EXPECT_TRUE(judge.wantsLight());

    judge.seeBefore(sigmaAt(3.9));
    EXPECT_TRUE(judge.judge(sigmaAt(2.05), dHomed, 40));

    EXPECT_NEAR((1.9 + 4 * 2.05) / 5, dHomed, 1e-9); // by the square of the redness
    EXPECT_FALSE(judge.wantsLight());
}

TEST(FocusJudge, FirstPictureTooBrightLeavesTheArmWhereItWas)
{
    FocusJudge judge{Parameters()};
    double dHomed = NAN;
    EXPECT_NEAR(-1.5, -measure(judge, 0, 1.5), 1e-9);

    judge.seeBefore(0);
    EXPECT_TRUE(judge.judge(sigmaAt(1.6), dHomed));
    EXPECT_NEAR(-1.5, dHomed, 1e-9);

    judge.seeBefore(0);
    EXPECT_TRUE(judge.judge(sigmaAt(2.5), dHomed)); // another workpiece
    EXPECT_NEAR(-2.5, dHomed, 1e-9);
}

TEST(FocusJudge, TwoNearlySharpPicturesTellTheSideAgainstTheOneFromHome)
{
    FocusJudge judge{Parameters()};
    double dHomed = NAN;
    (void)measure(judge, 0, 2.6);
    judge.seeBefore(sigmaAt(0.4)); // the focus is at 3
    EXPECT_TRUE(judge.judge(sigmaAt(2.8), dHomed));
    EXPECT_NEAR(-2.8, dHomed, 1e-9);

    judge.seeBefore(sigmaAt(0.2));
    EXPECT_TRUE(judge.judge(sigmaAt(2.7), dHomed));

    EXPECT_NEAR(-3, dHomed, 1e-9);
}

TEST(FocusJudge, ArmThatWasNotMovedLeavesTheSide)
{
    FocusJudge judge{Parameters()};
    EXPECT_NEAR(2, measure(judge, 0, -2), 1e-9);
    EXPECT_NEAR(-2, measure(judge, 2, -2), 1e-9);

    EXPECT_NEAR(-2, measure(judge, 0, -2), 1e-9); // where it was sent to it would be sharp
    EXPECT_NEAR(-2, measure(judge, 0, -2), 1e-9);
}

TEST(FocusJudge, PictureThatTellsNoWidthLeavesTheSide)
{
    FocusJudge judge{Parameters()};
    EXPECT_NEAR(2, measure(judge, 0, -2), 1e-9);
    EXPECT_NEAR(-2, measure(judge, 2, -2), 1e-9);
    double dHomed = NAN;

    judge.seeBefore(0);

    EXPECT_TRUE(judge.judge(sigmaAt(1), dHomed));
    EXPECT_NEAR(1, dHomed, 1e-9);
}

// The service homes the arm before the picture and sends no height when it fails.
TEST(FocusJudge, ArmIsAtHomeAfterAFailure)
{
    FocusJudge judge{Parameters()};
    double dHomed = NAN;
    judge.seeBefore(sigmaAt(2));
    EXPECT_TRUE(judge.judge(sigmaAt(2), dHomed));
    judge.seeBefore(sigmaAt(4));
    EXPECT_FALSE(judge.judge(sigmaAt(5), dHomed));

    // From z = 2 these would tell that the focus is below; from home they tell nothing.
    EXPECT_NEAR(2, measure(judge, 0, -2), 1e-9);
}

TEST(FocusJudge, WidthThatCannotBeTheLasersIsRefused)
{
    FocusJudge judge{Parameters()};
    double dHomed = 7;

    EXPECT_FALSE(judge.judge(sigmaAt(3.6), dHomed));
    EXPECT_FALSE(judge.judge(0.2, dHomed));

    EXPECT_EQ(7, dHomed);
}

TEST(FocusJudge, KnownSideNeverChanges)
{
    for (const int nSide : {-1, 1}) {
        Parameters parameters;
        parameters.nKnownSide = nSide;
        FocusJudge judge{parameters};

        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(2 * nSide, measure(judge, 2 * nSide, -2 * nSide), 1e-9);
        }
    }
}

TEST(FocusJudge, FirstSideIsTheParameters)
{
    Parameters parameters;
    parameters.nFirstSide = -1;
    FocusJudge judge{parameters};
    double dHomed = NAN;

    EXPECT_TRUE(judge.judge(0.6, dHomed));

    EXPECT_NEAR(2.0, dHomed, 1e-9);
}

// Whether the calibration finds the virtual camera's lens.
#include "LensCalibration.h"

#include <cstdio>

#include <gtest/gtest.h>

#include "BoardCamera.h"
#include "JpegCodec.h"
#include "LensFile.h"
#include "LensModel.h"
#include "ScratchFolder.h"

namespace {

// As a camera sends it.
cv::Mat throughJpeg(const cv::Mat& rgb)
{
    std::vector<uint8_t> vecJpeg;
    EXPECT_TRUE(JpegCodec::encode(rgb, 85, vecJpeg));
    cv::Mat out;
    EXPECT_TRUE(JpegCodec::decode(vecJpeg.data(), vecJpeg.size(), rgb.size(), out));
    return out;
}

class LensCalibrationOf : public testing::TestWithParam<double>
{
};

} // namespace

TEST_P(LensCalibrationOf, LensIsFoundAndItsFileTellsIt)
{
    const double dK1 = GetParam();
    const BoardCamera camera(dK1);
    LensCalibration calibration(cv::Size(BoardCamera::COLUMNS, BoardCamera::ROWS));
    for (const BoardPose& pose : boardPoses()) {
        EXPECT_TRUE(calibration.add(throughJpeg(camera.take(pose))));
    }

    EXPECT_LT(calibration.solve(), 0.25);
    EXPECT_EQ(boardPoses().size(), calibration.errors().size());

    const ScratchFolder folder;
    folder.write("lens.yml", calibration.text());
    Parameters parameters;
    std::string strReason;
    ASSERT_EQ(LensFile::READ, LensFile::read(folder.path() / "lens.yml", parameters, strReason))
        << strReason;
    printf("k1 %.4f for %.4f, k2 %.4f, focal length %.4f, %.4f\n", parameters.dRadialK1, dK1,
           parameters.dRadialK2, parameters.dFocalLengthX, parameters.dFocalLengthY);
    EXPECT_NEAR(0.5, parameters.dFocalLengthX, 0.005);
    EXPECT_NEAR(0.5, parameters.dFocalLengthY, 0.005);
    EXPECT_NEAR(0, parameters.dCentreX, 0.003);
    EXPECT_NEAR(0, parameters.dCentreY, 0.003);
    EXPECT_NEAR(dK1, parameters.dRadialK1, 0.01);
    EXPECT_NEAR(0, parameters.dRadialK2, 0.01);
    EXPECT_NEAR(0, parameters.dTangentialP1, 0.001);
    EXPECT_NEAR(0, parameters.dTangentialP2, 0.001);
    EXPECT_EQ(0, parameters.dRadialK3);
    const SceneGeometry truth(640, 480, dK1);
    const LensModel lens(parameters, cv::Size(640, 480));
    for (const double dX : {-28.0, -14.0, 0.0, 14.0, 28.0}) {
        for (const double dY : {-21.0, -10.0, 0.0, 10.0, 21.0}) {
            const SceneGeometry::Point seen = truth.toPixel({dX, dY});
            const cv::Point2d found = lens.toMillimetre(lens.toIdeal({seen.dX, seen.dY}));
            EXPECT_NEAR(dX, found.x, 0.08) << dX << ", " << dY; // half a pixel at the corners
            EXPECT_NEAR(dY, found.y, 0.08) << dX << ", " << dY;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Lenses, LensCalibrationOf, testing::Values(-0.08, 0.0, 0.1));

TEST(LensCalibration, PictureWithoutTheWholeBoardIsLeftOut)
{
    const BoardCamera camera(0);
    LensCalibration calibration(cv::Size(BoardCamera::COLUMNS, BoardCamera::ROWS));

    EXPECT_FALSE(calibration.add(cv::Mat(480, 640, CV_8UC3, cv::Scalar(90, 90, 90))));
    EXPECT_FALSE(calibration.add(camera.take({9, 0, 7.5, 0, 0, 0})));
    EXPECT_TRUE(calibration.add(camera.take({0, 0, 7.5, 0, 0, 0})));
}

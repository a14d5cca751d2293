// Whether the grid's lines are straight in a corrected picture.
#include <cstdio>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "FrameProcessor.h"
#include "GridLines.h"
#include "JpegCodec.h"
#include "SceneCamera.h"

namespace {

cv::Mat greyOf(const uint8_t* pData, size_t nSize, cv::Size size)
{
    cv::Mat rgb;
    EXPECT_TRUE(JpegCodec::decode(pData, nSize, size, rgb));
    cv::Mat grey;
    cv::cvtColor(rgb, grey, cv::COLOR_RGB2GRAY);
    cv::Mat real;
    grey.convertTo(real, CV_64F);
    return real;
}

class Undistort : public testing::TestWithParam<double>
{
};

} // namespace

TEST_P(Undistort, GridLinesAreStraightWithinHalfAPixel)
{
    const double dK1 = GetParam();
    Parameters parameters;
    parameters.dRadialK1 = dK1;
    FrameProcessor processor(parameters);
    SceneCamera camera(dK1);
    camera.setLaser(false);
    const cv::Size size(640, 480);

    const JpegPicture picture = camera.take();
    std::vector<uint8_t> vecJpeg;
    ASSERT_EQ(FrameProcessor::RESULT_OK, processor.undistort(picture, vecJpeg));

    const cv::Mat before = greyOf(picture.pData, picture.u32Size, size);
    const cv::Mat after = greyOf(vecJpeg.data(), vecJpeg.size(), size);
    for (const bool bTransposed : {false, true}) {
        const GridLines::Straightness bent =
            GridLines::judge(bTransposed ? before.t() : before, bTransposed);
        const GridLines::Straightness straight =
            GridLines::judge(bTransposed ? after.t() : after, bTransposed);
        printf("%s lines, %d points: bent by %.2f pixels before, %.2f after, off by %.2f\n",
               bTransposed ? "horizontal" : "vertical", straight.nPoints, bent.dWorstBend,
               straight.dWorstBend, straight.dWorstDistance);
        EXPECT_GT(straight.nPoints, 100);
        EXPECT_LT(straight.dWorstBend, 0.5);
        EXPECT_LT(straight.dWorstDistance, 0.5);
        if (0 != dK1) {
            EXPECT_GT(bent.dWorstBend, 1.0) << "nothing was there to correct";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Lenses, Undistort, testing::Values(-0.12, -0.05, 0.0, 0.08));

TEST(UndistortPicture, CorrectedPictureKeepsSizeAndLooks)
{
    FrameProcessor processor{Parameters()}; // no distortion
    SceneCamera camera;
    const JpegPicture picture = camera.take();
    std::vector<uint8_t> vecJpeg;

    ASSERT_EQ(FrameProcessor::RESULT_OK, processor.undistort(picture, vecJpeg));

    const cv::Size size(640, 480);
    const cv::Mat difference =
        greyOf(picture.pData, picture.u32Size, size) - greyOf(vecJpeg.data(), vecJpeg.size(), size);
    EXPECT_LT(cv::norm(difference, cv::NORM_L1) / static_cast<double>(difference.total()), 3.0);
}

// The size in a JPEG picture's header.
#include "JpegSize.h"

#include <vector>

#include <gtest/gtest.h>

#include "JpegCodec.h"

namespace {

std::vector<uint8_t> encoded(int nWidth, int nHeight)
{
    std::vector<uint8_t> vecJpeg;
    EXPECT_TRUE(
        JpegCodec::encode(cv::Mat(nHeight, nWidth, CV_8UC3, cv::Scalar(9, 8, 7)), 90, vecJpeg));
    return vecJpeg;
}

} // namespace

TEST(JpegSize, WidthAndHeightAreThoseOfTheFrame)
{
    const std::vector<uint8_t> vecJpeg = encoded(1280, 721);
    uint32_t u32Width = 0;
    uint32_t u32Height = 0;

    EXPECT_TRUE(jpegSize(vecJpeg.data(), vecJpeg.size(), u32Width, u32Height));

    EXPECT_EQ(1280U, u32Width);
    EXPECT_EQ(721U, u32Height);
}

TEST(JpegSize, FillBytesBeforeMarkersAreSkipped)
{
    std::vector<uint8_t> vecJpeg = encoded(33, 44);
    vecJpeg.insert(vecJpeg.begin() + 2, 5, 0xff);
    uint32_t u32Width = 0;
    uint32_t u32Height = 0;

    EXPECT_TRUE(jpegSize(vecJpeg.data(), vecJpeg.size(), u32Width, u32Height));

    EXPECT_EQ(33U, u32Width);
    EXPECT_EQ(44U, u32Height);
}

TEST(JpegSize, HeaderCutAnywhereTellsNothingWrong)
{
    const std::vector<uint8_t> vecJpeg = encoded(33, 44);
    int nTold = 0;
    for (size_t uSize = 0; uSize <= vecJpeg.size(); ++uSize) {
        // A copy of its own, so that a sanitizer sees any byte read beyond it.
        const std::vector<uint8_t> vecCut(vecJpeg.data(), vecJpeg.data() + uSize);
        uint32_t u32Width = 0;
        uint32_t u32Height = 0;
        if (jpegSize(vecCut.data(), uSize, u32Width, u32Height)) {
            EXPECT_EQ(33U, u32Width) << uSize;
            EXPECT_EQ(44U, u32Height) << uSize;
            ++nTold;
        }
    }
    EXPECT_GT(nTold, 0);
}

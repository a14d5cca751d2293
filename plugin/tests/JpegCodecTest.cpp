// JPEG pictures, whole and damaged.
#include "JpegCodec.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

namespace {

const cv::Size SIZE(64, 48);

cv::Mat colourful(cv::Size size)
{
    cv::Mat rgb(size, CV_8UC3, cv::Scalar(90, 120, 150));
    cv::circle(rgb, cv::Point(size.width / 2, size.height / 2), size.height / 4,
               cv::Scalar(250, 20, 20), cv::FILLED);
    return rgb;
}

std::vector<uint8_t> encoded(cv::Size size = SIZE)
{
    std::vector<uint8_t> vecJpeg;
    EXPECT_TRUE(JpegCodec::encode(colourful(size), 95, vecJpeg));
    return vecJpeg;
}

bool decodes(const std::vector<uint8_t>& vecJpeg, cv::Size size = SIZE)
{
    cv::Mat rgb;
    return JpegCodec::decode(vecJpeg.data(), vecJpeg.size(), size, rgb);
}

// Where the first segment of a kind begins, e.g. 0xc4 for Huffman tables.
size_t segment(const std::vector<uint8_t>& vecJpeg, uint8_t u8Marker)
{
    const uint8_t au8Marker[] = {0xff, u8Marker};
    const auto it = std::search(vecJpeg.begin(), vecJpeg.end(), au8Marker, au8Marker + 2);
    EXPECT_NE(vecJpeg.end(), it);
    return static_cast<size_t>(it - vecJpeg.begin());
}

} // namespace

TEST(JpegCodec, DecodedPictureIsTheEncodedOne)
{
    const std::vector<uint8_t> vecJpeg = encoded();

    cv::Mat rgb;
    ASSERT_TRUE(JpegCodec::decode(vecJpeg.data(), vecJpeg.size(), SIZE, rgb));

    ASSERT_EQ(SIZE, rgb.size());
    EXPECT_LT(cv::norm(rgb, colourful(SIZE), cv::NORM_L1) / static_cast<double>(rgb.total()), 15.0);
    const cv::Vec3b centre = rgb.at<cv::Vec3b>(24, 32);
    EXPECT_NEAR(250, centre[0], 8);
    EXPECT_NEAR(20, centre[1], 8);
    EXPECT_NEAR(20, centre[2], 8);
}

TEST(JpegCodec, PictureWithoutHuffmanTablesIsRead)
{
    std::vector<uint8_t> vecJpeg = encoded();
    const std::vector<uint8_t> vecWhole = vecJpeg;
    for (int nTable = 0; nTable < 4; nTable++) {
        const size_t nAt = segment(vecJpeg, 0xc4);
        const size_t nLength = 2U + vecJpeg[nAt + 2] * 256U + vecJpeg[nAt + 3];
        vecJpeg.erase(vecJpeg.begin() + static_cast<ptrdiff_t>(nAt),
                      vecJpeg.begin() + static_cast<ptrdiff_t>(nAt + nLength));
    }
    const uint8_t au8Tables[] = {0xff, 0xc4};
    ASSERT_EQ(vecJpeg.end(), std::search(vecJpeg.begin(), vecJpeg.end(), au8Tables, au8Tables + 2));

    cv::Mat with;
    cv::Mat without;
    ASSERT_TRUE(JpegCodec::decode(vecWhole.data(), vecWhole.size(), SIZE, with));
    ASSERT_TRUE(JpegCodec::decode(vecJpeg.data(), vecJpeg.size(), SIZE, without));

    EXPECT_EQ(0, cv::norm(with, without, cv::NORM_INF));
}

TEST(JpegCodec, PictureCutAnywhereIsRefused)
{
    const std::vector<uint8_t> vecJpeg = encoded();

    for (size_t nSize = 0; nSize < vecJpeg.size(); nSize++) {
        EXPECT_FALSE(decodes({vecJpeg.begin(), vecJpeg.begin() + static_cast<ptrdiff_t>(nSize)}))
            << nSize << " of " << vecJpeg.size() << " bytes";
    }
    EXPECT_TRUE(decodes(vecJpeg));
}

TEST(JpegCodec, BytesBehindThePictureAreIgnored)
{
    std::vector<uint8_t> vecJpeg = encoded();

    vecJpeg.insert(vecJpeg.end(), 1000, 0x5a);

    EXPECT_TRUE(decodes(vecJpeg));
}

TEST(JpegCodec, StrayBytesBetweenSegmentsAreIgnored)
{
    std::vector<uint8_t> vecJpeg = encoded();

    vecJpeg.insert(vecJpeg.begin() + static_cast<ptrdiff_t>(segment(vecJpeg, 0xdb)), 7, 0x00);

    EXPECT_TRUE(decodes(vecJpeg));
}

TEST(JpegCodec, AnotherSizeThanToldIsRefused)
{
    const std::vector<uint8_t> vecJpeg = encoded();

    EXPECT_FALSE(decodes(vecJpeg, cv::Size(SIZE.width + 1, SIZE.height)));
    EXPECT_FALSE(decodes(vecJpeg, cv::Size(SIZE.width, SIZE.height - 1)));
    EXPECT_FALSE(decodes(vecJpeg, cv::Size(SIZE.height, SIZE.width)));
}

TEST(JpegCodec, SizeIsToldWithoutReadingThePixels)
{
    const std::vector<uint8_t> vecJpeg = encoded(cv::Size(33, 7));
    const size_t nHeader = segment(vecJpeg, 0xda) + 14; // to where the pixels begin
    cv::Size size;

    EXPECT_TRUE(JpegCodec::measure(vecJpeg.data(), nHeader, size));

    EXPECT_EQ(cv::Size(33, 7), size);
    EXPECT_FALSE(JpegCodec::measure(vecJpeg.data(), segment(vecJpeg, 0xc0), size));
    EXPECT_FALSE(JpegCodec::measure(nullptr, 0, size));
}

TEST(JpegCodec, NoBytesAreRefused)
{
    cv::Mat rgb;

    EXPECT_FALSE(JpegCodec::decode(nullptr, 0, SIZE, rgb));
    EXPECT_FALSE(JpegCodec::decode(nullptr, 100, SIZE, rgb));
}

TEST(JpegCodec, OnePixelIsAPicture)
{
    EXPECT_TRUE(decodes(encoded(cv::Size(1, 1)), cv::Size(1, 1)));
}

TEST(JpegCodec, RandomBytesAreRefused)
{
    std::mt19937 random(4711);
    for (int i = 0; i < 500; i++) {
        std::vector<uint8_t> vecJpeg(random() % 2000);
        std::generate(vecJpeg.begin(), vecJpeg.end(), [&] { return random() & 0xff; });
        if (vecJpeg.size() > 4 && 0 == i % 2) {
            const uint8_t au8Start[] = {0xff, 0xd8, 0xff};
            std::copy(au8Start, au8Start + 3, vecJpeg.begin());
        }

        EXPECT_FALSE(decodes(vecJpeg)) << "round " << i;
    }
}

// Some damage can't be told from a picture; a sanitizer's finding or a crash fails this.
TEST(JpegCodec, DamagedPicturesDoNoHarm)
{
    std::mt19937 random(815);
    const std::vector<uint8_t> vecJpeg = encoded();
    int nRefused = 0;
    for (int i = 0; i < 2000; i++) {
        std::vector<uint8_t> vecDamaged = vecJpeg;
        for (int nByte = 0; nByte < 3; nByte++) {
            vecDamaged[random() % vecDamaged.size()] = static_cast<uint8_t>(random());
        }
        nRefused += decodes(vecDamaged) ? 0 : 1;
    }
    EXPECT_GT(nRefused, 0);
}

TEST(JpegCodec, EmptyPictureIsNotEncoded)
{
    std::vector<uint8_t> vecJpeg;

    EXPECT_FALSE(JpegCodec::encode(cv::Mat(0, 0, CV_8UC3), 90, vecJpeg));
}

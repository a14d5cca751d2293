// What is in the pictures, and whether a program gets them unchanged.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "CameraFrames.h"
#include "SceneGeometry.h"
#include "VideoClient.h"
#include "VirtualCamera.h"

namespace {

/** The field of an answer such as "ok x=1.5 y=2". */
double field(const std::string& strAnswer, const std::string& strName)
{
    std::istringstream words(strAnswer);
    for (std::string strWord; words >> strWord;) {
        if (0 == strWord.compare(0, strName.size() + 1, strName + "=")) {
            return std::stod(strWord.substr(strName.size() + 1));
        }
    }
    ADD_FAILURE() << strName << " is not in: " << strAnswer;
    return NAN;
}

double meanGreen(Raster& raster)
{
    double dSum = 0;
    for (uint32_t y = 100; y < 400; ++y) {
        for (uint32_t x = 100; x < 500; ++x) {
            dSum += raster.pixel(x, y)[1];
        }
    }
    return dSum / (300 * 400);
}

/** The centroid of what is redder than green, in a window around the reddest pixel. */
SceneGeometry::Point redCentroid(Raster& raster, double dReach)
{
    const auto red = [&raster](uint32_t u32X, uint32_t u32Y) {
        return raster.pixel(u32X, u32Y)[0] - raster.pixel(u32X, u32Y)[1];
    };
    SceneGeometry::Point centre{NAN, NAN};
    int nReddest = 20; // less is noise of the compression
    for (uint32_t y = 0; y < raster.u32Height; ++y) {
        for (uint32_t x = 0; x < raster.u32Width; ++x) {
            if (red(x, y) > nReddest) {
                nReddest = red(x, y);
                centre = {static_cast<double>(x), static_cast<double>(y)};
            }
        }
    }
    for (int nPass = 0; nPass < 5 && !std::isnan(centre.dX); ++nPass) { // let the window settle
        double dWeight = 0;
        SceneGeometry::Point sum{0, 0};
        for (uint32_t y = 0; y < raster.u32Height; ++y) {
            for (uint32_t x = 0; x < raster.u32Width; ++x) {
                if (std::hypot(x - centre.dX, y - centre.dY) < dReach) {
                    dWeight += red(x, y);
                    sum.dX += red(x, y) * static_cast<double>(x);
                    sum.dY += red(x, y) * static_cast<double>(y);
                }
            }
        }
        centre = {sum.dX / dWeight, sum.dY / dWeight};
    }
    return centre;
}

/** Where the darkest of a line lies between two places, weighted; across = along y. */
double darkCentre(Raster& raster, bool bAcross, uint32_t u32At, int nFrom, int nTo)
{
    double dWeight = 0;
    double dSum = 0;
    for (int i = nFrom; i <= nTo; ++i) {
        const uint32_t u32Other = static_cast<uint32_t>(i);
        const uint8_t* pPixel =
            bAcross ? raster.pixel(u32At, u32Other) : raster.pixel(u32Other, u32At);
        const double dDark = std::max(0, 125 - pPixel[1]);
        dWeight += dDark;
        dSum += dDark * i;
    }
    return dSum / dWeight;
}

} // namespace

TEST(CameraPicture, HundredFramesArriveUnchangedAndInOrder)
{
    VirtualCamera camera({"--keep", "1000", "--fps", "100"});
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    std::vector<std::vector<uint8_t>> vecGot;
    std::set<size_t> setSize;

    while (vecGot.size() < 100) {
        vecGot.push_back(nextFrame(client));
        setSize.insert(vecGot.back().size());
    }

    const std::vector<VirtualCamera::Frame> vecKept = camera.frames();
    ASSERT_GE(vecKept.size(), vecGot.size());
    for (size_t i = 0; i < vecGot.size(); ++i) {
        ASSERT_EQ(vecKept[i].strPicture, std::string(vecGot[i].begin(), vecGot[i].end())) << i;
    }
    EXPECT_GT(setSize.size(), 20u); // bytesused follows the picture
}

TEST(CameraPicture, FrameHasTwentyToSixtyKilobytes)
{
    VirtualCamera camera;
    camera.command("spot 3 2 0 on");
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    const std::vector<uint8_t> vecBytes = freshFrame(client);

    EXPECT_GT(vecBytes.size(), 20000u);
    EXPECT_LT(vecBytes.size(), 60000u);
    const Raster raster = decoded(vecBytes);
    EXPECT_EQ(640u, raster.u32Width);
    EXPECT_EQ(480u, raster.u32Height);
}

TEST(CameraPicture, UncompressedFrameHasTwoBytesPerPixel)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.setFormat(V4L2_PIX_FMT_YUYV, 1280, 720));
    ASSERT_EQ(0, client.startStreaming());

    const std::vector<uint8_t> vecBytes = nextFrame(client);

    ASSERT_EQ(1280u * 720 * 2, vecBytes.size());
    const size_t uPlate = 769460; // pixel (730, 300), between the grid lines
    EXPECT_NEAR(150, vecBytes[uPlate], 8);
    EXPECT_NEAR(128, vecBytes[uPlate + 1], 2);
    EXPECT_NEAR(128, vecBytes[uPlate + 3], 2);
}

TEST(CameraPicture, SpotLiesWhereTheStateSays)
{
    VirtualCamera camera({"--quality", "100"});
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    for (const char* pSpot : {"spot 0 0 0 on", "spot 10.37 -7.81 0 on", "spot -21.2 15.05 2 on"}) {
        camera.command(pSpot);

        Raster raster = decoded(freshFrame(client));

        const std::string strState = camera.command("state");
        const SceneGeometry::Point seen = redCentroid(raster, 3 * field(strState, "sigma"));
        EXPECT_NEAR(field(strState, "x"), seen.dX, 0.1) << pSpot;
        EXPECT_NEAR(field(strState, "y"), seen.dY, 0.1) << pSpot;
        EXPECT_EQ(319.5 + 10 * field(strState, "xmm"), field(strState, "x"));
        EXPECT_EQ(239.5 + 10 * field(strState, "ymm"), field(strState, "y"));
    }
}

TEST(CameraPicture, SpotIsDrawnFromTheSceneFile)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    Raster raster = decoded(freshFrame(client));
    EXPECT_TRUE(std::isnan(redCentroid(raster, 9).dX)); // the laser is off

    camera.command("spot 100 0 0 on");
    (void)freshFrame(client);
    EXPECT_EQ(0, field(camera.command("state"), "visible"));

    camera.command("spot 1 1 1.5 on");
    (void)freshFrame(client);
    const std::string strState = camera.command("state");
    EXPECT_EQ(1, field(strState, "visible"));
    EXPECT_EQ(5.25, field(strState, "sigma"));
}

TEST(CameraPicture, GridLiesEveryFiveMillimetres)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    Raster raster = decoded(nextFrame(client));

    for (int nLine = -5; nLine <= 5; ++nLine) {
        const double dExpected = 319.5 + nLine * 50;
        const int nAround = static_cast<int>(dExpected);
        EXPECT_NEAR(dExpected, darkCentre(raster, false, 215, nAround - 5, nAround + 6), 0.25);
    }
}

TEST(CameraPicture, DistortionBendsGridAndSpotAsDescribed)
{
    VirtualCamera camera({"--distortion", "-0.08", "--quality", "100"});
    camera.command("spot 18 -12 0 on");
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    Raster raster = decoded(freshFrame(client));

    // 18 mm and -12 mm are 0.5625 and -0.375 half widths: r^2 = 0.45703125.
    const double dFactor = 1 - 0.08 * 0.45703125;
    const SceneGeometry::Point seen = redCentroid(raster, 9);
    EXPECT_NEAR(319.5 + 180 * dFactor, seen.dX, 0.1);
    EXPECT_NEAR(239.5 - 120 * dFactor, seen.dY, 0.1);
    EXPECT_NEAR(319.5 + 180 * dFactor, field(camera.command("state"), "x"), 0.001);
    // The line x = 20 mm where y = 7.5 mm: 0.625 and 0.234375 half widths.
    const double dLine = 1 - 0.08 * (0.625 * 0.625 + 0.234375 * 0.234375);
    const uint32_t u32Row = static_cast<uint32_t>(std::lround(239.5 + 75 * dLine));
    const int nAround = static_cast<int>(319.5 + 200 * dLine);
    EXPECT_NEAR(319.5 + 200 * dLine, darkCentre(raster, false, u32Row, nAround - 5, nAround + 6),
                0.3);
}

TEST(CameraPicture, ExposureAndBrightnessLightThePicture)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    Raster nominal = decoded(nextFrame(client));
    const double dNominal = meanGreen(nominal);

    v4l2_control control{V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL};
    ASSERT_EQ(0, client.control(VIDIOC_S_CTRL, control));
    control = {V4L2_CID_EXPOSURE_ABSOLUTE, 78};
    ASSERT_EQ(0, client.control(VIDIOC_S_CTRL, control));
    Raster dark = decoded(freshFrame(client));
    EXPECT_NEAR(dNominal * 78 / 157, meanGreen(dark), 2);

    control = {V4L2_CID_BRIGHTNESS, 20};
    ASSERT_EQ(0, client.control(VIDIOC_S_CTRL, control));
    Raster lighter = decoded(freshFrame(client));
    EXPECT_NEAR(meanGreen(dark) + 40, meanGreen(lighter), 2);
}

TEST(CameraPicture, FolderIsDeliveredByteForByteInALoop)
{
    ScratchFolder folder;
    std::vector<std::string> vecFile;
    for (uint8_t u8Grey : {10, 90, 170}) {
        Raster raster;
        raster.resize(320, 240);
        raster.box(0, 0, 320, 240, u8Grey);
        raster.write(10, 10, 4, std::to_string(u8Grey));
        std::vector<uint8_t> vecBytes;
        Jpeg::encode(raster, 75, vecBytes);
        vecFile.emplace_back(vecBytes.begin(), vecBytes.end());
        folder.write("picture" + std::to_string(1000 + u8Grey) + ".jpg", vecFile.back());
    }
    folder.write("notes.txt", "no picture");
    folder.write("broken.jpg", "no picture");
    VirtualCamera camera({"--pictures", folder.path(), "--keep", "10"});
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    const std::vector<uint8_t> vecFirst = nextFrame(client);
    size_t uFile = 0;
    while (uFile < 3 && vecFile[uFile] != std::string(vecFirst.begin(), vecFirst.end())) {
        ++uFile;
    }
    ASSERT_EQ(0u, uFile);
    for (size_t i = 1; i < 7; ++i) {
        const std::vector<uint8_t> vecBytes = nextFrame(client);
        EXPECT_EQ(vecFile[i % 3], std::string(vecBytes.begin(), vecBytes.end())) << i;
    }
}

TEST(CameraPicture, FrameWithoutAQueuedBufferIsDropped)
{
    VirtualCamera camera({"--keep", "10", "--fps", "100"});
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    v4l2_buffer first{};
    v4l2_buffer second{};
    ASSERT_TRUE(client.readable(30000));
    ASSERT_EQ(0, client.dequeue(first));
    ASSERT_TRUE(client.readable(30000));
    ASSERT_EQ(0, client.dequeue(second));
    EXPECT_EQ(first.sequence + 1, second.sequence);

    const double dNumber = field(camera.command("status"), "frame");
    while (field(camera.command("status"), "frame") < dNumber + 5) {
    }
    ASSERT_EQ(0, client.enqueue(first.index));
    ASSERT_TRUE(client.readable(30000));
    v4l2_buffer third{};
    ASSERT_EQ(0, client.dequeue(third));

    EXPECT_GE(third.sequence, second.sequence + 5);
}

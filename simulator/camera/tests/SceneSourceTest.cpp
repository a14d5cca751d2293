// What the drawn scene shows of the beam's work.
#include "SceneSource.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include <linux/videodev2.h>

#include <gtest/gtest.h>

#include "Burner.h"

namespace {

/** Uncompressed pictures, so that each pixel is what was drawn. */
class SceneSourcePixels : public testing::TestWithParam<uint32_t>
{
protected:
    SceneSourcePixels()
    {
        m_request.choice.u32PixelFormat = V4L2_PIX_FMT_YUYV;
        m_request.choice.u32Width = GetParam();
        m_request.choice.u32Height = GetParam() / 640 * 480;
    }

    /** A picture's brightness, but for the writing and the running block. */
    std::vector<uint8_t> draw()
    {
        m_source.draw(m_request, m_picture);
        std::vector<uint8_t> vecGrey;
        const size_t uScale = GetParam() / 640;
        const size_t uWidth = m_request.choice.u32Width;
        for (size_t i = 28 * uScale * uWidth; i < (480 - 6) * uScale * uWidth; ++i) {
            vecGrey.push_back(m_picture.vecByte[2 * i]);
        }
        return vecGrey;
    }

    SceneFile m_scene{""};
    SceneSource m_source{m_scene, 0, 80};
    PictureRequest m_request;
    Picture m_picture;
};

} // namespace

TEST_P(SceneSourcePixels, BurntLineIsDarkWhereItIsAndNowhereElse)
{
    const std::vector<uint8_t> vecBefore = draw();

    Burner(m_scene.getBurnt()).burn({-12, 7.5, 0}, {-2, 7.5, 0}, 1000 * 10 / 25.0);
    const std::vector<uint8_t> vecAfter = draw();

    const double dPerMm = GetParam() / 64.0;
    const double dScale = GetParam() / 640.0;
    size_t uDark = 0;
    for (size_t i = 0; i < vecAfter.size(); ++i) {
        const double dX = (i % GetParam() - (GetParam() - 1) / 2.0) / dPerMm;
        const double dY = (i / GetParam() + 28 * dScale - (480 * dScale - 1) / 2.0) / dPerMm;
        const double dBeyond = dX - std::min(std::max(dX, -12.0), -2.0);
        const double dDistance = std::hypot(dBeyond, dY - 7.5);
        if (dDistance > 0.25) {
            ASSERT_EQ(vecBefore[i], vecAfter[i]) << dX << ", " << dY;
        } else if (dDistance < 0.08 && std::fabs(dX + 7) < 4.8) {
            ASSERT_LT(vecAfter[i], 60) << dX << ", " << dY;
            ++uDark;
        }
    }
    EXPECT_GT(uDark, 90u);
}

TEST_P(SceneSourcePixels, NewWorkpieceIsDrawnAsTheFirst)
{
    const std::vector<uint8_t> vecBefore = draw();
    Burner(m_scene.getBurnt()).burn({-12, 7.5, 0}, {-2, 7.5, 0}, 1000);
    EXPECT_NE(vecBefore, draw());

    for (std::atomic<float>& fShare : m_scene.getBurnt().afShare) {
        fShare = 0;
    }
    ++m_scene.getBurnt().u32Changes;

    EXPECT_EQ(vecBefore, draw());
}

TEST_P(SceneSourcePixels, BeamIsBrighterThanThePilotSpot)
{
    const auto brightest = [this] {
        const std::vector<uint8_t> vecGrey = draw();
        return *std::max_element(vecGrey.begin(), vecGrey.end());
    };
    m_scene.getState().u32LaserOn = LIGHT_PILOT;
    const uint8_t u8Pilot = brightest();

    m_scene.getState().u32LaserOn = LIGHT_BEAM;

    EXPECT_LT(u8Pilot, 180);
    EXPECT_GT(brightest(), 210); // its middle lies between four pixels
    EXPECT_TRUE(m_picture.truth.bLaserOn);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SceneSourcePixels, testing::Values(640U, 1280U));

// A job on the virtual controller burns its path into what the virtual camera sees.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ArmPort.h"
#include "CameraFrames.h"
#include "VideoClient.h"
#include "VirtualCamera.h"
#include "VirtualController.h"

namespace {

const double PER_MM = 10;   // pixels of a picture of 640 x 480
const double ALLOWED = 0.2; // mm
const int DARKENED = 35;    // grey values; compression moves others by less than 20

struct Place
{
    double dX; // mm of the arm
    double dY;
};

using Way = std::vector<Place>; // straight from place to place

/** A circle's part, from one angle to another, in degrees. */
Way arc(const Place& centre, double dRadius, double dFrom, double dTo)
{
    Way way;
    for (int i = 0; i <= 200; ++i) {
        const double dAngle = (dFrom + (dTo - dFrom) * i / 200) * M_PI / 180;
        way.push_back(
            {centre.dX + dRadius * std::cos(dAngle), centre.dY + dRadius * std::sin(dAngle)});
    }
    return way;
}

/** In the picture: the arm's axes point against its own, and the origin is in its middle. */
Place toPixel(const Place& place)
{
    return {319.5 - place.dX * PER_MM, 239.5 - place.dY * PER_MM};
}

double distanceTo(const Place& from, const Place& to, const Place& pixel)
{
    const double dX = to.dX - from.dX;
    const double dY = to.dY - from.dY;
    const double dSquare = dX * dX + dY * dY;
    const double dAlong = ((pixel.dX - from.dX) * dX + (pixel.dY - from.dY) * dY) / dSquare;
    const double dShare = std::clamp(dAlong, 0.0, 1.0);
    return std::hypot(from.dX + dX * dShare - pixel.dX, from.dY + dY * dShare - pixel.dY);
}

/** What differs between a job's ways and the darkened pixels, in millimetres. */
struct Difference
{
    double dBeside = 0; // the farthest darkened pixel from all ways
    double dBare = 0;   // the farthest place of a way from all darkened pixels
    size_t uDarkened = 0;
};

Difference compare(const std::vector<Place>& vecDarkened, const std::vector<Way>& vecWay)
{
    Difference difference;
    difference.uDarkened = vecDarkened.size();
    const auto forEachLine = [&vecWay](auto take) {
        for (const Way& way : vecWay) {
            for (size_t i = 1; i < way.size(); ++i) {
                take(toPixel(way[i - 1]), toPixel(way[i]));
            }
        }
    };
    for (const Place& pixel : vecDarkened) {
        double dNearest = INFINITY;
        forEachLine([&](const Place& from, const Place& to) {
            dNearest = std::min(dNearest, distanceTo(from, to, pixel));
        });
        difference.dBeside = std::max(difference.dBeside, dNearest / PER_MM);
    }
    forEachLine([&](const Place& from, const Place& to) {
        const double dSteps = std::ceil(std::hypot(to.dX - from.dX, to.dY - from.dY) * 2);
        for (double dStep = 0; dStep <= dSteps; ++dStep) {
            const Place at{from.dX + (to.dX - from.dX) * dStep / dSteps,
                           from.dY + (to.dY - from.dY) * dStep / dSteps};
            double dNearest = INFINITY;
            for (const Place& pixel : vecDarkened) {
                dNearest = std::min(dNearest, std::hypot(pixel.dX - at.dX, pixel.dY - at.dY));
            }
            difference.dBare = std::max(difference.dBare, dNearest / PER_MM);
        }
    });
    return difference;
}

/** The camera, the controller behind its scene, and a sender of lines. */
class BurntPath : public testing::Test
{
protected:
    BurntPath()
    {
        m_camera.command("spot 0 0 0 off");
        EXPECT_EQ(0, m_client.startStreaming());
        m_before = decoded(freshFrame(m_client));
    }

    void start(std::vector<std::string> vecOption)
    {
        const std::string strScene = std::string(getenv("KESTREL_CAMERA_DIR")) + "/scene";
        vecOption.insert(vecOption.end(), {"--scene", strScene, "--speed-up", "20", "--pilot-off"});
        m_pController = std::make_unique<VirtualController>(vecOption);
        m_pPort = std::make_unique<Port>(m_pController->getNode());
    }

    /** Send each line when the one before has been answered, and wait for the arm to stand. */
    void run(const std::string& strJob)
    {
        std::istringstream lines(strJob);
        for (std::string strLine; std::getline(lines, strLine);) {
            m_pPort->say(strLine + "\n");
            std::string strAnswer;
            while (strAnswer.find("ok") == std::string::npos) {
                const std::string strMore = m_pPort->hear();
                ASSERT_NE("", strMore) << strLine;
                strAnswer += strMore;
                ASSERT_EQ(std::string::npos, strAnswer.find("error")) << strLine;
            }
        }
        ASSERT_TRUE(VirtualController::waitUntil([this] {
            return 0 == m_pController->getState("moving") && 0 == m_pController->getState("laser");
        }));
    }

    /** The pixels that are darker than before the job, but for the writing and the block. */
    std::vector<Place> darkened()
    {
        Raster after = decoded(freshFrame(m_client));
        std::vector<Place> vecPixel;
        for (uint32_t y = 28; y < 474; ++y) {
            for (uint32_t x = 0; x < 640; ++x) {
                if (m_before.pixel(x, y)[1] - after.pixel(x, y)[1] > DARKENED) {
                    vecPixel.push_back({static_cast<double>(x), static_cast<double>(y)});
                }
            }
        }
        return vecPixel;
    }

    void expectBurnt(const std::vector<Way>& vecWay)
    {
        const std::vector<Place> vecDarkened = darkened();
        const Difference difference = compare(vecDarkened, vecWay);
        printf("%zu pixels, at most %.2f mm beside the path; %.2f mm of it bare\n",
               difference.uDarkened, difference.dBeside, difference.dBare);
        EXPECT_LE(difference.dBeside, ALLOWED);
        EXPECT_LE(difference.dBare, ALLOWED);
        // The comparison itself notices a path that is off by less than twice that, and a missing
        // one.
        std::vector<Way> vecOff = vecWay;
        for (Way& way : vecOff) {
            for (Place& place : way) {
                place.dX += 0.35;
            }
        }
        EXPECT_GT(compare(vecDarkened, vecOff).dBeside, ALLOWED);
        std::vector<Way> vecMore = vecWay;
        vecMore.push_back({{-21.3, 13.1}, {-20.3, 13.1}});
        EXPECT_GT(compare(vecDarkened, vecMore).dBare, ALLOWED);
        const std::vector<Way> vecFewer(vecWay.begin() + 1, vecWay.end());
        EXPECT_GT(compare(vecDarkened, vecFewer).dBeside, ALLOWED);
    }

    VirtualCamera m_camera;
    VideoClient m_client;
    Raster m_before;
    std::unique_ptr<VirtualController> m_pController;
    std::unique_ptr<Port> m_pPort;
};

} // namespace

TEST_F(BurntPath, JobInTheArmsLanguageIsBurntWithinAFifthOfAMillimetre)
{
    start({});

    run("G21\nG90\nG0 X-22.2 Y-12.3 F6000\n"
        "M3 S1000\nG1 X18.7 Y-13.1 F1500\nG1 X21.4 Y11.8\nG1 X-22.2 Y-12.3\nM5\n"
        "G0 X-12.5 Y17.3 F6000\n"
        "M4 S800\nG1 X-3.1 F1200\nG1 Y12.2\nM5\n"
        "G0 X0 Y0\n"
        "G91\nM3 S1000\nG1 X2.5 Y-2.5 F900\nG1 X2.5 Y2.5\nG90\nM5\nG0 X-27 Y-20 F6000\n");

    expectBurnt({{{-22.2, -12.3}, {18.7, -13.1}, {21.4, 11.8}, {-22.2, -12.3}},
                 {{-12.5, 17.3}, {-3.1, 17.3}, {-3.1, 12.2}},
                 {{0, 0}, {2.5, -2.5}, {5, 0}}});
}

TEST_F(BurntPath, JobInGrblIsBurntWithinAFifthOfAMillimetre)
{
    start({"--language", "grbl", "--setting", "32=1", "--setting", "110=6000", "--setting",
           "111=6000", "--setting", "120=500", "--setting", "121=500"});
    (void)m_pPort->hear(28); // the greeting

    run("G21 G90 G17\nG0 X-22.2 Y-12.3\n"
        "M4 S1000\nG1 X18.7 Y-13.1 F1500\nG1 X21.4 Y11.8\n"
        "G0 X-12.5 Y17.3\nG1 X-3.1 F1200\n" // dark on its way there, though it was not switched off
        "G0 X6 Y4\nG3 X-2 Y-4 I-8 J0 F900\nM5\n"
        "G0 X10.4 Y16\nM3 S600\nG2 X10.4 Y16 I2.5 J0\nM5\nG0 X-27 Y-20\nG4 P0.01\n");

    expectBurnt({{{-22.2, -12.3}, {18.7, -13.1}, {21.4, 11.8}},
                 {{-12.5, 17.3}, {-3.1, 17.3}},
                 arc({-2, 4}, 8, 0, 270),
                 arc({12.9, 16}, 2.5, 0, 360)});
}

TEST_F(BurntPath, WithoutPowerNothingIsBurnt)
{
    start({});

    run("G0 X-10 Y-10 F6000\nM3 S0\nG1 X10 F1500\nM5\nG1 Y10\n");

    EXPECT_EQ(0u, darkened().size());
}

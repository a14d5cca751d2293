// The picture of a job's path.
#include "JobPicture.h"

#include <gtest/gtest.h>

#include "JobDesk.h"

namespace {

std::string drawJob(const std::string& strJob)
{
    static const GrblLanguage GRBL;
    JobCheck check(jobLimits(), GRBL);
    JobPicture picture;
    check.onMove(
        [&picture](const GcodeMove& move, MOVE_BEAM_E eBeam) { picture.add(move, eBeam); });
    EXPECT_TRUE(check.check(strJob, nullptr).passes());
    return picture.draw(jobLimits());
}

std::string pathOf(const std::string& strPicture, const std::string& strClass)
{
    const std::string strBegin = "<path class=\"" + strClass + "\" d=\"";
    const size_t uBegin = strPicture.find(strBegin);
    if (std::string::npos == uBegin) {
        return "";
    }
    const size_t uPath = uBegin + strBegin.size();
    return strPicture.substr(uPath, strPicture.find('"', uPath) - uPath);
}

} // namespace

TEST(JobPicture, PathsAreToldApartByTheBeam)
{
    const std::string strPicture =
        drawJob("G0 X10 Y20\nM3 S9\nG1 X30.5 F60\nG1 Y25\nG0 X40\nG1 X41\nM5\n");

    EXPECT_EQ("M0 0L10 20", pathOf(strPicture, "dark"));
    EXPECT_EQ("M10 20L30.5 20L30.5 25M40 25L41 25", pathOf(strPicture, "burn"));
    EXPECT_EQ("M30.5 25L40 25", pathOf(strPicture, "lit"));
}

TEST(JobPicture, ArcsAreDrawnInHalves)
{
    const std::string strPicture = drawJob("G0 X60 Y50\nM4 S9\nG3 X60 Y50 I-10 J0 F60\n"
                                           "G2 X40 Y50 I-10 J0\nM5\n");

    EXPECT_EQ("M60 50A10 10 0 0 1 40 50A10 10 0 0 1 60 50"
              "A10 10 0 0 0 50 40A10 10 0 0 0 40 50",
              pathOf(strPicture, "burn"));
}

TEST(JobPicture, WorkspaceIsDrawnWithMarginAndYUpwards)
{
    const std::string strPicture = drawJob("M5\n");

    EXPECT_NE(std::string::npos, strPicture.find("viewBox=\"-5 -105 210 110\""));
    EXPECT_NE(std::string::npos, strPicture.find("scale(1 -1)"));
    EXPECT_NE(std::string::npos,
              strPicture.find("<rect x=\"0\" y=\"0\" width=\"200\" height=\"100\"/>"));
    EXPECT_EQ("", pathOf(strPicture, "burn"));
}

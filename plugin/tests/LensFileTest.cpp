// The lens's file: what it tells, and what is none.
#include "LensFile.h"

#include <cmath>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "ScratchFolder.h"

namespace {

const char* const GOOD = "%YAML:1.0\n"
                         "---\n"
                         "image_width: 640\n"
                         "image_height: 480\n"
                         "camera_matrix: !!opencv-matrix\n"
                         "   rows: 3\n"
                         "   cols: 3\n"
                         "   dt: d\n"
                         "   data: [ 400., 0., 329.5, 0., 410., 229.5, 0., 0., 1. ]\n"
                         "distortion_coefficients: !!opencv-matrix\n"
                         "   rows: 1\n"
                         "   cols: 5\n"
                         "   dt: d\n"
                         "   data: [ -0.1, 0.02, 0.001, -0.002, 0.003 ]\n"
                         "avg_reprojection_error: 0.2\n";

class LensFileRead : public testing::Test
{
protected:
    LensFile::RESULT_E read(const std::string& strText)
    {
        m_folder.write("lens.yml", strText);
        return LensFile::read(m_strPath, m_parameters, m_strReason);
    }

    void expectUnusable(const std::string& strText, const std::string& strReason)
    {
        m_strReason = "";
        EXPECT_EQ(LensFile::UNUSABLE, read(strText)) << strText;
        EXPECT_EQ(strReason, m_strReason) << strText;
        EXPECT_EQ(0.5, m_parameters.dFocalLengthX);
        EXPECT_EQ(0, m_parameters.dRadialK1);
        EXPECT_EQ(64, m_parameters.dFieldWidthMm);
    }

    ScratchFolder m_folder;
    std::string m_strPath = m_folder.path() / "lens.yml";
    Parameters m_parameters;
    std::string m_strReason;
};

// GOOD with another text in one place.
std::string with(const std::string& strFrom, const std::string& strTo)
{
    std::string strText = GOOD;
    const size_t uAt = strText.find(strFrom);
    EXPECT_NE(std::string::npos, uAt) << strFrom;
    return strText.replace(uAt, strFrom.size(), strTo);
}

} // namespace

TEST_F(LensFileRead, LensIsToldInPartsOfThePicturesWidth)
{
    ASSERT_EQ(LensFile::READ, read(GOOD)) << m_strReason;

    EXPECT_DOUBLE_EQ(0.625, m_parameters.dFocalLengthX);
    EXPECT_DOUBLE_EQ(0.640625, m_parameters.dFocalLengthY);
    EXPECT_DOUBLE_EQ(10 / 640.0, m_parameters.dCentreX);
    EXPECT_DOUBLE_EQ(-10 / 640.0, m_parameters.dCentreY);
    EXPECT_DOUBLE_EQ(-0.1, m_parameters.dRadialK1);
    EXPECT_DOUBLE_EQ(0.02, m_parameters.dRadialK2);
    EXPECT_DOUBLE_EQ(0.001, m_parameters.dTangentialP1);
    EXPECT_DOUBLE_EQ(-0.002, m_parameters.dTangentialP2);
    EXPECT_DOUBLE_EQ(0.003, m_parameters.dRadialK3);
    EXPECT_EQ(64, m_parameters.dFieldWidthMm);
}

TEST_F(LensFileRead, FieldWidthIsTakenWhereItIsTold)
{
    ASSERT_EQ(LensFile::READ, read(std::string(GOOD) + "field_width_mm: 81.5\n")) << m_strReason;
    EXPECT_EQ(81.5, m_parameters.dFieldWidthMm);

    ASSERT_EQ(LensFile::READ, read(std::string(GOOD) + "field_width_mm: 80\n")) << m_strReason;
    EXPECT_EQ(80, m_parameters.dFieldWidthMm);
}

TEST_F(LensFileRead, FourCoefficientsInAColumnWithoutK3)
{
    m_parameters.dRadialK3 = 7;
    ASSERT_EQ(LensFile::READ, read(with("   rows: 1\n   cols: 5\n   dt: d\n   data: [ -0.1, 0.02, "
                                        "0.001, -0.002, 0.003 ]",
                                        "   rows: 4\n   cols: 1\n   dt: d\n   data: [ -0.1, 0.02, "
                                        "0.001, -0.002 ]")))
        << m_strReason;

    EXPECT_EQ(-0.002, m_parameters.dTangentialP2);
    EXPECT_EQ(0, m_parameters.dRadialK3);
}

TEST_F(LensFileRead, MissingFileIsAbsent)
{
    EXPECT_EQ(LensFile::ABSENT, LensFile::read(m_strPath, m_parameters, m_strReason));
}

TEST_F(LensFileRead, FileThatCannotBeReadIsUnusable)
{
    ASSERT_TRUE(std::filesystem::create_directory(m_strPath));

    EXPECT_EQ(LensFile::UNUSABLE, LensFile::read(m_strPath, m_parameters, m_strReason));
    EXPECT_EQ("Is a directory", m_strReason);
}

TEST_F(LensFileRead, WhatIsNotYamlOfOpenCvIsUnusable)
{
    const char* const HEAD = "does not begin with %YAML:1.0";
    const char* const FORM = "not YAML as OpenCV writes it";
    expectUnusable("", HEAD);
    expectUnusable("k1 = -0.1\n", HEAD);
    expectUnusable("<?xml version=\"1.0\"?><opencv_storage></opencv_storage>", HEAD);
    expectUnusable("{\"image_width\": 640}", HEAD);
    expectUnusable(with("data: [ 400.", "data: [ 400. ["), FORM);
    expectUnusable(with("   rows: 3", "   rows: {"), FORM);
    expectUnusable(std::string("%YAML:1.0\n---\n") + std::string(70000, ' '), "longer than 64 KB");
}

TEST_F(LensFileRead, WhatIsMissingIsNamed)
{
    expectUnusable("%YAML:1.0\n---\n", "image_width is not a width in pixels");
    expectUnusable(with("image_width", "width"), "image_width is not a width in pixels");
    expectUnusable(with("image_height", "height"), "image_height is not a height in pixels");
    expectUnusable(with("camera_matrix", "camera"),
                   "camera_matrix is not 3 x 3 numbers of a camera");
    expectUnusable(with("distortion_coefficients", "distortion"),
                   "distortion_coefficients are not 4 or 5 numbers");
}

TEST_F(LensFileRead, NumbersOfNoCameraAreRefused)
{
    expectUnusable(with("640", "0"), "image_width is not a width in pixels");
    expectUnusable(with("640", "640.5"), "image_width is not a width in pixels");
    expectUnusable(with("480", "5000"), "image_height is not a height in pixels");
    const char* const CAMERA = "camera_matrix is not 3 x 3 numbers of a camera";
    expectUnusable(with("400.", "-400."), CAMERA);
    expectUnusable(with("400.", ".Nan"), CAMERA);
    expectUnusable(with("400.", ".Inf"), CAMERA);
    expectUnusable(with("400.", "wide"), CAMERA);
    expectUnusable(with("400., 0.", "400., 3."), CAMERA);
    expectUnusable(with("0., 1. ]", "0., 2. ]"), CAMERA);
    expectUnusable(with(", 1. ]", " ]"), CAMERA);
    expectUnusable(with("rows: 3", "rows: 300000000"), CAMERA);
    const char* const CENTRE = "camera_matrix has the centre outside the picture";
    expectUnusable(with("329.5", "640.5"), CENTRE);
    expectUnusable(with("229.5", "-1."), CENTRE);
    const char* const DISTORTION = "distortion_coefficients are not 4 or 5 numbers";
    expectUnusable(with("-0.1, 0.02", "-0.1"), DISTORTION);
    expectUnusable(with("0.003 ]", "0.003, 0., 0., 0. ]"), DISTORTION);
    expectUnusable(with("-0.1, ", ".Nan, "), DISTORTION);
    expectUnusable(std::string(GOOD) + "field_width_mm: 0.\n", "field_width_mm is not a width");
    expectUnusable(std::string(GOOD) + "field_width_mm: wide\n", "field_width_mm is not a width");
}

TEST_F(LensFileRead, LensThatFoldsThePictureIsRefused)
{
    expectUnusable(with("-0.1,", "-0.9,"), "its lens does not show the picture's edges");
}

// A damaged file is told or gives finite numbers; a crash or a sanitizer's finding fails this.
TEST_F(LensFileRead, FileCutAnywhereDoesNoHarm)
{
    const std::string strGood = GOOD;
    int nUnusable = 0;
    for (size_t uSize = 0; uSize < strGood.size(); ++uSize) {
        Parameters parameters;
        m_folder.write("lens.yml", strGood.substr(0, uSize));
        nUnusable +=
            LensFile::UNUSABLE == LensFile::read(m_strPath, parameters, m_strReason) ? 1 : 0;
        EXPECT_TRUE(std::isfinite(parameters.dRadialK3)) << uSize;
    }
    EXPECT_GT(nUnusable, static_cast<int>(strGood.find("distortion")));
}

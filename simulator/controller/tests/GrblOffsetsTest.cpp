// The offsets of Grbl 1.1.
#include "GrblOffsets.h"

#include <string>

#include <gtest/gtest.h>

namespace {

const Point POSITION{{10, 20, 30}};

int apply(GrblOffsets& offsets, const std::string& strLine, const GrblModes& modes = GrblModes())
{
    GrblWords words;
    EXPECT_EQ(0, words.read(strLine)) << strLine;
    return offsets.apply(words, modes, POSITION);
}

} // namespace

TEST(GrblOffsets, G10L2SetsASystem)
{
    GrblOffsets offsets;
    EXPECT_EQ(0, apply(offsets, "G10L2P2X1Y2Z3"));

    EXPECT_EQ((Point{{1, 2, 3}}), offsets.getOffset(1));
    EXPECT_EQ((Point{{0, 0, 0}}), offsets.getOffset(0));
    EXPECT_EQ(0, apply(offsets, "G10L2P2Y5"));
    EXPECT_EQ((Point{{1, 5, 3}}), offsets.getOffset(1));
}

TEST(GrblOffsets, G10L20MakesThePositionHaveAValue)
{
    GrblOffsets offsets;
    EXPECT_EQ(0, apply(offsets, "G10L20P1X1Y2Z3"));

    EXPECT_EQ((Point{{9, 18, 27}}), offsets.getOffset(0));
}

TEST(GrblOffsets, G10P0IsTheSystemInForce)
{
    GrblOffsets offsets;
    GrblModes modes;
    modes.nSystem = 4;
    EXPECT_EQ(0, apply(offsets, "G10L2P0X7", modes));

    EXPECT_EQ((Point{{7, 0, 0}}), offsets.getOffset(4));
    EXPECT_EQ((Point{{0, 0, 0}}), offsets.getOffset(0));
}

TEST(GrblOffsets, LengthsAreInTheUnitsOfTheLine)
{
    GrblOffsets offsets;
    GrblModes modes;
    modes.bInch = true;
    EXPECT_EQ(0, apply(offsets, "G10L2P1X1", modes));

    EXPECT_DOUBLE_EQ(25.4, offsets.getOffset(0)[0]);
}

TEST(GrblOffsets, G92ShiftsAllSystemsUntilItIsForgotten)
{
    GrblOffsets offsets;
    EXPECT_EQ(0, apply(offsets, "G10L2P2X1"));
    EXPECT_EQ(0, apply(offsets, "G92X4Z0"));

    EXPECT_EQ((Point{{6, 0, 30}}), offsets.getOffset(0));
    EXPECT_EQ((Point{{7, 0, 30}}), offsets.getOffset(1));

    EXPECT_EQ(0, apply(offsets, "G92.1"));
    EXPECT_EQ((Point{{0, 0, 0}}), offsets.getOffset(0));
}

TEST(GrblOffsets, ToolLengthIsOfZ)
{
    GrblOffsets offsets;
    offsets.setToolLength(2.5);

    EXPECT_EQ((Point{{0, 0, 2.5}}), offsets.getOffset(3));
    EXPECT_EQ(0, apply(offsets, "G92Z0"));
    EXPECT_EQ((Point{{0, 0, 30}}), offsets.getOffset(3));
}

TEST(GrblOffsets, ResetForgetsG92AndTheToolLengthOnly)
{
    GrblOffsets offsets;
    EXPECT_EQ(0, apply(offsets, "G10L2P1X1"));
    EXPECT_EQ(0, apply(offsets, "G92Y3"));
    EXPECT_EQ(0, apply(offsets, "G28.1"));
    offsets.setToolLength(9);

    offsets.reset();

    EXPECT_EQ((Point{{1, 0, 0}}), offsets.getOffset(0));
    EXPECT_EQ(POSITION, offsets.getHome28());
}

TEST(GrblOffsets, StoredPositionsAreThoseOfTheirLine)
{
    GrblOffsets offsets;
    EXPECT_EQ(0, apply(offsets, "G30.1"));
    EXPECT_EQ(POSITION, offsets.getHome30());
    EXPECT_EQ((Point{{0, 0, 0}}), offsets.getHome28());

    EXPECT_EQ(0, apply(offsets, "G28X1")); // a move: nothing is stored
    EXPECT_EQ((Point{{0, 0, 0}}), offsets.getHome28());
}

TEST(GrblOffsets, WhatIsMissingOrUnknownIsRefused)
{
    GrblOffsets offsets;

    EXPECT_EQ(26, apply(offsets, "G10L2P1"));
    EXPECT_EQ(26, apply(offsets, "G92"));
    EXPECT_EQ(28, apply(offsets, "G10P1X1"));
    EXPECT_EQ(28, apply(offsets, "G10L2X1"));
    EXPECT_EQ(20, apply(offsets, "G10L1P1X1"));
    EXPECT_EQ(29, apply(offsets, "G10L2P7X1"));
    EXPECT_EQ(29, apply(offsets, "G10L2P1.5X1"));
}

TEST(GrblOffsets, ReportHasThemAll)
{
    GrblOffsets offsets;
    EXPECT_EQ(0, apply(offsets, "G10L2P6X1Y-2Z0.5"));
    EXPECT_EQ(0, apply(offsets, "G28.1"));
    offsets.setToolLength(1.25);

    EXPECT_EQ("[G54:0.000,0.000,0.000]\r\n[G55:0.000,0.000,0.000]\r\n[G56:0.000,0.000,0.000]\r\n"
              "[G57:0.000,0.000,0.000]\r\n[G58:0.000,0.000,0.000]\r\n[G59:1.000,-2.000,0.500]\r\n"
              "[G28:10.000,20.000,30.000]\r\n[G30:0.000,0.000,0.000]\r\n[G92:0.000,0.000,0.000]\r\n"
              "[TLO:1.250]\r\n[PRB:0.000,0.000,0.000:0]\r\n",
              offsets.format());
}

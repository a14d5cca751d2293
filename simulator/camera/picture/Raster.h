// A picture in memory, and the writing in it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/** Rows of pixels, three bytes each: red, green, blue. */
struct Raster
{
    uint32_t u32Width = 0;
    uint32_t u32Height = 0;
    std::vector<uint8_t> vecByte;

    /** Set the size; the contents are lost when it changes. */
    void resize(uint32_t u32NewWidth, uint32_t u32NewHeight);
    uint8_t* pixel(uint32_t u32X, uint32_t u32Y);

    /** Fill a rectangle with one grey value; what lies outside the picture is left out. */
    void box(int nX, int nY, int nWidth, int nHeight, uint8_t u8Grey);
    /** Write digits, ':', '.', '#' and spaces, each 6 x 8 units of nScale pixels, in white. */
    void write(int nX, int nY, int nScale, const std::string& strText);
    /** Convert to YUYV, two bytes per pixel, full range of a JPEG. */
    void toYuyv(std::vector<uint8_t>& vecYuyv) const;
};

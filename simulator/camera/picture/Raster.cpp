// A picture in memory, and the writing in it.
#include "Raster.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace {

struct Glyph
{
    char c;
    uint8_t au8Row[7]; // five bits each, the leftmost highest
};

const Glyph GLYPHS[] = {
    {'0', {0x0e, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0e}},
    {'1', {0x04, 0x0c, 0x04, 0x04, 0x04, 0x04, 0x0e}},
    {'2', {0x0e, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1f}},
    {'3', {0x1f, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0e}},
    {'4', {0x02, 0x06, 0x0a, 0x12, 0x1f, 0x02, 0x02}},
    {'5', {0x1f, 0x10, 0x1e, 0x01, 0x01, 0x11, 0x0e}},
    {'6', {0x06, 0x08, 0x10, 0x1e, 0x11, 0x11, 0x0e}},
    {'7', {0x1f, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0e, 0x11, 0x11, 0x0e, 0x11, 0x11, 0x0e}},
    {'9', {0x0e, 0x11, 0x11, 0x0f, 0x01, 0x02, 0x0c}},
    {':', {0x00, 0x0c, 0x0c, 0x00, 0x0c, 0x0c, 0x00}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x0c}},
    {'#', {0x0a, 0x0a, 0x1f, 0x0a, 0x1f, 0x0a, 0x0a}},
};

uint8_t clip(int nValue)
{
    return static_cast<uint8_t>(std::clamp(nValue, 0, 255));
}

} // namespace

void Raster::resize(uint32_t u32NewWidth, uint32_t u32NewHeight)
{
    u32Width = u32NewWidth;
    u32Height = u32NewHeight;
    vecByte.resize(static_cast<size_t>(u32Width) * u32Height * 3);
}

uint8_t* Raster::pixel(uint32_t u32X, uint32_t u32Y)
{
    return vecByte.data() + (static_cast<size_t>(u32Y) * u32Width + u32X) * 3;
}

void Raster::box(int nX, int nY, int nWidth, int nHeight, uint8_t u8Grey)
{
    const int nRight = std::min(nX + nWidth, static_cast<int>(u32Width));
    const int nBottom = std::min(nY + nHeight, static_cast<int>(u32Height));
    const int nLeft = std::max(nX, 0);
    for (int y = std::max(nY, 0); y < nBottom; ++y) {
        if (nLeft < nRight) {
            uint8_t* pRow = pixel(static_cast<uint32_t>(nLeft), static_cast<uint32_t>(y));
            std::fill(pRow, pRow + static_cast<ptrdiff_t>(nRight - nLeft) * 3, u8Grey);
        }
    }
}

void Raster::write(int nX, int nY, int nScale, const std::string& strText)
{
    for (const char c : strText) {
        const Glyph* pGlyph = std::find_if(std::begin(GLYPHS), std::end(GLYPHS),
                                           [c](const Glyph& glyph) { return glyph.c == c; });
        for (int nRow = 0; std::end(GLYPHS) != pGlyph && nRow < 7; ++nRow) {
            for (int nBit = 0; nBit < 5; ++nBit) {
                if (0 != (pGlyph->au8Row[nRow] >> (4 - nBit) & 1)) {
                    box(nX + nBit * nScale, nY + nRow * nScale, nScale, nScale, 255);
                }
            }
        }
        nX += 6 * nScale;
    }
}

void Raster::toYuyv(std::vector<uint8_t>& vecYuyv) const
{
    vecYuyv.resize(static_cast<size_t>(u32Width) * u32Height * 2);
    const uint8_t* pIn = vecByte.data();
    // The weights of JFIF, in 1/65536.
    for (size_t i = 0; i + 3 < vecYuyv.size(); i += 4, pIn += 6) {
        const int nRed = pIn[0] + pIn[3];
        const int nGreen = pIn[1] + pIn[4];
        const int nBlue = pIn[2] + pIn[5];
        vecYuyv[i] = clip((19595 * pIn[0] + 38470 * pIn[1] + 7471 * pIn[2] + 32768) >> 16);
        vecYuyv[i + 1] =
            clip(128 + ((-11059 * nRed - 21709 * nGreen + 32768 * nBlue + 65536) >> 17));
        vecYuyv[i + 2] = clip((19595 * pIn[3] + 38470 * pIn[4] + 7471 * pIn[5] + 32768) >> 16);
        vecYuyv[i + 3] = clip(128 + ((32768 * nRed - 27439 * nGreen - 5329 * nBlue + 65536) >> 17));
    }
}

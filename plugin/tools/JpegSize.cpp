// The size of a JPEG picture, without decoding it.
#include "JpegSize.h"

bool jpegSize(const uint8_t* pData, size_t uSize, uint32_t& u32Width, uint32_t& u32Height)
{
    // Segments of ISO/IEC 10918-1, annex B: 0xff, a marker, and its length, which counts itself.
    size_t uAt = 2;
    if (uSize < uAt || 0xff != pData[0] || 0xd8 != pData[1]) {
        return false;
    }
    while (uAt + 9 <= uSize && 0xff == pData[uAt]) {
        const uint8_t u8Marker = pData[uAt + 1];
        const uint8_t* const p = pData + uAt + 2;
        if (u8Marker >= 0xc0 && u8Marker <= 0xcf && 0xc4 != u8Marker && 0xc8 != u8Marker &&
            0xcc != u8Marker) { // a frame: all of them but tables, extensions and conditioning
            u32Height = p[3] * 256U + p[4];
            u32Width = p[5] * 256U + p[6];
            return 0 != u32Width && 0 != u32Height;
        }
        uAt += 0xff == u8Marker ? 1U : 2U + p[0] * 256U + p[1]; // 0xff: one more before a marker
    }
    return false;
}

// JPEG pictures to pixels and back, by libjpeg.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

/**
 * No state; any thread. Both functions print nothing. When memory runs out they return false, or
 * decode() throws cv::Exception.
 */
class JpegCodec
{
public:
    /**
     * Read a picture, also one without Huffman tables, as Motion-JPEG cameras send them. Bytes
     * behind the picture's end are ignored.
     * @param size      what the picture must measure; the picture's own header is believed for
     *                  nothing but a comparison with it
     * @param rgbOut    8 bits per channel, red first
     * @return false when it isn't a JPEG picture, is damaged or cut short, or has another size
     */
    static bool decode(const uint8_t* pData, size_t nSize, cv::Size size, cv::Mat& rgbOut);

    /**
     * @param rgb       8 bits per channel, red first
     * @param nQuality  1 to 100
     * @return false when the picture has no JPEG form (empty, or a side above 65500), or when
     *         memory runs out; vecOut is then as it was
     */
    static bool encode(const cv::Mat& rgb, int nQuality, std::vector<uint8_t>& vecOut);
};

// JPEG pictures to pixels and back, by libjpeg.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

/** How a picture was coded: what of its colours got lost. */
struct JpegCoding
{
    unsigned int auTable[2][64] = {}; // quantisation of brightness and of colour; all 0: unknown
    int nAcross = 1;                  // pixels that share a colour
    int nDown = 1;
};

/**
 * No state; any thread. The functions print nothing. When memory runs out they return false, or
 * decode() throws cv::Exception.
 */
class JpegCodec
{
public:
    /** The size in a picture's header. @return false when it has none */
    static bool measure(const uint8_t* pData, size_t nSize, cv::Size& sizeOut);

    /**
     * Read a picture, also one without Huffman tables, as Motion-JPEG cameras send them. Bytes
     * behind the picture's end are ignored.
     * @param size      what the picture must measure; the picture's own header is believed for
     *                  nothing but a comparison with it
     * @param rgbOut    8 bits per channel, red first
     * @param pCoding   may be null
     * @return false when it isn't a JPEG picture, is damaged or cut short, or has another size
     */
    static bool decode(const uint8_t* pData, size_t nSize, cv::Size size, cv::Mat& rgbOut,
                       JpegCoding* pCoding = nullptr);

    /**
     * @param rgb       8 bits per channel, red first
     * @param nQuality  1 to 100
     * @return false when the picture has no JPEG form (empty, or a side above 65500), or when
     *         memory runs out; vecOut is then as it was
     */
    static bool encode(const cv::Mat& rgb, int nQuality, std::vector<uint8_t>& vecOut);

    /** The same as another picture was coded. @return as the other */
    static bool encode(const cv::Mat& rgb, const JpegCoding& coding, std::vector<uint8_t>& vecOut);
};

// JPEG pictures to pixels and back, by libjpeg.
#include "JpegCodec.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <exception>

#include <jerror.h>
#include <jpeglib.h>

namespace {

// libjpeg calls errorExit() where it cannot go on, and it must not return. Each method below that
// calls libjpeg sets the jump itself and keeps no object that would need a destructor.
struct Failure
{
    jpeg_error_mgr manager; // first: libjpeg knows only this part
    jmp_buf jump;
};

[[noreturn]] void errorExit(j_common_ptr pInfo)
{
    longjmp(reinterpret_cast<Failure*>(pInfo->err)->jump, 1);
}

void emitMessage(j_common_ptr pInfo, int nLevel)
{
    // A damaged picture would be measured wrongly; libjpeg only warns and fills the gap with grey.
    // Stray bytes between segments harm nothing, and cameras send them.
    if (nLevel < 0 && JWRN_EXTRANEOUS_DATA != pInfo->err->msg_code) {
        errorExit(pInfo);
    }
}

void outputMessage(j_common_ptr) {}

void setUp(Failure& failure)
{
    jpeg_std_error(&failure.manager);
    failure.manager.error_exit = errorExit;
    failure.manager.emit_message = emitMessage;
    failure.manager.output_message = outputMessage;
}

class Decoder
{
public:
    Decoder()
    {
        setUp(m_failure);
        m_info.err = &m_failure.manager;
    }
    ~Decoder()
    {
        jpeg_destroy_decompress(&m_info); // harmless before jpeg_create_decompress
    }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    bool readHeader(const uint8_t* pData, size_t nSize)
    {
        if (0 != setjmp(m_failure.jump)) {
            return false;
        }
        jpeg_create_decompress(&m_info);
        jpeg_mem_src(&m_info, pData, static_cast<unsigned long>(nSize));
        return JPEG_HEADER_OK == jpeg_read_header(&m_info, TRUE);
    }

    /** After readHeader(); a side has up to 65500 pixels: JPEG_MAX_DIMENSION of libjpeg. */
    cv::Size size() const
    {
        return {static_cast<int>(m_info.image_width), static_cast<int>(m_info.image_height)};
    }

    /** After readHeader(). */
    void tellCoding(JpegCoding& coding) const
    {
        coding = JpegCoding();
        if (3 != m_info.num_components) {
            return;
        }
        for (int i = 0; i < 2; ++i) {
            const jpeg_component_info& component = m_info.comp_info[i];
            const int nTable = component.quant_tbl_no;
            if (nTable < 0 || nTable >= NUM_QUANT_TBLS ||
                nullptr == m_info.quant_tbl_ptrs[nTable]) {
                coding = JpegCoding();
                return;
            }
            const UINT16* const pTable = m_info.quant_tbl_ptrs[nTable]->quantval;
            std::copy(pTable, pTable + 64, coding.auTable[i]);
        }
        coding.nAcross = m_info.comp_info[0].h_samp_factor / m_info.comp_info[1].h_samp_factor;
        coding.nDown = m_info.comp_info[0].v_samp_factor / m_info.comp_info[1].v_samp_factor;
    }

    bool readPixels(cv::Mat& rgb)
    {
        if (0 != setjmp(m_failure.jump)) {
            return false;
        }
        m_info.out_color_space = JCS_RGB;
        jpeg_start_decompress(&m_info);
        while (m_info.output_scanline < m_info.output_height) {
            JSAMPROW pRow = rgb.ptr(static_cast<int>(m_info.output_scanline));
            jpeg_read_scanlines(&m_info, &pRow, 1);
        }
        jpeg_finish_decompress(&m_info);
        return true;
    }

private:
    jpeg_decompress_struct m_info{};
    Failure m_failure{};
};

/**
 * Writes into a vector of its own. Not jpeg_mem_dest(): when memory runs out while its buffer
 * grows, the caller is left with the address of the buffer before, which has been freed.
 */
class Encoder
{
public:
    Encoder()
    {
        setUp(m_failure);
        m_info.err = &m_failure.manager;
        m_target.manager.init_destination = begin;
        m_target.manager.empty_output_buffer = grow;
        m_target.manager.term_destination = end;
    }
    ~Encoder()
    {
        jpeg_destroy_compress(&m_info);
    }
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    /** @param pCoding  in place of the quality; may be null */
    bool write(const cv::Mat& rgb, int nQuality, const JpegCoding* pCoding)
    {
        if (0 != setjmp(m_failure.jump)) {
            return false;
        }
        jpeg_create_compress(&m_info);
        m_info.dest = &m_target.manager;
        m_info.image_width = static_cast<JDIMENSION>(rgb.cols);
        m_info.image_height = static_cast<JDIMENSION>(rgb.rows);
        m_info.input_components = 3;
        m_info.in_color_space = JCS_RGB;
        jpeg_set_defaults(&m_info);
        jpeg_set_quality(&m_info, nQuality, TRUE);
        if (nullptr != pCoding) {
            jpeg_add_quant_table(&m_info, 0, pCoding->auTable[0], 100, TRUE);
            jpeg_add_quant_table(&m_info, 1, pCoding->auTable[1], 100, TRUE);
            m_info.comp_info[0].h_samp_factor = pCoding->nAcross;
            m_info.comp_info[0].v_samp_factor = pCoding->nDown;
        }
        jpeg_start_compress(&m_info, TRUE);
        while (m_info.next_scanline < m_info.image_height) {
            JSAMPROW pRow = const_cast<JSAMPROW>(rgb.ptr(static_cast<int>(m_info.next_scanline)));
            jpeg_write_scanlines(&m_info, &pRow, 1);
        }
        jpeg_finish_compress(&m_info);
        return true;
    }

    /** Hand the bytes out after a write(). */
    void moveTo(std::vector<uint8_t>& vecOut)
    {
        vecOut.swap(m_target.vecByte);
    }

private:
    struct Target
    {
        jpeg_destination_mgr manager; // first: libjpeg knows only this part
        std::vector<uint8_t> vecByte;
    };

    static Target& targetOf(j_compress_ptr pInfo)
    {
        return *reinterpret_cast<Target*>(pInfo->dest);
    }

    // Double the vector and let libjpeg write into the new half. No exception may cross libjpeg.
    static bool enlarge(Target& target)
    {
        const size_t nUsed = target.vecByte.size();
        try {
            target.vecByte.resize(std::max(2 * nUsed, FIRST_SIZE));
        } catch (const std::exception&) {
            return false;
        }
        target.manager.next_output_byte = target.vecByte.data() + nUsed;
        target.manager.free_in_buffer = target.vecByte.size() - nUsed;
        return true;
    }

    static void begin(j_compress_ptr pInfo)
    {
        targetOf(pInfo).vecByte.clear();
        (void)grow(pInfo); // jumps when it fails
    }

    // Called when the buffer is full; what the manager says about its rest is of no account.
    static boolean grow(j_compress_ptr pInfo)
    {
        if (!enlarge(targetOf(pInfo))) {
            errorExit(reinterpret_cast<j_common_ptr>(pInfo));
        }
        return TRUE;
    }

    static void end(j_compress_ptr pInfo)
    {
        Target& target = targetOf(pInfo);
        target.vecByte.resize(target.vecByte.size() - target.manager.free_in_buffer);
    }

    static constexpr size_t FIRST_SIZE = 65536; // bytes; about a picture of 640 x 480

    jpeg_compress_struct m_info{};
    Failure m_failure{};
    Target m_target{};
};

} // namespace

bool JpegCodec::measure(const uint8_t* pData, size_t nSize, cv::Size& sizeOut)
{
    Decoder decoder;
    if (nullptr == pData || !decoder.readHeader(pData, nSize)) {
        return false;
    }
    sizeOut = decoder.size();
    return true;
}

bool JpegCodec::decode(const uint8_t* pData, size_t nSize, cv::Size size, cv::Mat& rgbOut,
                       JpegCoding* pCoding)
{
    Decoder decoder;
    if (nullptr == pData || !decoder.readHeader(pData, nSize) || decoder.size() != size) {
        return false;
    }
    rgbOut.create(size, CV_8UC3);
    if (nullptr != pCoding) {
        decoder.tellCoding(*pCoding);
    }
    return decoder.readPixels(rgbOut);
}

bool JpegCodec::encode(const cv::Mat& rgb, int nQuality, std::vector<uint8_t>& vecOut)
{
    Encoder encoder;
    if (!encoder.write(rgb, nQuality, nullptr)) {
        return false;
    }
    encoder.moveTo(vecOut);
    return true;
}

bool JpegCodec::encode(const cv::Mat& rgb, const JpegCoding& coding, std::vector<uint8_t>& vecOut)
{
    Encoder encoder;
    if (!encoder.write(rgb, 100, &coding)) {
        return false;
    }
    encoder.moveTo(vecOut);
    return true;
}

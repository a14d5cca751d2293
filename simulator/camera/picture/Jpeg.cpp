// JPEG pictures to and from memory.
#include "Jpeg.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

namespace Jpeg {

namespace {

struct ErrorManager
{
    jpeg_error_mgr base;
    jmp_buf jump;
};

// The library calls it when it cannot go on; its own would end the program.
[[noreturn]] void leave(j_common_ptr pCommon)
{
    longjmp(reinterpret_cast<ErrorManager*>(pCommon->err)->jump, 1);
}

void stayQuiet(j_common_ptr) {}

} // namespace

void encode(const Raster& raster, int nQuality, std::vector<uint8_t>& vecByte)
{
    jpeg_compress_struct compress{};
    jpeg_error_mgr error{};
    compress.err = jpeg_std_error(&error); // out of memory ends the program
    jpeg_create_compress(&compress);

    // The vector's own memory is used while it suffices.
    vecByte.resize(vecByte.capacity());
    unsigned char* pOut = vecByte.data();
    unsigned long nOut = vecByte.size();
    const unsigned char* const pOwn = pOut;
    jpeg_mem_dest(&compress, &pOut, &nOut);

    compress.image_width = raster.u32Width;
    compress.image_height = raster.u32Height;
    compress.input_components = 3;
    compress.in_color_space = JCS_RGB;
    jpeg_set_defaults(&compress);
    jpeg_set_quality(&compress, nQuality, TRUE);
    compress.comp_info[0].h_samp_factor = 2;
    compress.comp_info[0].v_samp_factor = 1;
    jpeg_start_compress(&compress, TRUE);
    while (compress.next_scanline < compress.image_height) {
        JSAMPROW pRow = const_cast<uint8_t*>(raster.vecByte.data()) +
                        static_cast<size_t>(compress.next_scanline) * raster.u32Width * 3;
        jpeg_write_scanlines(&compress, &pRow, 1);
    }
    jpeg_finish_compress(&compress);
    jpeg_destroy_compress(&compress);
    if (pOut == pOwn) {
        vecByte.resize(nOut);
    } else {
        vecByte.assign(pOut, pOut + nOut);
        free(pOut); // the library's memory, from malloc
    }
}

bool decode(const std::vector<uint8_t>& vecByte, Raster& raster)
{
    jpeg_decompress_struct decompress{};
    ErrorManager error{};
    decompress.err = jpeg_std_error(&error.base);
    error.base.error_exit = leave;
    error.base.output_message = stayQuiet;
    if (0 != setjmp(error.jump)) {
        jpeg_destroy_decompress(&decompress);
        return false;
    }
    jpeg_create_decompress(&decompress);
    jpeg_mem_src(&decompress, vecByte.data(), vecByte.size());
    jpeg_read_header(&decompress, TRUE);
    decompress.out_color_space = JCS_RGB;
    jpeg_start_decompress(&decompress);
    raster.resize(decompress.output_width, decompress.output_height);
    while (decompress.output_scanline < decompress.output_height) {
        JSAMPROW pRow = raster.pixel(0, decompress.output_scanline);
        jpeg_read_scanlines(&decompress, &pRow, 1);
    }
    jpeg_finish_decompress(&decompress);
    const bool bWhole = 0 == error.base.num_warnings;
    jpeg_destroy_decompress(&decompress);
    return bWhole;
}

} // namespace Jpeg

/*
 * A small vision plug-in to begin with: it finds the reddest place of a picture, and leaves focus
 * and lens to others.
 *
 *     cc -shared -fPIC -Iplugin -o libframe_process.so plugin/example/frame_process.c -ljpeg
 */
#include "frame_process.h"

#include <setjmp.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

#include <jpeglib.h>

#if 1 != FRAME_PROCESS_ABI_VERSION
#error "written for version 1 of the interface"
#endif

/* Of the workpiece, from the left to the right edge of a picture; measure it with a ruler. */
static const double FIELD_WIDTH_MM = 64.0;

static const int START_EXPOSURE = 157; /* in units of 100 us */

/* Less is no laser: red less the average of green and blue. */
static const int MIN_REDNESS = 60;

/* Results above 0 are failures; their meaning is the plug-in's own affair. */
enum
{
    FOUND = 0,
    BAD_PICTURE = 1,
    NO_SPOT = 2,
    NOT_OFFERED = 3
};

struct failure
{
    struct jpeg_error_mgr manager; /* first: libjpeg knows only this part */
    jmp_buf jump;
};

static void errorExit(j_common_ptr pInfo)
{
    longjmp(((struct failure*)pInfo->err)->jump, 1);
}

static void outputMessage(j_common_ptr pInfo)
{
    (void)pInfo; /* a damaged picture is no news */
}

/* The middle of the pixels that are nearly as red as the reddest one. */
struct spot
{
    int nRedness; /* of the reddest */
    double dSum;
    double dX; /* sums of the places, each weighted by its redness */
    double dY;
};

static void see(struct spot* pSpot, int nRedness, double dX, double dY)
{
    if (nRedness > pSpot->nRedness + 30) { /* what was found before is not of this spot */
        pSpot->dSum = 0;
        pSpot->dX = 0;
        pSpot->dY = 0;
    }
    if (nRedness > pSpot->nRedness) {
        pSpot->nRedness = nRedness;
    }
    if (2 * nRedness > pSpot->nRedness) {
        pSpot->dSum += nRedness;
        pSpot->dX += nRedness * dX;
        pSpot->dY += nRedness * dY;
    }
}

void init(void) {}

void uninit(void) {}

int findPos(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
            float* pX, float* pY)
{
    /* All on this call's stack and heap: another thread may call at the same time. */
    struct jpeg_decompress_struct info;
    struct failure failure;
    struct spot spot = {MIN_REDNESS, 0, 0, 0};
    JSAMPLE* volatile pRow = NULL; /* volatile: still right after the jump */

    info.err = jpeg_std_error(&failure.manager);
    failure.manager.error_exit = errorExit;
    failure.manager.output_message = outputMessage;
    if (0 != setjmp(failure.jump)) {
        free(pRow);
        jpeg_destroy_decompress(&info);
        return BAD_PICTURE;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, pData, u32Size);
    jpeg_read_header(&info, TRUE);
    info.out_color_space = JCS_RGB;
    jpeg_start_decompress(&info);
    pRow = malloc(3 * (size_t)info.output_width);
    if (NULL == pRow || info.output_width != u32Width || info.output_height != u32Height) {
        longjmp(failure.jump, 1);
    }
    while (info.output_scanline < info.output_height) {
        const double dY = info.output_scanline;
        JSAMPROW apRow[1];
        apRow[0] = pRow;
        jpeg_read_scanlines(&info, apRow, 1);
        for (JDIMENSION x = 0; x < info.output_width; ++x) {
            const JSAMPLE* pPixel = pRow + 3 * (size_t)x;
            see(&spot, pPixel[0] - (pPixel[1] + pPixel[2]) / 2, x, dY);
        }
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    free(pRow);
    if (0 == spot.dSum) {
        return NO_SPOT;
    }
    *pX = (float)((spot.dX / spot.dSum - (u32Width - 1) / 2.0) * FIELD_WIDTH_MM / u32Width);
    *pY = (float)((spot.dY / spot.dSum - (u32Height - 1) / 2.0) * FIELD_WIDTH_MM / u32Width);
    return FOUND;
}

void setExposure(int32_t* pExposure)
{
    *pExposure = START_EXPOSURE;
}

int autoFocus(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
              float* pMeasure)
{
    (void)u32Size, (void)u32Width, (void)u32Height, (void)pData, (void)pMeasure;
    return NOT_OFFERED;
}

int undistort(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
              struct FRAME_PROCESS_UNDISTORT_T* pOut)
{
    (void)u32Size, (void)u32Width, (void)u32Height, (void)pData, (void)pOut;
    return NOT_OFFERED; /* the picture is passed on as it is */
}

void easyFun(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height, const uint8_t* pData,
             int32_t* pArg1, int32_t* pArg2, void* pValues)
{
    (void)u32Size, (void)u32Width, (void)u32Height, (void)pData;
    (void)pArg1, (void)pArg2, (void)pValues;
}

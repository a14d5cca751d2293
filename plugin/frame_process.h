/* The seven entry points of a vision plug-in, "./libframe_process.so". */
#ifndef FRAME_PROCESS_H
#define FRAME_PROCESS_H

#include <stdint.h>

/** Changes when an entry point or the record does; 1 is what stands below. */
#define FRAME_PROCESS_ABI_VERSION 1

#ifdef __cplusplus
extern "C" {
#endif

/** Marks an entry point in a library that hides everything else. */
#if defined(__GNUC__)
#define FRAME_PROCESS_API __attribute__((visibility("default")))
#else
#define FRAME_PROCESS_API
#endif

/*
 * The service finds the entry points by these names when it loads the library; one that is missing
 * switches off what needs it. It calls them from different threads (HTTP, capture, print service)
 * at different times; a plug-in guards its own state. No C++ exception may leave an entry point.
 *
 * A picture is given as its JPEG bytes (pData, u32Size of them, valid during the call only) and the
 * camera's picture size in pixels. Motion-JPEG pictures may lack the Huffman tables.
 */

/** The corrected picture of undistort(). */
struct FRAME_PROCESS_UNDISTORT_T
{
    int32_t s32Size;   /* bytes at pData */
    int32_t s32Width;  /* pixels */
    int32_t s32Height; /* pixels */
    uint8_t* pData;    /* JPEG bytes; the plug-in's memory, the service copies it at once */
};

/** Called once, when all seven entry points were found. */
FRAME_PROCESS_API void init(void);

/**
 * Called by the host's uninit(), which the shipped start-up never calls; the library stays loaded.
 */
FRAME_PROCESS_API void uninit(void);

/**
 * Correct the lens distortion of a picture.
 * @return 0 when *pOut holds a corrected picture; then size, width and height must be above 0
 */
FRAME_PROCESS_API int undistort(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height,
                                const uint8_t* pData, struct FRAME_PROCESS_UNDISTORT_T* pOut);

/**
 * Measure the laser's height, from a picture taken after the arm was homed and then moved, in X and
 * Y only, to where findPos() saw the spot: Z is 0.
 * @param pMeasure  how high the homed laser stands over its focus, in millimetres along the arm's Z
 *                  axis. The print service moves Z to the negated value, an absolute position over
 *                  the homed one, and the laser is in focus there. The value says nothing about
 *                  where Z is now or was before: measuring twice gives the same value twice, as
 *                  far as docs/plugin.md tells its accuracy.
 * @return 0 or below when *pMeasure was written, above 0 on failure: nothing is moved then
 */
FRAME_PROCESS_API int autoFocus(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height,
                                const uint8_t* pData, float* pMeasure);

/**
 * Find the laser spot, in a picture taken with the arm where the last measurement left it: in focus
 * when that succeeded, at Z 0 when its autoFocus() failed.
 * @param pX, pY  millimetres of the workpiece from the point in the picture's centre, x to the
 *                right, y downwards. The print service homes the arm and moves it to the negated
 *                values, absolute positions: the arm's axes point against the picture's.
 * @return 0 or below when *pX and *pY were written, above 0 on failure: nothing is moved then
 */
FRAME_PROCESS_API int findPos(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height,
                              const uint8_t* pData, float* pX, float* pY);

/**
 * Suggest an exposure for the next pictures.
 * @param pExposure  0 when called; the camera's exposure_absolute, in units of 100 us
 */
FRAME_PROCESS_API void setExposure(int32_t* pExposure);

/**
 * Answer the print service while its controller is idle.
 * @param pArg1, pArg2  0 when called; integers of the service's event
 * @param pValues       the event's growable array (a C++ std::vector<int32_t>*, empty when called);
 *                      only a plug-in built with the service's C++ library may touch it
 */
FRAME_PROCESS_API void easyFun(uint32_t u32Size, uint32_t u32Width, uint32_t u32Height,
                               const uint8_t* pData, int32_t* pArg1, int32_t* pArg2, void* pValues);

#ifdef __cplusplus
}
#endif

#endif

// The plug-in's operations, on whole JPEG pictures.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>

#include "ExposureAdvisor.h"
#include "FocusJudge.h"
#include "JpegCodec.h"
#include "Parameters.h"

/** A picture as the service hands it over; borrowed for the call. */
struct JpegPicture
{
    const uint8_t* pData;
    uint32_t u32Size;
    uint32_t u32Width;
    uint32_t u32Height;
};

/**
 * Every operation may be called by any thread at any time; they work side by side and lock only
 * what outlives a call. They compute on the caller's thread and wait for nothing. They throw what
 * OpenCV and the allocator throw; nothing is half done then.
 *
 * The last picture that an operation could read is remembered for suggestExposure().
 */
class FrameProcessor
{
public:
    /** Results of the operations, which the entry points pass on. */
    enum RESULT_E
    {
        RESULT_OK = 0,
        RESULT_BAD_PICTURE = 1, // not a whole JPEG picture of the given size
        RESULT_NO_SPOT = 2,
        RESULT_ERROR = 3,      // anything unforeseen
        RESULT_TOO_BRIGHT = 4, // clipped: what is cut off hides the spot
        RESULT_TOO_DARK = 5,
        RESULT_NO_FOCUS = 6, // blurred beyond use, or narrower than the laser's spot can be
        RESULT_NO_LENS = 7,  // by the entry points: the lens's file is unusable
    };

    explicit FrameProcessor(const Parameters& parameters);

    /** Forget all pictures and corrections. */
    void reset();

    /** Correct the lens's distortion; the picture keeps its size. @param vecOut  JPEG bytes */
    RESULT_E undistort(const JpegPicture& picture, std::vector<uint8_t>& vecOut);

    /**
     * The second picture of a measurement: the arm has been homed since findPosition().
     * @param dHomed  millimetres of the homed laser over its focus; see FocusJudge.h
     */
    RESULT_E autoFocus(const JpegPicture& picture, double& dHomed);

    /**
     * The first picture of a measurement, with the arm where the last one left it.
     * @param millimetre  the spot on the workpiece, from the picture's centre, y downwards; the
     *                    same as last time when it has hardly moved, so that an arm that is sent
     *                    to where its own spot was seen doesn't wander
     */
    RESULT_E findPosition(const JpegPicture& picture, cv::Point2d& millimetre);

    /** Take note of a picture's brightness only. */
    RESULT_E look(const JpegPicture& picture);

    /** @return exposure_absolute for the next pictures */
    int suggestExposure();

private:
    bool read(const JpegPicture& picture, ExposureAdvisor::TAKEN_E eTaken, cv::Mat& rgb,
              JpegCoding* pCoding = nullptr, int* pMedian = nullptr);
    struct SpotSeen
    {
        cv::Point2d millimetre;
        double dSigmaMm;
        double dRedness;    // at the centre
        double dClipped;    // 0 to 1
        double dBrightness; // above 0
    };

    RESULT_E findSpot(const JpegPicture& picture, ExposureAdvisor::TAKEN_E eTaken, SpotSeen& seen);

    const Parameters m_parameters;
    std::mutex m_mtxState;
    ExposureAdvisor m_exposureAdvisor; // guarded by m_mtxState
    FocusJudge m_focusJudge;           // guarded by m_mtxState
    cv::Point2d m_lastMillimetre;      // guarded by m_mtxState; not a number before the first
};

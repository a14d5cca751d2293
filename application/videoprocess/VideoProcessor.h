// The host of the vision plug-in: measuring, and correcting lens distortion.
#pragma once

#include <cstdint>
#include <vector>

#include "Event.h"
#include "Mutex.h"
#include "RetE.h"
#include "VideoFrame.h"
#include "frame_process.h"

/** What a measurement has come to, and the pictures that it was made on. */
struct Measurement
{
    int32_t s32Exposure = 0;   // that the camera was set to
    PVENC_FRAME_T spotFrame;   // where the spot was looked for; none without the plug-in
    PVENC_FRAME_T heightFrame; // where the height was measured; none when no spot was found
    float fX = 0;              // of the spot, in the plug-in's unit
    float fY = 0;
    float fHeight = 0; // in the plug-in's unit
};

/**
 * Loads the plug-in "./libframe_process.so", hands it frames that it takes from the capture side on
 * demand, and announces what the plug-in found. Without the plug-in, or one of its names, whatever
 * needs it is refused. The shipped start-up does not load it.
 *
 * init, start, stop and uninit are the main thread's; all else may come from any thread, and the
 * plug-in then runs on that thread, without a lock.
 */
class VideoProcessor
{
public:
    /** Created on first use; outlives every object whose constructor called this. */
    static VideoProcessor& getInstance();
    VideoProcessor(const VideoProcessor&) = delete;
    VideoProcessor& operator=(const VideoProcessor&) = delete;
    ~VideoProcessor();

    /**
     * Load the plug-in, resolve its seven names, and
     * call its init when all are there. What is missing is logged (level 7).
     * @return RET_SUCCESS
     */
    RET_E init();

    /** Follow IdlePrintEvents. @return RET_SUCCESS */
    RET_E start();

    /** Waits for a running handler. @return RET_SUCCESS */
    RET_E stop();

    /** Call the plug-in's uninit; the library stays loaded and usable. @return RET_SUCCESS */
    RET_E uninit();

    /**
     * The measuring sequence, all on the caller's thread: suggest an exposure, find the laser spot
     * and announce the move there, then measure on a new picture. Publishes SetExposureEvent,
     * MoveLaserEvent and MeasureEvent, each once its step has succeeded. Blocks as getFrame does.
     *
     * @param pResult  the measured value in the plug-in's unit; 0 on failure, unless the plug-in
     *                 has written it before failing
     * @return RET_FAILED without the plug-in, or when it found nothing
     * @throws std::bad_alloc  as getFrame does
     */
    RET_E measure(float* pResult);

    /** The same, with all that was seen on the way. */
    RET_E measure(Measurement& measurement);

    /** Whether the plug-in has all that a measurement needs. */
    bool canMeasure();

    /**
     * Correct a frame's lens distortion. May run on the capture thread.
     *
     * @param out  gets a new frame with the time of in; shares in where nothing can be corrected;
     *             is left as it is when the plug-in reports success with an empty picture
     */
    void undistort(PVENC_FRAME_T& in, PVENC_FRAME_T& out);

    /**
     * Handler of IdlePrintEvent; any other event is a std::bad_cast. Blocks as getFrame does.
     * @return 0, or RET_FAILED without the plug-in or without memory
     */
    int onIdlePrint(Event* pEvent);

    /**
     * Wait for the next frame of stream 0, without limit: a missing camera keeps the caller
     * waiting. Never on the capture thread, which delivers the frame. Callers wait in turn, so that
     * no caller receives a frame captured before its call.
     * @throws std::bad_alloc  without memory to follow the frames
     */
    void getFrame(PVENC_FRAME_T& frame);

    /**
     * Handler of VideoFrameEvent while getFrame waits; without memory it drops the frame.
     * @return 0
     */
    int onVideoFrame(Event* pEvent);

private:
    /** The library's handle, null when not loaded, and its names, null until resolved. */
    struct Plugin
    {
        void* m_pHandle = nullptr;
        decltype(&::init) pInit = nullptr;
        decltype(&::uninit) pUninit = nullptr;
        decltype(&::undistort) pUndistort = nullptr;
        decltype(&::autoFocus) pAutoFocus = nullptr;
        decltype(&::findPos) pFindPos = nullptr;
        decltype(&::setExposure) pSetExposure = nullptr;
        decltype(&::easyFun) pEasyFun = nullptr;
    };

    VideoProcessor();

    static bool resolve(Plugin& plugin);
    Plugin getPlugin();
    bool hasFrame();

    Mutex m_mtxPlugin{MUTEX_TYPE_NORMAL}; // guards the table only; innermost
    Plugin m_plugin GUARDED_BY(m_mtxPlugin);
    Mutex m_mtxWait{MUTEX_TYPE_NORMAL};                            // one getFrame at a time; outer
    Mutex m_mtxFrame ACQUIRED_AFTER(m_mtxWait){MUTEX_TYPE_NORMAL}; // guards what follows; innermost
    std::vector<PVENC_FRAME_T> m_vecFrame GUARDED_BY(m_mtxFrame);
    int32_t m_nWantStream GUARDED_BY(m_mtxFrame) = 0;
};

// One stream: a camera, its capture thread, and the consumers that get every frame.
#pragma once

#include <cstdint>
#include <list>
#include <memory>

#include "IConsumer.h"
#include "Mutex.h"
#include "RetE.h"
#include "Thread.h"
#include "V4L2.h"

/**
 * Takes frames from its camera, gives the camera's buffer back at once, and hands each frame to
 * every registered consumer, in order of registration. A lost or missing camera is closed and
 * opened again, once a second, for as long as it takes.
 *
 * init, start, stop and uninit are the main thread's; registerConsumer, cancelConsumer and
 * setExposure may come from any other thread.
 */
class VideoStreamProducer
{
public:
    VideoStreamProducer() = default;
    VideoStreamProducer(const VideoStreamProducer&) = delete;
    VideoStreamProducer& operator=(const VideoStreamProducer&) = delete;
    virtual ~VideoStreamProducer();

    /**
     * Open the camera and create the thread "videocapture<stream>". A camera that can't be opened
     * is the thread's task. When already initialised, only the stream's number is taken: for the
     * camera that is opened next, and for the events of the frames from now on.
     * @return RET_SUCCESS
     */
    RET_E init(const int32_t& s32Stream);

    /** Begin to stream, when initialised and not started. @return RET_SUCCESS */
    RET_E start();

    /**
     * Wait for the thread's current pass, seconds at most, and end streaming.
     * @return RET_SUCCESS
     */
    RET_E stop();

    /** End the thread and close the camera. @return RET_SUCCESS */
    RET_E uninit();

    /**
     * Deliver frames to the consumer from now on. The consumer stays the caller's until cancelled.
     *
     * Consumers are called on the capture thread with the list locked: they must not block, nor
     * register or cancel from there (refused by the mutex, RET_FAILED). Who needs the frame longer
     * keeps a copy of its holder.
     * @param pConsumer  a VideoConsumer; anything else is a std::bad_cast
     * @return RET_FAILED (logged, level 7) when it is registered already
     */
    RET_E registerConsumer(IConsumer* pConsumer);

    /**
     * Waits for a delivery that is under way; afterwards the consumer is not called any more.
     * @return RET_FAILED, unlogged, when it is not registered
     */
    RET_E cancelConsumer(IConsumer* pConsumer);

    /** Blocks while a shell command runs. Between init and uninit. @return RET_SUCCESS */
    RET_E setExposure(int32_t s32Value);

    /** One pass of the capture loop, the body of the thread. @return 0 */
    int dispatchThread();

protected:
    /** Hand a frame to every consumer. Capture thread. */
    void deliver(PVENC_FRAME_T& frame);

private:
    void recoverCamera();

    int32_t m_nStream = 0;
    // Guards the list; the capture thread holds it while consumers run, and they take the locks of
    // their connections.
    Mutex m_mtx{MUTEX_TYPE_ERRORCHECK};
    std::list<IConsumer*> m_listConsumer GUARDED_BY(m_mtx);
    std::unique_ptr<Thread> m_pThread;
    std::unique_ptr<V4L2> m_v4l2; // the capture thread's while started
    bool m_bStarted = false;
    bool m_bInited = false;
    uint32_t m_nFailCount = 0;    // camera failures, only counted; capture thread
    bool m_bCameraClosed = false; // after a failure, until opened again; capture thread
};

// One stream: a camera, its capture thread, and the consumers that get every frame.
#include "VideoStreamProducer.h"

#include <algorithm>
#include <string>

#include "Assert.h"
#include "Log.h"
#include "Time.h"
#include "VideoConsumer.h"
#include "VideoFrameEvent.h"

static const char* const SOURCE_NAME = "videocapture/VideoStreamProducer";

static const int32_t FRAME_TIMEOUT_MS = 1000;

VideoStreamProducer::~VideoStreamProducer()
{
    (void)stop(); // both succeed always
    (void)uninit();
}

RET_E VideoStreamProducer::init(const int32_t& s32Stream)
{
    m_nStream = s32Stream;
    if (m_bInited) {
        return RET_SUCCESS;
    }
    m_bCameraClosed = false;
    m_v4l2 = std::make_unique<V4L2>();
    (void)m_v4l2->init(s32Stream); // the thread tries again
    m_pThread =
        std::make_unique<Thread>(&VideoStreamProducer::dispatchThread, this,
                                 "videocapture" + std::to_string(s32Stream), 0, 0, 0, false);
    m_bInited = true;
    return RET_SUCCESS;
}

RET_E VideoStreamProducer::start()
{
    if (m_bInited && !m_bStarted) {
        (void)m_v4l2->streamOn(); // the thread finds out
        m_pThread->start();
        m_bStarted = true;
    }
    return RET_SUCCESS;
}

RET_E VideoStreamProducer::stop()
{
    if (m_bStarted) {
        if (nullptr != m_pThread) {
            m_pThread->stop();
        }
        if (nullptr != m_v4l2) {
            (void)m_v4l2->streamOff(); // going down; a lost camera can't be stopped
        }
        m_bStarted = false;
    }
    return RET_SUCCESS;
}

RET_E VideoStreamProducer::uninit()
{
    if (m_bInited) {
        m_pThread.reset();
        (void)m_v4l2->uninit(); // whatever fails there is released with the object
        m_v4l2.reset();
        m_bInited = false;
    }
    return RET_SUCCESS;
}

RET_E VideoStreamProducer::registerConsumer(IConsumer* pConsumer)
{
    const auto& consumer = dynamic_cast<VideoConsumer&>(*pConsumer);
    size_t uCount = 0; // 0: already there
    {
        const MutexGuard guard(m_mtx);
        if (!guard.isHeld()) {
            return RET_FAILED;
        }
        const auto end = m_listConsumer.end();
        if (end == std::find(m_listConsumer.begin(), end, pConsumer)) {
            m_listConsumer.push_back(pConsumer);
            uCount = m_listConsumer.size();
        }
    }
    // Deliberate: logged without the lock, here and in cancelConsumer. Log sinks take locks that
    // consumers hold too.
    if (0 == uCount) {
        LOG(7, "consumer is already in list.\n");
        return RET_FAILED;
    }
    LOG(7, "add video consumer, stream=%d, Total consumer num=%d\n", consumer.getStream(),
        static_cast<int>(uCount));
    return RET_SUCCESS;
}

RET_E VideoStreamProducer::cancelConsumer(IConsumer* pConsumer)
{
    const auto& consumer = dynamic_cast<VideoConsumer&>(*pConsumer);
    size_t uCount = 0;
    {
        const MutexGuard guard(m_mtx);
        if (!guard.isHeld()) {
            return RET_FAILED;
        }
        const auto it = std::find(m_listConsumer.begin(), m_listConsumer.end(), pConsumer);
        if (m_listConsumer.end() == it) {
            return RET_FAILED;
        }
        m_listConsumer.erase(it);
        uCount = m_listConsumer.size();
    }
    LOG(7, "delete video consumer, stream=%d, Total consumer num=%d\n", consumer.getStream(),
        static_cast<int>(uCount));
    return RET_SUCCESS;
}

RET_E VideoStreamProducer::setExposure(int32_t s32Value)
{
    return m_v4l2->setExposure(s32Value);
}

int VideoStreamProducer::dispatchThread()
{
    PVENC_FRAME_T frame;
    switch (m_v4l2->getVideoStream(frame, FRAME_TIMEOUT_MS)) {
    case RET_SUCCESS:
        // A camera that goes away with its buffer in our hands ends the service, which its manager
        // starts again.
        ASSERT_IN("int VideoStreamProducer::dispatchThread()",
                  RET_SUCCESS == m_v4l2->releaseVideoStream());
        deliver(frame);
        sleepFor(Time(0, (0 == m_nStream) ? 10000 : 20000)); // caps the frame rate
        break;
    case RET_TIMEOUT:
        sleepFor(Time(0, 20000));
        break;
    case RET_AGAIN:
        break;
    default:
        recoverCamera();
        break;
    }
    return 0;
}

void VideoStreamProducer::deliver(PVENC_FRAME_T& frame)
{
    const MutexGuard guard(m_mtx);
    for (IConsumer* pConsumer : m_listConsumer) {
        if (nullptr != dynamic_cast<VideoConsumer*>(pConsumer) && nullptr != frame.get()) {
            VideoFrameEvent event(m_nStream, frame);
            (void)pConsumer->consume(event, frame); // its result is ignored
        }
    }
}

void VideoStreamProducer::recoverCamera()
{
    ++m_nFailCount;
    if (!m_bCameraClosed) {
        (void)m_v4l2->streamOff(); // the camera is lost; closing is all that is left
        (void)m_v4l2->uninit();
        sleepFor(Time(1, 0));
        m_bCameraClosed = true;
    }
    if (RET_SUCCESS != m_v4l2->init(m_nStream)) {
        sleepFor(Time(1, 0));
        return;
    }
    if (RET_SUCCESS != m_v4l2->streamOn()) {
        (void)m_v4l2->uninit(); // tried again
        sleepFor(Time(1, 0));
        return;
    }
    m_bCameraClosed = false;
    sleepFor(Time(0, 500000));
}

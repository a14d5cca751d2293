// The capture object of the system: all streams, their consumers, and the exposure requests.
#include "VideoCapturer.h"

#include <new>

#include "EventBus.h"
#include "Log.h"
#include "SetExposureEvent.h"
#include "UvcProber.h"
#include "VideoConsumer.h"
#include "VideoFrameEvent.h"

static const char* const SOURCE_NAME = "videocapture/VideoCapturer";

static const int32_t STREAM_COUNT = 1;

VideoCapturer::VideoCapturer()
{
    // The capture threads use these until the destructor has ended them.
    (void)Log::getInstance();
    (void)UvcProber::getInstance();
    (void)EventBus<VideoFrameEvent>::getInstance();
    (void)EventBus<SetExposureEvent>::getInstance();
}

VideoCapturer::~VideoCapturer()
{
    (void)stop(); // both succeed always
    (void)uninit();
}

VideoCapturer& VideoCapturer::getInstance()
{
    static VideoCapturer s_instance;
    return s_instance;
}

std::shared_ptr<VideoStreamProducer[]> VideoCapturer::getProducers()
{
    const MutexGuard guard(m_mtx);
    return m_pProducers;
}

RET_E VideoCapturer::init()
{
    // Deliberate: an earlier init that was not undone would keep the cameras busy.
    (void)uninit();
    const std::shared_ptr<VideoStreamProducer[]> pProducers(new (std::nothrow)
                                                                VideoStreamProducer[STREAM_COUNT]);
    if (nullptr == pProducers) {
        return RET_FAILED;
    }
    for (int32_t i = 0; i < STREAM_COUNT; ++i) {
        const RET_E eRet = pProducers[i].init(i);
        if (RET_SUCCESS != eRet) {
            return eRet;
        }
    }
    const MutexGuard guard(m_mtx);
    m_pProducers = pProducers;
    return RET_SUCCESS;
}

RET_E VideoCapturer::start()
{
    const auto pProducers = getProducers();
    if (nullptr == pProducers) {
        return RET_FAILED;
    }
    for (int32_t i = 0; i < STREAM_COUNT; ++i) {
        const RET_E eRet = pProducers[i].start();
        if (RET_SUCCESS != eRet) {
            return eRet;
        }
    }
    EventBus<SetExposureEvent>::subscribe(this, &VideoCapturer::setExposure);
    return RET_SUCCESS;
}

RET_E VideoCapturer::stop()
{
    EventBus<SetExposureEvent>::unsubscribe(this, &VideoCapturer::setExposure);
    const auto pProducers = getProducers();
    for (int32_t i = 0; nullptr != pProducers && i < STREAM_COUNT; ++i) {
        (void)pProducers[i].stop(); // succeeds always
    }
    return RET_SUCCESS;
}

RET_E VideoCapturer::uninit()
{
    std::shared_ptr<VideoStreamProducer[]> pProducers;
    {
        const MutexGuard guard(m_mtx);
        pProducers.swap(m_pProducers);
    }
    for (int32_t i = STREAM_COUNT - 1; nullptr != pProducers && i >= 0; --i) {
        (void)pProducers[i].uninit(); // succeeds always
    }
    return RET_SUCCESS;
}

VideoStreamProducer*
VideoCapturer::findProducer(const std::shared_ptr<VideoStreamProducer[]>& pProducers,
                            IConsumer* pConsumer)
{
    const auto* pVideoConsumer = dynamic_cast<VideoConsumer*>(pConsumer);
    if (nullptr == pProducers || nullptr == pVideoConsumer) {
        return nullptr;
    }
    const int32_t s32Stream = pVideoConsumer->getStream();
    return (s32Stream >= 0 && s32Stream < STREAM_COUNT) ? &pProducers[s32Stream] : nullptr;
}

RET_E VideoCapturer::registerConsumer(IConsumer* pConsumer)
{
    const auto pProducers = getProducers();
    VideoStreamProducer* pProducer = findProducer(pProducers, pConsumer);
    return (nullptr == pProducer) ? RET_FAILED : pProducer->registerConsumer(pConsumer);
}

RET_E VideoCapturer::cancelConsumer(IConsumer* pConsumer)
{
    const auto pProducers = getProducers();
    VideoStreamProducer* pProducer = findProducer(pProducers, pConsumer);
    return (nullptr == pProducer) ? RET_FAILED : pProducer->cancelConsumer(pConsumer);
}

int VideoCapturer::setExposure(Event* pEvent)
{
    const auto& event = dynamic_cast<SetExposureEvent&>(*pEvent);
    LOG(7, "set exposure(%d)\n", event.m_nExposure);
    const auto pProducers = getProducers(); // stop() waits for this call before they go
    if (nullptr == pProducers || event.m_nStream < 0 || event.m_nStream >= STREAM_COUNT) {
        return RET_FAILED;
    }
    return pProducers[event.m_nStream].setExposure(event.m_nExposure);
}

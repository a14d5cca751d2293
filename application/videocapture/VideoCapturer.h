// The capture object of the system: all streams, their consumers, and the exposure requests.
#pragma once

#include <cstdint>
#include <memory>

#include "Event.h"
#include "IConsumer.h"
#include "Mutex.h"
#include "RetE.h"
#include "VideoStreamProducer.h"

/**
 * Owns the producers, one per stream; only stream 0 exists.
 *
 * init, start, stop and uninit are the main thread's, in this order. The consumer operations may
 * come from any other thread at any time: before init and after uninit they return RET_FAILED.
 */
class VideoCapturer
{
public:
    /** Created on first use; outlives every object whose constructor called this. */
    static VideoCapturer& getInstance();
    VideoCapturer(const VideoCapturer&) = delete;
    VideoCapturer& operator=(const VideoCapturer&) = delete;
    ~VideoCapturer();

    /** Create and initialise the producers. @return the first failure */
    RET_E init();

    /** Start the producers and follow SetExposureEvents. @return the first failure */
    RET_E start();

    /**
     * Waits for a running SetExposureEvent handler and for the capture threads.
     * @return RET_SUCCESS
     */
    RET_E stop();

    /** Uninitialise and free the producers. @return RET_SUCCESS */
    RET_E uninit();

    /**
     * See VideoStreamProducer::registerConsumer.
     * @return RET_FAILED also for anything but a VideoConsumer of an existing stream
     */
    RET_E registerConsumer(IConsumer* pConsumer);

    /** See VideoStreamProducer::cancelConsumer; refused as in registerConsumer. */
    RET_E cancelConsumer(IConsumer* pConsumer);

    /**
     * Handler of SetExposureEvent; any other event is a std::bad_cast. Runs a shell command on the
     * publisher's thread.
     * @return RET_E; RET_FAILED for a stream that does not exist
     */
    int setExposure(Event* pEvent);

private:
    VideoCapturer();

    std::shared_ptr<VideoStreamProducer[]> getProducers();
    VideoStreamProducer* findProducer(const std::shared_ptr<VideoStreamProducer[]>& pProducers,
                                      IConsumer* pConsumer);

    Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards the pointer only; nothing is called with it held
    // Shared with the calls under way, so that uninit can't free a producer under a registration.
    std::shared_ptr<VideoStreamProducer[]> m_pProducers GUARDED_BY(m_mtx);
};

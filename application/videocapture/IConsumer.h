// Receives every frame of a stream.
#pragma once

#include <memory>

#include "Callback.h"
#include "VideoFrameEvent.h"

/** Owns its callback. Frames come on the capture thread, with the producer's list locked. */
class IConsumer
{
public:
    IConsumer() = default;
    IConsumer(const IConsumer&) = delete;
    IConsumer& operator=(const IConsumer&) = delete;
    virtual ~IConsumer() = default;

    void setCallback(std::unique_ptr<ICB<int>> pCallback)
    {
        m_pCallback = std::move(pCallback);
    }

    /**
     * Hand the frame, which the event carries, to the callback.
     * @return the callback's result, 0 without a callback
     */
    virtual int consume(VideoFrameEvent& event, PVENC_FRAME_T& frame)
    {
        (void)frame; // the event carries it
        return (nullptr == m_pCallback) ? 0 : m_pCallback->call(&event);
    }

private:
    std::unique_ptr<ICB<int>> m_pCallback;
};

// A consumer that keeps what it is given.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sys/prctl.h>

#include "Eventually.h"
#include "VideoConsumer.h"

/** Borrowed by the stream while registered: cancel it before it goes. */
class FrameConsumer : public VideoConsumer
{
public:
    FrameConsumer()
    {
        setCallback(std::make_unique<CB<FrameConsumer, int>>(this, &FrameConsumer::onFrame));
    }

    /** Called with every frame, on the capture thread; set it before registering. */
    std::function<void(VideoFrameEvent&)> m_onFrame;

    /** The last frames, 100 at most. */
    std::vector<PVENC_FRAME_T> frames() const
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        return m_vecFrame;
    }

    /** Name of the thread that delivered last. */
    std::string thread() const
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        return m_strThread;
    }

    /** Wait for that many further frames. @return false when they don't come */
    bool waitForMore(size_t uFrames) const
    {
        const size_t uBefore = total();
        return eventually([&] { return total() >= uBefore + uFrames; });
    }

    /** Frames so far. */
    size_t total() const
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        return m_uTotal;
    }

private:
    int onFrame(Event* pEvent)
    {
        auto& event = dynamic_cast<VideoFrameEvent&>(*pEvent);
        if (nullptr != m_onFrame) {
            m_onFrame(event);
        }
        char acName[16] = {};
        prctl(PR_GET_NAME, acName);
        const std::lock_guard<std::mutex> guard(m_mtx);
        m_strThread = acName;
        ++m_uTotal;
        m_vecFrame.push_back(event.m_frame);
        if (m_vecFrame.size() > 100) {
            m_vecFrame.erase(m_vecFrame.begin());
        }
        return 7; // nobody asks for it
    }

    mutable std::mutex m_mtx; // guards what follows
    std::string m_strThread;
    size_t m_uTotal = 0;
    std::vector<PVENC_FRAME_T> m_vecFrame;
};

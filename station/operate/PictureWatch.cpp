// Whether the camera still delivers.
#include "PictureWatch.h"

#include "EventBus.h"
#include "Time.h"
#include "VideoFrameEvent.h"

PictureWatch::PictureWatch()
{
    EventBus<VideoFrameEvent>::subscribe(this, &PictureWatch::onVideoFrame);
}

PictureWatch::~PictureWatch()
{
    EventBus<VideoFrameEvent>::unsubscribe(this, &PictureWatch::onVideoFrame);
}

int PictureWatch::onVideoFrame(Event* pEvent)
{
    const auto& event = dynamic_cast<VideoFrameEvent&>(*pEvent);
    if (0 == event.m_nStream && nullptr != event.m_frame.get()) {
        m_u32Width = event.m_frame.get()->u32Width;
        m_u32Height = event.m_frame.get()->u32Height;
        m_u32LastMs = monotonicMs32();
        ++m_u32Count;
    }
    return 0;
}

uint32_t PictureWatch::getAgeMs() const
{
    const uint32_t u32LastMs = m_u32LastMs; // first: now is not before it
    return monotonicMs32() - u32LastMs;
}

bool PictureWatch::isPresent() const
{
    return m_u32Count > 0 && getAgeMs() < LOST_MS;
}

// A new frame of a stream.
#pragma once

#include <cstdint>

#include "Event.h"
#include "VideoFrame.h"

/** The holder is borrowed for the delivery; a receiver that keeps the frame copies the holder. */
class VideoFrameEvent : public Event
{
public:
    VideoFrameEvent(int32_t s32Stream, PVENC_FRAME_T& frame) : m_nStream(s32Stream), m_frame(frame)
    {
    }

    int32_t m_nStream;
    PVENC_FRAME_T& m_frame;
};

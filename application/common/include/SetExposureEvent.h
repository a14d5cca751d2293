// The exposure that the vision side wants of a stream's camera.
#pragma once

#include <cstdint>

#include "Event.h"

/** Published on EventBus<SetExposureEvent>; the camera is set when publish returns. */
class SetExposureEvent : public Event
{
public:
    SetExposureEvent() = default;
    SetExposureEvent(int32_t s32Stream, int32_t s32Exposure)
        : m_nStream(s32Stream), m_nExposure(s32Exposure)
    {
    }

    int32_t m_nStream = 0;
    int32_t m_nExposure = 0; // as exposure_absolute of v4l2-ctl takes it
};

// A consumer that says which stream it wants.
#pragma once

#include <cstdint>

#include "IConsumer.h"

/** The stream is set before registering and not changed while registered. */
class VideoConsumer : public IConsumer
{
public:
    int32_t getStream() const
    {
        return m_nStream;
    }
    void setStream(int32_t s32Stream)
    {
        m_nStream = s32Stream;
    }

private:
    int32_t m_nStream = 0;
};

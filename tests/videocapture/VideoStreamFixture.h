// A video stream of the virtual camera, and a consumer that counts.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "FrameConsumer.h"
#include "LogCapture.h"
#include "VideoStreamProducer.h"
#include "VirtualCamera.h"

using Lines = std::vector<std::string>;

class VideoStreamProducerStream : public testing::Test
{
protected:
    ~VideoStreamProducerStream() override
    {
        EXPECT_EQ(RET_SUCCESS, m_producer.stop());
    }

    void start()
    {
        ASSERT_EQ(RET_SUCCESS, m_producer.init(0));
        ASSERT_EQ(RET_SUCCESS, m_producer.start());
    }

    /** A camera that goes in the driver's order, while it has all its buffers: one in the service's
     * hands ends the service by its assertion. */
    void loseSlowly()
    {
        ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
        m_camera.command("freeze");
        start();
        ASSERT_TRUE(m_camera.waitForCalls("STREAMON type=1 = 0", 1));
        m_camera.command("unplug slowly 50");
        ASSERT_TRUE(m_camera.waitForCalls("close", 1));
        EXPECT_EQ(2U, m_camera.count("DQBUF type=1 memory=1 = 0"));
        m_camera.command("thaw");
    }

    /** The calls from the first one that begins so. */
    Lines callsFrom(const std::string& strBegin) const
    {
        const Lines vecCall = m_camera.readJournal();
        size_t uFirst = 0;
        while (uFirst < vecCall.size() && 0 != vecCall[uFirst].rfind(strBegin, 0)) {
            ++uFirst;
        }
        return {vecCall.begin() + static_cast<ptrdiff_t>(uFirst), vecCall.end()};
    }

    // Consumers outlive the producer, which is stopped before they go.
    VirtualCamera m_camera;
    LogCapture m_log;
    FrameConsumer m_consumer;
    FrameConsumer m_second;
    VideoStreamProducer m_producer;
};

// The next pictures of a streaming client, and the list of input devices.
#pragma once

#include <fstream>
#include <iterator>
#include <vector>

#include <gtest/gtest.h>

#include "Jpeg.h"
#include "VideoClient.h"

inline std::string inputDevices()
{
    std::ifstream file("/proc/bus/input/devices");
    return {std::istreambuf_iterator<char>(file), {}};
}

/** A streaming client with its next filled buffer dequeued. */
inline void dequeueOne(VideoClient& client, v4l2_buffer& buffer)
{
    ASSERT_TRUE(client.readable(30000));
    ASSERT_EQ(0, client.dequeue(buffer));
}

inline uint32_t nextBytes(VideoClient& client)
{
    v4l2_buffer buffer{};
    dequeueOne(client, buffer);
    EXPECT_EQ(0, client.enqueue(buffer.index));
    return buffer.bytesused;
}

/** The next frame's bytes; the buffer is queued again. */
inline std::vector<uint8_t> nextFrame(VideoClient& client)
{
    v4l2_buffer buffer{};
    if (!client.readable(30000) || 0 != client.dequeue(buffer)) {
        ADD_FAILURE() << "no frame";
        return {};
    }
    std::vector<uint8_t> vecBytes = client.bytes(buffer);
    EXPECT_EQ(0, client.enqueue(buffer.index));
    return vecBytes;
}

/** A frame that was drawn after all that was commanded before. */
inline std::vector<uint8_t> freshFrame(VideoClient& client)
{
    for (int i = 0; i < 3; ++i) { // two may be filled, one on its way
        (void)nextFrame(client);
    }
    return nextFrame(client);
}

inline Raster decoded(const std::vector<uint8_t>& vecBytes)
{
    Raster raster;
    EXPECT_TRUE(Jpeg::decode(vecBytes, raster));
    return raster;
}

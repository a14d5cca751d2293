// The next pictures of a streaming client, and the list of input devices.
#pragma once

#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

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

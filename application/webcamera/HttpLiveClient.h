// The responder of "/live": a multipart stream of the camera's pictures.
#pragma once

#include <cstdint>

#include "Event.h"
#include "IClient.h"
#include "SafePointer.h"
#include "SendQueueTcpClient.h"
#include "VideoConsumer.h"

/**
 * Queues the stream's header when it starts and then, on the capture thread, each frame as a part:
 * part header, the frame's own block, boundary. While two or more items wait in the connection's
 * send queue, frames are dropped whole, so that a slow client holds two frames at most: one that is
 * being sent, and one that waits. A part enters the queue as a whole, or not at all.
 *
 * Deliberate: no boundary precedes the first part.
 */
class HttpLiveClient : public IClient
{
public:
    /** @param client  the connection, which outlives the responder */
    HttpLiveClient(SendQueueTcpClient& client, int32_t s32Stream);

    /** @return 0, also without a camera; 1 without memory */
    int start() override;

    /** Waits for a delivery that is under way. @return 0 */
    int stop() override;

    /**
     * Queue a frame, or drop it. Capture thread.
     * @param pEvent  a VideoFrameEvent; anything else is a std::bad_cast
     * @return 0
     */
    int onLiveFrameEvent(Event* pEvent);

private:
    bool constructFrameHeadEntry(uint32_t u32Type, uint32_t u32Size,
                                 SendQueueTcpClient::Item& item);

    SendQueueTcpClient& m_client;
    VideoConsumer m_consumer;
    SafePointer_C<char> m_trailer; // after each frame; one block, made by start()
    uint8_t m_u8Divisor = 1;       // a frame is used when the counter is a multiple
    uint32_t m_u32Counter = 0;     // frames seen; capture thread
};

// The responder of "/live": a multipart stream of the camera's pictures.
#include "HttpLiveClient.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/time.h>

#include "AnswerBlock.h"
#include "Callback.h"
#include "Log.h"
#include "SystemModule.h"
#include "VideoFrameEvent.h"
#include "WebCameraClient.h"

static const char* const SOURCE_NAME = "webcamera/HttpLiveClient";

static const int MOST_WAITING = 2;       // items in the send queue, from which frames are dropped
static const uint32_t FORMAT_PLAIN = 10; // one byte per pixel
static const uint32_t MOST_PADDED = 99999999; // fits the 8 places of Content-Length

HttpLiveClient::HttpLiveClient(WebCameraClient& client, int32_t s32Stream) : m_client(client)
{
    m_consumer.setCallback(
        std::make_unique<CB<HttpLiveClient, int>>(this, &HttpLiveClient::onLiveFrameEvent));
    m_consumer.setStream(s32Stream);
}

/** Digits that end before pEnd, over blanks that are there already. */
static void putDigits(char* pEnd, uint32_t u32Number)
{
    do {
        *--pEnd = static_cast<char>('0' + u32Number % 10);
        u32Number /= 10;
    } while (0 != u32Number);
}

/**
 * A JPEG part's header: "%8d" of the size, "%16d.%16d" of seconds and microseconds. Written digit
 * by digit, since for each frame and client printf took a third of all our instructions.
 */
static SafePointer_C<char> makePartHeader(uint32_t u32Size, int nSeconds, int nMicroseconds)
{
    static const char BLANK[] =
        "Content-Type: image/jpeg\r\nContent-Length:         \r\nX-Timestamp:                 .                \r\n\r\n";
    char* pBlock = static_cast<char*>(calloc(1, 1024));
    if (nullptr == pBlock) {
        return {};
    }
    memcpy(pBlock, BLANK, sizeof(BLANK));
    putDigits(pBlock + 50, u32Size); // the ends of the three fields
    putDigits(pBlock + 81, static_cast<uint32_t>(nSeconds));
    putDigits(pBlock + 98, static_cast<uint32_t>(nMicroseconds));
    return SafePointer_C<char>(pBlock);
}

int HttpLiveClient::start()
{
    const SafePointer_C<char> header = makeAnswerBlock(
        1024,
        "HTTP/1.0 200 OK\r\nConnection: close\r\nServer: MJPG-Streamer/0.2\r\nCache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\nPragma: no-cache\r\nExpires: Mon, 3 Jan 2000 12:34:56 GMT\r\nContent-Type: multipart/x-mixed-replace;boundary=boundarydonotcross\r\n\r\n");
    m_trailer = makeAnswerBlock(256, "\r\n--boundarydonotcross\r\n");
    if (nullptr == header.get() || nullptr == m_trailer.get()) {
        return 1;
    }
    m_client.send(header, static_cast<int>(strlen(header.get())));
    (void)SystemModule::getInstance().registerConsumer(&m_consumer); // without: no frames
    return 0;
}

int HttpLiveClient::stop()
{
    (void)SystemModule::getInstance().cancelConsumer(&m_consumer); // gone in any case
    return 0;
}

int HttpLiveClient::onLiveFrameEvent(Event* pEvent)
{
    const auto& event = dynamic_cast<VideoFrameEvent&>(*pEvent);
    const uint32_t u32Number = m_u32Counter++;
    if (0 != u32Number % m_u8Divisor || m_client.getQueueLength() >= MOST_WAITING) {
        return 0;
    }
    const VENC_FRAME_T& frame = *event.m_frame.get();
    uint32_t u32Size = frame.u32Size;
    if (FORMAT_PLAIN == frame.u32Format) {
        // Not written into the frame, which other threads read, and never beyond its block.
        u32Size = std::min(u32Size, frame.u32Width * frame.u32Height);
    }
    if (!constructFrameHeadEntry(frame.u32Format, u32Size)) {
        return 0; // without memory the frame is dropped whole
    }
    m_client.send(event.m_frame.castTo<char>(), static_cast<int>(u32Size));
    m_client.send(m_trailer, static_cast<int>(strlen(m_trailer.get())));
    return 0;
}

/** Queue a part's header; an empty one for a type that has none. @return false without memory */
bool HttpLiveClient::constructFrameHeadEntry(uint32_t u32Type, uint32_t u32Size)
{
    SafePointer_C<char> header;
    if (FRAME_FORMAT_MJPEG == u32Type) {
        timeval now{};
        gettimeofday(&now, nullptr); // the time of sending
        const auto nSeconds = static_cast<int>(now.tv_sec);
        const auto nMicroseconds = static_cast<int>(now.tv_usec);
        if (u32Size <= MOST_PADDED && nSeconds >= 0) {
            header = makePartHeader(u32Size, nSeconds, nMicroseconds);
        } else {
            header = makeAnswerBlock(
                1024,
                "Content-Type: image/jpeg\r\nContent-Length: %8d\r\nX-Timestamp: %16d.%16d\r\n\r\n",
                static_cast<int>(u32Size), nSeconds, nMicroseconds);
        }
    } else {
        LOG(7, "unsport frame type !\n"); // sic
        header = makeAnswerBlock(1024, "%s", "");
    }
    if (nullptr == header.get()) {
        return false;
    }
    m_client.send(header, static_cast<int>(strlen(header.get())));
    return true;
}

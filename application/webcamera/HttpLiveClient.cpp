// The responder of "/live": a multipart stream of the camera's pictures.
#include "HttpLiveClient.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/time.h>

#include "AnswerBlock.h"
#include "Callback.h"
#include "Log.h"
#include "SendQueueTcpClient.h"
#include "SystemModule.h"
#include "VideoFrameEvent.h"

static const char* const SOURCE_NAME = "webcamera/HttpLiveClient";

static const int MOST_WAITING = 2;       // items in the send queue, from which frames are dropped
static const uint32_t FORMAT_PLAIN = 10; // one byte per pixel
static const size_t HEADER_BLOCK = 1024; // bytes of a part's header, which takes a tenth of it

namespace {

char* append(char* pAt, const char* pText)
{
    const size_t uLength = strlen(pText);
    memcpy(pAt, pText, uLength + 1);
    return pAt + uLength;
}

/** As printf's "%*d". */
char* appendPadded(char* pAt, int nWidth, int nValue)
{
    char acDigits[16];
    const char* pEnd = std::to_chars(acDigits, acDigits + sizeof(acDigits), nValue).ptr;
    const auto nDigits = static_cast<int>(pEnd - acDigits);
    const int nBlanks = std::max(0, nWidth - nDigits);
    memset(pAt, ' ', static_cast<size_t>(nBlanks));
    memcpy(pAt + nBlanks, acDigits, static_cast<size_t>(nDigits));
    return pAt + nBlanks + nDigits;
}

/** A JPEG part's header. Not by printf, which took a third of all instructions of a delivery. */
SafePointer_C<char> makePartHeader(int nSize, int nSeconds, int nMicroseconds)
{
    char* pBlock = static_cast<char*>(malloc(HEADER_BLOCK));
    if (nullptr == pBlock) {
        return {};
    }
    char* pAt = append(pBlock, "Content-Type: image/jpeg\r\nContent-Length: ");
    pAt = appendPadded(pAt, 8, nSize);
    pAt = append(pAt, "\r\nX-Timestamp: ");
    pAt = appendPadded(pAt, 16, nSeconds);
    pAt = append(pAt, ".");
    pAt = appendPadded(pAt, 16, nMicroseconds);
    (void)append(pAt, "\r\n\r\n");
    return SafePointer_C<char>(pBlock);
}

} // namespace

HttpLiveClient::HttpLiveClient(SendQueueTcpClient& client, int32_t s32Stream) : m_client(client)
{
    m_consumer.setCallback(
        std::make_unique<CB<HttpLiveClient, int>>(this, &HttpLiveClient::onLiveFrameEvent));
    m_consumer.setStream(s32Stream);
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
    SendQueueTcpClient::Item aItem[3];
    if (!constructFrameHeadEntry(frame.u32Format, u32Size, aItem[0])) {
        return 0; // without memory the frame is dropped whole
    }
    aItem[1].data = event.m_frame.castTo<char>();
    aItem[1].nLength = static_cast<int>(u32Size);
    aItem[2].data = m_trailer;
    aItem[2].nLength = static_cast<int>(strlen(m_trailer.get()));
    (void)m_client.sendTogether(aItem, 3); // likewise
    return 0;
}

/** Make a part's header; an empty one for a type that has none. @return false without memory */
bool HttpLiveClient::constructFrameHeadEntry(uint32_t u32Type, uint32_t u32Size,
                                             SendQueueTcpClient::Item& item)
{
    if (FRAME_FORMAT_MJPEG == u32Type) {
        timeval now{};
        gettimeofday(&now, nullptr); // the time of sending
        item.data = makePartHeader(static_cast<int>(u32Size), static_cast<int>(now.tv_sec),
                                   static_cast<int>(now.tv_usec));
    } else {
        LOG(7, "unsport frame type !\n"); // sic
        item.data = makeAnswerBlock(HEADER_BLOCK, "%s", "");
    }
    if (nullptr == item.data.get()) {
        return false;
    }
    item.nLength = static_cast<int>(strlen(item.data.get()));
    return true;
}

// A connection of the HTTP camera service.
#include "WebCameraClient.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

// A connection without a request: its object and buffer, and what is left over in the blocks of two
// part heads.
static const uint32_t OWN_BYTES = 8192;
static const int ANSWER_MS = 5000; // for a direct answer to leave

WebCameraClient::WebCameraClient() : m_processor(*this, *this) {}

WebCameraClient::~WebCameraClient()
{
    leave();
}

int WebCameraClient::init()
{
    m_u32HeardMs = monotonicMs32();
    if (!take(OWN_BYTES)) {
        return 1;
    }
    m_nBufferSize = 2048;
    char* pBuffer = static_cast<char*>(malloc(static_cast<size_t>(m_nBufferSize)));
    if (nullptr == pBuffer) {
        return 1;
    }
    m_buffer = SafePointer_C<char>(pBuffer);
    return (nullptr == m_buffer.get()) ? 1 : 0;
}

int WebCameraClient::start()
{
    return 0;
}

int WebCameraClient::stop()
{
    m_processor.stopResponders();
    return 0;
}

int WebCameraClient::uninit()
{
    return 0;
}

int WebCameraClient::onRead(EPollEvent&)
{
    if (!m_socket.isValid()) {
        return 1;
    }
    int nRead = 0;
    if (0 != m_socket.read(m_buffer.get(), m_nBufferSize, nRead)) {
        return 1;
    }
    if (0 == nRead) {
        // Deliberate: the reactor looks once too often; only bytes are a chunk, to be routed again.
        return 0;
    }
    m_u32HeardMs = monotonicMs32();
    try {
        return m_processor.parse(m_buffer.get(), nRead);
    } catch (const std::bad_alloc&) {
        return 1; // e.g. for a long path: this connection ends, the service does not
    }
}

int WebCameraClient::write(const void* pData, int nLength)
{
    char* pCopy = static_cast<char*>(malloc(static_cast<size_t>(nLength)));
    if (nullptr == pCopy) {
        return 1;
    }
    memcpy(pCopy, pData, static_cast<size_t>(nLength));
    const SafePointer_C<char> copy(pCopy);
    if (nullptr == copy.get()) {
        return 1;
    }
    m_u32AnswerMs = monotonicMs32();
    if (0 != enqueue(copy, nLength) || 1 == trySend()) {
        return 1;
    }
    m_bAnswering = !isDrained();
    return 0;
}

bool WebCameraClient::mayRead()
{
    return !m_bAnswering;
}

int WebCameraClient::onTurn()
{
    if (m_bAnswering) {
        if (!isDrained()) {
            return 0;
        }
        m_bAnswering = false;
        return TURN_AGAIN; // what has come meanwhile
    }
    try {
        return m_processor.goOn();
    } catch (const std::bad_alloc&) {
        return 1; // as for a chunk
    }
}

uint32_t WebCameraClient::getIdleRank(uint32_t u32NowMs) const
{
    if (m_bAnswering || m_processor.isAnswering()) {
        return 0;
    }
    const uint32_t u32SilentMs = std::min(u32NowMs - m_u32HeardMs, UINT32_MAX / 2 - 1);
    return 1 + u32SilentMs + (m_processor.hasRequest() ? 0 : UINT32_MAX / 2);
}

int WebCameraClient::getTimeLeft(uint32_t u32NowMs)
{
    if (!m_bAnswering) {
        return INT_MAX;
    }
    return ANSWER_MS - static_cast<int>(u32NowMs - m_u32AnswerMs);
}

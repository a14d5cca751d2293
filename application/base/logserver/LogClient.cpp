// One log viewer's connection.
#include "LogClient.h"

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "EventBus.h"
#include "LogEvent.h"

static const uint32_t OWN_BYTES = 4096;           // a viewer without lines: object, buffer
static const uint32_t MOST_WAITING = 1024 * 1024; // bytes of lines
static const int LAG_MS = 5000;

LogClient::~LogClient()
{
    leave();
}

int LogClient::init()
{
    if (!take(OWN_BYTES)) {
        return 1;
    }
    m_s32ReceiveSize = 2048;
    m_receive =
        SafePointer_C<char>(static_cast<char*>(malloc(static_cast<size_t>(m_s32ReceiveSize))));
    return 0;
}

int LogClient::start()
{
    EventBus<LogEvent>::subscribe(this, &LogClient::onLog);
    return 0;
}

int LogClient::stop()
{
    EventBus<LogEvent>::unsubscribe(this, &LogClient::onLog);
    return 0;
}

int LogClient::uninit()
{
    return 0;
}

int LogClient::onRead(EPollEvent& event)
{
    (void)event;
    if (!m_socket.isValid() || nullptr == m_receive.get()) {
        return 1;
    }
    int nDone = 0;
    if (0 != m_socket.read(m_receive.get(), m_s32ReceiveSize, nDone)) {
        return 1;
    }
    // Deliberate: also without bytes, when the reactor reports once more what was read before.
    printf("logserver recv:%.*s\n", nDone, m_receive.get());
    return 0;
}

int LogClient::getTimeLeft(uint32_t u32NowMs)
{
    if (getWaitingBytes() <= MOST_WAITING) {
        m_bLagging = false;
        return INT_MAX;
    }
    // What is in the kernel's buffer has not been taken: a slow reader takes it in small pieces.
    int32_t nUnacknowledged = 0;
    (void)m_socket.getSndQueue(nUnacknowledged);
    const uint32_t u32Taken = getHandedBytes() - static_cast<uint32_t>(nUnacknowledged);
    if (!m_bLagging || u32Taken != m_u32Taken) {
        m_bLagging = true;
        m_u32Taken = u32Taken;
        m_u32SinceMs = u32NowMs;
    }
    return LAG_MS - static_cast<int>(u32NowMs - m_u32SinceMs);
}

int LogClient::onLog(Event* pEvent)
{
    const auto& event = dynamic_cast<LogEvent&>(*pEvent);
    if (!m_socket.isValid()) {
        return 1;
    }
    send(event.m_text, event.m_s32Length);
    return 0;
}

// One log viewer's connection.
#include "LogClient.h"

#include <cstdio>
#include <cstdlib>

#include "EventBus.h"
#include "LogEvent.h"

int LogClient::init()
{
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

int LogClient::onLog(Event* pEvent)
{
    const auto& event = dynamic_cast<LogEvent&>(*pEvent);
    if (!m_socket.isValid()) {
        return 1;
    }
    send(event.m_text, event.m_s32Length);
    return 0;
}

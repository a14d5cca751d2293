// One log viewer's connection.
#pragma once

#include <cstdint>

#include "SafePointer.h"
#include "SendQueueTcpClient.h"

/**
 * Queues every log line from start() to stop(); the line's buffer is shared, not copied. What the
 * viewer sends is printed on standard output.
 *
 * Nothing bounds the queue: a viewer that stops reading keeps all lines since then in memory until
 * it leaves.
 */
class LogClient : public SendQueueTcpClient
{
public:
    int init() override;
    int start() override;

    /** Waits until no thread is queuing a line here any more. */
    int stop() override;
    int uninit() override;

    /** @return 1 when the viewer has left or the socket failed */
    int onRead(EPollEvent& event) override;

    /** Takes a LogEvent, on the thread that logs. @return 0, or 1 without a connection */
    int onLog(Event* pEvent);

private:
    int32_t m_s32ReceiveSize = 0; // bytes
    SafePointer_C<char> m_receive;
};

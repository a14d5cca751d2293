// One log viewer's connection.
#pragma once

#include <cstdint>

#include "SafePointer.h"
#include "SendQueueTcpClient.h"

/**
 * Queues every log line from start() to stop(); the line's buffer is shared, not copied. What the
 * viewer sends is printed on standard output.
 *
 * A viewer that keeps reading gets every line. One that has taken no byte for 5 s while more than
 * 1 MiB waits for it is closed; until then ClientMemory bounds the queue.
 */
class LogClient : public SendQueueTcpClient
{
public:
    LogClient() = default;
    ~LogClient() override;

    int init() override;
    int start() override;

    /** Waits until no thread is queuing a line here any more. */
    int stop() override;
    int uninit() override;

    /** @return 1 when the viewer has left or the socket failed */
    int onRead(EPollEvent& event) override;

    int getTimeLeft(uint32_t u32NowMs) override;

    /** Takes a LogEvent, on the thread that logs. @return 0, or 1 without a connection */
    int onLog(Event* pEvent);

private:
    int32_t m_s32ReceiveSize = 0; // bytes
    SafePointer_C<char> m_receive;
    bool m_bLagging = false;   // too much waits; the reactor's, as the next two
    uint32_t m_u32Taken = 0;   // bytes that the viewer had taken then, modulo 2^32
    uint32_t m_u32SinceMs = 0; // since when it has taken no more, of monotonicMs32
};

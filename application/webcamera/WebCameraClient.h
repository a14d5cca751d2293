// A connection of the HTTP camera service.
#pragma once

#include "ICommucation.h"
#include "SafePointer.h"
#include "SendQueueTcpClient.h"
#include "WebCameraHttpDataProcessor.h"

/**
 * Reads requests into its processor and carries the answers: responders enqueue with send(), short
 * texts are written directly. A failed read, a malformed request and a lack of memory end the
 * connection without an answer.
 */
class WebCameraClient : public SendQueueTcpClient, public ICommucation
{
public:
    WebCameraClient();
    ~WebCameraClient() override;

    /** @return 0; 1 without memory for the receive buffer */
    int init() override;

    int start() override;

    /**
     * Ends the responders: afterwards no capture thread reaches the connection, whose destructors
     * may begin. Waits for a delivery that is under way.
     * @return 0
     */
    int stop() override;

    int uninit() override;

    /**
     * Read once, 2048 bytes at most, and hand the bytes to the processor.
     * @return its result; 1 without memory
     */
    int onRead(EPollEvent& event) override;

    /**
     * Answer directly, without blocking: what the socket does not take leaves as it drains. Until
     * it is gone nothing more is read, and the connection ends when that takes 5 s.
     * @return 0; 1 when the socket failed, or without memory
     */
    int write(const void* pData, int nLength) override;

    bool mayRead() override;
    int onTurn() override;
    int getTimeLeft(uint32_t u32NowMs) override;

    /**
     * How well it can be spared for a new connection: without a complete request, then with all of
     * it answered; of equals the one that has been silent longest.
     * @return 0 while it is being answered
     */
    uint32_t getIdleRank(uint32_t u32NowMs) const;

private:
    WebCameraHttpDataProcessor m_processor;
    int m_nBufferSize = 0; // bytes
    SafePointer_C<char> m_buffer;
    bool m_bAnswering = false;  // a direct answer is not gone yet
    uint32_t m_u32AnswerMs = 0; // when it began, of monotonicMs32
    uint32_t m_u32HeardMs = 0;  // when the last bytes came, likewise
};

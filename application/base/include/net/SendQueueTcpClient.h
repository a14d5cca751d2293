// A connection that any thread can hand data to: a queue in front of the write engine.
#pragma once

#include <deque>

#include "SafePointer.h"
#include "TcpClient.h"

/**
 * Sends shared buffers in the order in which they were handed over, without copying them.
 *
 * The queue has no limit: a slow peer makes it grow, and who sends decides by getQueueLength()
 * whether to go on. A buffer is held until the one behind it has begun, or the object ends.
 */
class SendQueueTcpClient : public TcpClient
{
public:
    SendQueueTcpClient() = default;
    /** Drops what has not been sent; nobody may be sending any more. */
    ~SendQueueTcpClient() override;

    /**
     * Enqueue nLength bytes, beginning at the buffer's data offset, and send what the socket takes
     * at once on the caller's thread. Any thread; a failure of the connection is not reported here,
     * the reactor ends it. So it does when there is no memory for the item, which is dropped. The
     * lock of the queue is not held while sending.
     */
    void send(const SafePointer_C<char>& data, int nLength);

    /** @return items waiting; the one being sent is not counted. Any thread. */
    int getQueueLength();

    /** The front item's bytes; null for an item without a buffer, which is dropped. @return 0 */
    int getNextBuffer(const void*& pData, int& nLength) override;

protected:
    /** As the first half of send. @return 0; 1 when the connection can't go on */
    int enqueue(const SafePointer_C<char>& data, int nLength);

    /** Nothing waits and nothing is being sent. */
    bool isDrained();

private:
    struct Item
    {
        SafePointer_C<char> data;
        int nLength = 0;
    };

    // Guards queue and current item; error-checking. Taken inside the send lock, nothing inside.
    Mutex m_mtxQueue{MUTEX_TYPE_ERRORCHECK};
    Item m_itemSending GUARDED_BY(m_mtxQueue);
    std::deque<Item> m_queue GUARDED_BY(m_mtxQueue);
};

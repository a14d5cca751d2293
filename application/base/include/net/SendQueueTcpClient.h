// A connection that any thread can hand data to: a queue in front of the write engine.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>

#include "ClientMemory.h"
#include "SafePointer.h"
#include "TcpClient.h"

/**
 * Sends shared buffers in the order in which they were handed over, without copying them. What
 * waits is handed to the kernel together, MOST_GATHERED buffers at a time, in one call.
 *
 * The queue is bounded by ClientMemory alone: who sends decides by getQueueLength() whether to go
 * on. A buffer is held until the whole batch that it left with has been written, or the object
 * ends.
 */
class SendQueueTcpClient : public TcpClient, public ClientMemory::Share
{
public:
    /** A buffer, and how many bytes of it to send, beginning at its data offset. */
    struct Item
    {
        SafePointer_C<char> data;
        int nLength = 0;
    };

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

    /**
     * As send, for items that enter the queue together and leave together. They are moved from.
     * @return false without memory: nothing has been enqueued, and the connection goes on
     */
    bool sendTogether(Item* pItems, size_t uCount);

    /**
     * @return items waiting; those being sent are not counted. Of those that the kernel was given
     * together, and has taken nothing of yet, the first is being sent and the others wait. Any
     * thread.
     */
    int getQueueLength();

    /** Nothing waits and nothing is being sent. Any thread. */
    bool isDrained();

    /** The front item's bytes; null for an item without a buffer, which is dropped. @return 0 */
    int getNextBuffer(const void*& pData, int& nLength) override;

protected:
    /** As the first half of send. @return 0; 1 when the connection can't go on */
    int enqueue(const SafePointer_C<char>& data, int nLength);

    /** Bytes of the items waiting. */
    uint32_t getWaitingBytes();

    /** Bytes that the kernel has taken so far, modulo 2^32. */
    uint32_t getHandedBytes() const
    {
        return m_u32Handed.load();
    }

    void giveUp() override;

private:
    static const int MOST_GATHERED = 16; // POSIX allows for no more (_XOPEN_IOV_MAX)

    enum ENQUEUE_E
    {
        ENQUEUED,
        NO_MEMORY, // and nothing done
        GIVEN_UP
    };

    ENQUEUE_E enqueue(Item* pItems, size_t uCount);
    bool takeFront(Item& item);
    void gather();
    bool hasBuffer() const override;
    bool isRestLeft() const override;
    int sendRest() override;
    int fetchBuffer() override;
    void skipWritten(int nWritten);

    // Guards the queue and m_item; error-checking. Taken inside the send lock and ClientMemory's,
    // nothing inside.
    Mutex m_mtxQueue{MUTEX_TYPE_ERRORCHECK};
    std::list<Item> m_queue GUARDED_BY(m_mtxQueue);
    uint32_t m_u32Waiting GUARDED_BY(m_mtxQueue) = 0; // bytes of the items in the queue
    Item m_item GUARDED_BY(m_mtxQueue);               // of getNextBuffer
    std::atomic<int> m_nBehind{0}; // items being sent that still count as waiting

    // The write engine's, guarded by its lock.
    Item m_aSending[MOST_GATHERED];
    int m_nSending = 0;      // items
    int m_nWritten = 0;      // of them, whole
    int m_nOffset = 0;       // bytes written of the next one; 0 behind the last
    bool m_bRefused = false; // the kernel had no room for any of them

    std::atomic<uint32_t> m_u32Handed{0};
};

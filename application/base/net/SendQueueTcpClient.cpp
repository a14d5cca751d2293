// A connection that any thread can hand data to: a queue in front of the write engine.
#include "SendQueueTcpClient.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include <sys/socket.h>
#include <sys/uio.h>

// What an item costs besides its bytes: its block's count, its place in the queue, the allocator's
// part of each.
static const uint32_t ITEM_BYTES = 192;

// From this size on, what follows starts a new segment (MSG_EOR, Linux 4.7): appended to unsent
// data, the kernel would take a whole picture beyond TCP_NOTSENT_LOWAT. Smaller sends are answers
// and lines, which are better off sharing segments.
static const int PICTURE_BYTES = 4096;

static uint32_t boundBytes(const SendQueueTcpClient::Item& item)
{
    return static_cast<uint32_t>(item.nLength) + ITEM_BYTES;
}

SendQueueTcpClient::~SendQueueTcpClient()
{
    leave();
}

void SendQueueTcpClient::send(const SafePointer_C<char>& data, int nLength)
{
    if (0 == enqueue(data, nLength)) {
        (void)trySend(); // the reactor ends a connection that failed
    }
}

bool SendQueueTcpClient::sendTogether(Item* pItems, size_t uCount)
{
    const ENQUEUE_E eResult = enqueue(pItems, uCount);
    if (ENQUEUED == eResult) {
        (void)trySend(); // likewise
    }
    return NO_MEMORY != eResult;
}

int SendQueueTcpClient::enqueue(const SafePointer_C<char>& data, int nLength)
{
    Item item;
    item.data = data;
    item.nLength = nLength;
    const ENQUEUE_E eResult = enqueue(&item, 1);
    if (NO_MEMORY == eResult) {
        // What comes behind the gap would be misread: the reactor ends the connection.
        (void)m_socket.shutdown(SHUT_RDWR);
    }
    return (ENQUEUED == eResult) ? 0 : 1;
}

SendQueueTcpClient::ENQUEUE_E SendQueueTcpClient::enqueue(Item* pItems, size_t uCount)
{
    std::list<Item> items;
    uint32_t u32Bytes = 0;
    uint32_t u32Length = 0;
    try {
        for (size_t u = 0; u < uCount; ++u) {
            u32Bytes += boundBytes(pItems[u]);
            u32Length += static_cast<uint32_t>(pItems[u].nLength);
            items.push_back(std::move(pItems[u]));
        }
    } catch (const std::bad_alloc&) {
        return NO_MEMORY;
    }
    if (!take(u32Bytes)) {
        return GIVEN_UP;
    }
    MutexGuard guard(m_mtxQueue);
    if (!guard.isHeld() || isGivenUp()) { // given up meanwhile: the queue stays empty
        return GIVEN_UP;
    }
    m_queue.splice(m_queue.end(), items);
    m_u32Waiting += u32Length;
    return ENQUEUED;
}

int SendQueueTcpClient::getQueueLength()
{
    MutexGuard guard(m_mtxQueue);
    return static_cast<int>(m_queue.size()) + m_nBehind.load();
}

uint32_t SendQueueTcpClient::getWaitingBytes()
{
    MutexGuard guard(m_mtxQueue);
    return m_u32Waiting;
}

bool SendQueueTcpClient::isDrained()
{
    return !isSending() && 0 == getQueueLength();
}

void SendQueueTcpClient::giveUp()
{
    {
        MutexGuard guard(m_mtxQueue);
        m_queue.clear();
        m_u32Waiting = 0;
    }
    (void)m_socket.shutdown(SHUT_RDWR); // the reactor hears of it
}

/** @return false when the queue is empty */
bool SendQueueTcpClient::takeFront(Item& item)
{
    MutexGuard guard(m_mtxQueue);
    if (!guard.isHeld() || m_queue.empty()) {
        return false;
    }
    item = std::move(m_queue.front());
    m_queue.pop_front();
    m_u32Waiting -= static_cast<uint32_t>(item.nLength);
    return true;
}

int SendQueueTcpClient::getNextBuffer(const void*& pData, int& nLength)
{
    pData = nullptr;
    nLength = 0;
    Item item;
    if (!takeFront(item)) {
        return 0;
    }
    give(boundBytes(item));
    if (nullptr != item.data.get()) {
        pData = item.data.get() + item.data.getDataOffset();
        nLength = item.nLength;
    }
    MutexGuard guard(m_mtxQueue);
    std::swap(m_item, item); // the previous one is freed behind the lock
    return 0;
}

bool SendQueueTcpClient::hasBuffer() const
{
    return m_nSending > 0;
}

bool SendQueueTcpClient::isRestLeft() const
{
    return m_nWritten < m_nSending;
}

int SendQueueTcpClient::fetchBuffer()
{
    uint32_t u32Bytes = 0;
    while (m_nSending > 0) {
        Item& item = m_aSending[--m_nSending];
        u32Bytes += boundBytes(item);
        item = Item();
    }
    m_nWritten = 0;
    if (u32Bytes > 0) {
        give(u32Bytes);
    }
    gather();
    return 0;
}

/** Take what waits, as far as there is room. */
void SendQueueTcpClient::gather()
{
    uint32_t u32Bytes = 0; // of items without any
    {
        MutexGuard guard(m_mtxQueue);
        while (guard.isHeld() && m_nSending < MOST_GATHERED && !m_queue.empty()) {
            Item& item = m_aSending[m_nSending];
            item = std::move(m_queue.front());
            m_queue.pop_front();
            m_u32Waiting -= static_cast<uint32_t>(item.nLength);
            if (nullptr == item.data.get() || 0 == item.nLength) {
                u32Bytes += boundBytes(item);
                item = Item();
                continue;
            }
            ++m_nSending;
        }
        m_nBehind = std::max(0, m_nSending - 1);
    }
    if (u32Bytes > 0) {
        give(u32Bytes);
    }
}

int SendQueueTcpClient::sendRest()
{
    if (isGivenUp()) {
        return 1; // its socket is shut down already: nothing to log
    }
    if (m_bRefused) {
        gather(); // what has been queued since then goes with it
    }
    int nLength = 0; // of the whole batch, so that its last piece counts as it does
    for (int i = 0; i < m_nSending; ++i) {
        nLength += m_aSending[i].nLength;
    }
    const int nFlags = (nLength >= PICTURE_BYTES) ? MSG_EOR : 0;
    int nDone = 0;
    do {
        iovec aPiece[MOST_GATHERED];
        for (int i = m_nWritten; i < m_nSending; ++i) {
            const Item& item = m_aSending[i];
            const int nSkip = (m_nWritten == i) ? m_nOffset : 0;
            iovec& piece = aPiece[i - m_nWritten];
            piece.iov_base = item.data.get() + item.data.getDataOffset() + nSkip;
            piece.iov_len = static_cast<size_t>(item.nLength - nSkip);
        }
        if (0 != m_socket.write(aPiece, m_nSending - m_nWritten, nDone, nFlags)) {
            return 1;
        }
        skipWritten(nDone);
    } while (0 == nDone && EINTR == errno); // no out event would follow a signal
    m_bRefused = 0 == m_nWritten && 0 == m_nOffset;
    if (nDone > 0) {
        m_nBehind = 0;
        m_u32Handed += static_cast<uint32_t>(nDone);
        noteTaken();
    }
    return 0;
}

void SendQueueTcpClient::skipWritten(int nWritten)
{
    m_nOffset += nWritten;
    while (m_nWritten < m_nSending && m_nOffset >= m_aSending[m_nWritten].nLength) {
        m_nOffset -= m_aSending[m_nWritten].nLength;
        ++m_nWritten;
    }
}

// A connection that any thread can hand data to: a queue in front of the write engine.
#include "SendQueueTcpClient.h"

#include <new>
#include <utility>

#include <sys/socket.h>

SendQueueTcpClient::~SendQueueTcpClient()
{
    MutexGuard guard(m_mtxQueue);
    m_queue.clear();
}

void SendQueueTcpClient::send(const SafePointer_C<char>& data, int nLength)
{
    if (0 == enqueue(data, nLength)) {
        (void)trySend(); // the reactor ends a connection that failed
    }
}

int SendQueueTcpClient::enqueue(const SafePointer_C<char>& data, int nLength)
{
    Item item;
    item.data = data;
    item.nLength = nLength;
    MutexGuard guard(m_mtxQueue);
    if (!guard.isHeld()) {
        return 1; // logged there
    }
    try {
        m_queue.push_back(std::move(item));
    } catch (const std::bad_alloc&) {
        // What comes behind the gap would be misread: the reactor ends the connection.
        (void)m_socket.shutdown(SHUT_RDWR);
        return 1;
    }
    return 0;
}

bool SendQueueTcpClient::isDrained()
{
    return !isSending() && 0 == getQueueLength();
}

int SendQueueTcpClient::getQueueLength()
{
    MutexGuard guard(m_mtxQueue);
    return static_cast<int>(m_queue.size());
}

int SendQueueTcpClient::getNextBuffer(const void*& pData, int& nLength)
{
    pData = nullptr;
    nLength = 0;
    Item previous; // a last handle frees its buffer behind the lock
    MutexGuard guard(m_mtxQueue);
    if (!guard.isHeld() || m_queue.empty()) {
        return 0;
    }
    previous = std::move(m_itemSending);
    m_itemSending = std::move(m_queue.front());
    m_queue.pop_front();
    if (nullptr != m_itemSending.data.get()) {
        pData = m_itemSending.data.get() + m_itemSending.data.getDataOffset();
        nLength = m_itemSending.nLength;
    }
    return 0;
}

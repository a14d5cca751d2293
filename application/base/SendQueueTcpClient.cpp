// A connection that any thread can hand data to: a queue in front of the write engine.
#include "SendQueueTcpClient.h"

#include <utility>

SendQueueTcpClient::~SendQueueTcpClient()
{
    MutexGuard guard(m_mtxQueue);
    m_queue.clear();
}

void SendQueueTcpClient::send(const SafePointer_C<char>& data, int nLength)
{
    Item item;
    item.data = data;
    item.nLength = nLength;
    {
        MutexGuard guard(m_mtxQueue);
        if (!guard.isHeld()) {
            return; // logged there
        }
        m_queue.push_back(std::move(item));
    }
    (void)trySend(); // the reactor ends a connection that failed
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

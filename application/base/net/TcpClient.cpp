// One accepted TCP connection: its lifecycle and a non-blocking write engine.
#include "TcpClient.h"

#include <cerrno>
#include <climits>

#include <sys/epoll.h>
#include <sys/socket.h>

int TcpClient::init()
{
    return 0;
}

int TcpClient::start()
{
    return 0;
}

int TcpClient::stop()
{
    return 0;
}

int TcpClient::uninit()
{
    return 0;
}

int TcpClient::onRead(EPollEvent&)
{
    return 0;
}

bool TcpClient::mayRead()
{
    return true;
}

int TcpClient::onTurn()
{
    return 0;
}

int TcpClient::getTimeLeft(uint32_t)
{
    return INT_MAX;
}

int TcpClient::onError(EPollEvent&)
{
    return 0;
}

int TcpClient::getNextBuffer(const void*& pData, int& nLength)
{
    pData = nullptr;
    nLength = 0;
    return 0;
}

void TcpClient::setSocket(const TcpSocket& socket)
{
    m_socket = socket;
}

int TcpClient::trySend()
{
    if (m_bSending.load()) {
        return SEND_IN_PROGRESS;
    }
    int nFd = m_socket.getFd();
    TcpClient* pThis = this;
    EPollEvent event(EPOLLOUT, &nFd, &pThis);
    return onWrite(event);
}

int TcpClient::onWrite(EPollEvent&)
{
    MutexGuard guard(m_mtxSend);
    if (!guard.isHeld()) {
        return 1; // a log line of this thread's own write: the engine is running
    }
    for (;;) {
        if (isRestLeft()) {
            if (0 != sendRest()) {
                // Deliberate: a producer's thread can't end it: after e.g. ENOMEM, which breaks
                // nothing, the reactor would otherwise never hear of it.
                (void)m_socket.shutdown(SHUT_RDWR);
                return 1;
            }
            if (isRestLeft()) {
                return 0;
            }
        }
        if (0 != fetchBuffer()) {
            // Deliberate: the guard unlocks; a lock held for ever would hang every later send.
            return 1;
        }
        if (!hasBuffer()) {
            if (!m_bSending.exchange(false)) {
                return 0;
            }
            // What was enqueued after the queue was found empty, but before the flag was clear, has
            // been left to this call.
            if (0 != fetchBuffer()) {
                return 1;
            }
            if (!hasBuffer()) {
                return 0;
            }
        }
        m_bSending = true;
    }
}

bool TcpClient::hasBuffer() const
{
    return nullptr != m_pData;
}

bool TcpClient::isRestLeft() const
{
    return hasBuffer() && m_nSent < m_nLength;
}

int TcpClient::sendRest()
{
    int nDone = 0;
    do {
        if (0 != m_socket.write(static_cast<const char*>(m_pData) + m_nSent, m_nLength - m_nSent,
                                nDone)) {
            return 1;
        }
        m_nSent += nDone;
    } while (0 == nDone && EINTR == errno); // no out event would follow a signal
    return 0;
}

int TcpClient::fetchBuffer()
{
    const int nRet = getNextBuffer(m_pData, m_nLength);
    m_nSent = 0;
    if (0 != nRet) {
        m_pData = nullptr; // whatever was left there
        return 1;
    }
    return 0;
}

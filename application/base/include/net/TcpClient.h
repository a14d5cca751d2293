// One accepted TCP connection: its lifecycle and a non-blocking write engine.
#pragma once

#include <atomic>
#include <cstdint>

#include "EPollEvent.h"
#include "Mutex.h"
#include "TcpSocket.h"

/**
 * The base of what a TcpServer makes for each connection.
 *
 * The server owns it: it calls init, start, then onRead, onWrite and onError as the socket becomes
 * ready, with mayRead, onTurn and getTimeLeft in between, at the end stop and uninit, and deletes
 * it; nobody else may. All of that happens on the reactor's thread. Non-zero results of init,
 * start, onRead and onWrite mean failure and end the connection. What lets other threads reach the
 * object (subscriptions, consumers) is taken back in stop(), before its destructors begin.
 *
 * The descriptor is the server's, too: it is closed after the object is gone, and neither read nor
 * written before init.
 */
class TcpClient
{
public:
    /** Result of trySend() when a write is already in progress. */
    static const int SEND_IN_PROGRESS = 5;
    /** Result of onTurn(). */
    static const int TURN_AGAIN = 2;

    TcpClient() = default;
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;
    virtual ~TcpClient() = default;

    virtual int init();
    virtual int start();
    virtual int stop();
    /** Called only when stop() has returned 0. */
    virtual int uninit();

    /**
     * The socket may be readable; called again while it is, so it must read: data that stays is
     * reported in each pass. Sometimes there is nothing to read: data that arrived while the last
     * call was reading is reported once more.
     */
    virtual int onRead(EPollEvent& event);

    /** Asked before each onRead; false leaves what has come where it is, until onTurn says so. */
    virtual bool mayRead();

    /**
     * The end of the connection's turn in a pass, in which it has read, or written on.
     * @return 0; TURN_AGAIN for a turn in the next pass, also when nothing new has come; anything
     * else ends the connection
     */
    virtual int onTurn();

    /**
     * Asked at the start of each pass, and once more after a last onWrite and onTurn when it says
     * that the time is over.
     * @param u32NowMs  monotonicMs32()
     * @return milliseconds until the connection has to end, 0 or below for now; INT_MAX for never
     */
    virtual int getTimeLeft(uint32_t u32NowMs);

    /**
     * The write engine: sends the current buffer, and further ones from getNextBuffer, until the
     * socket takes no more or no buffer is left. Any thread; a second one waits meanwhile. Logs a
     * failing send with the send lock held and a write in progress, so that a log sink of this
     * very connection comes back from trySend at once.
     * @return 0, also when data is left for the next call; 1 when sending failed: the socket is
     * then shut down, so that the reactor ends the connection, and counts as in progress until then
     */
    virtual int onWrite(EPollEvent& event);

    /** The connection failed or hung up; stop() follows. The result is not looked at. */
    virtual int onError(EPollEvent& event);

    /**
     * The next buffer to send, called by the write engine with its lock held.
     * @param pData    has to stay readable until the next call; null when there is none
     * @param nLength  bytes
     * @return non-zero fails the write
     */
    virtual int getNextBuffer(const void*& pData, int& nLength);

    /**
     * Send what has been enqueued, on the caller's thread, unless a write is in progress, which
     * then takes it along. Any thread.
     * @return SEND_IN_PROGRESS, or the result of onWrite
     */
    int trySend();

    /** By the server, after accept and before init. */
    void setSocket(const TcpSocket& socket);

    TcpSocket& getSocket()
    {
        return m_socket;
    }

protected:
    /** A buffer is in progress, or a failed write waits for the reactor. Any thread. */
    bool isSending() const
    {
        return m_bSending.load();
    }

    TcpSocket m_socket;

private:
    // The engine's steps, for a class that does not get its buffers from getNextBuffer.

    /** There is a current buffer, whether or not it has been written whole. */
    virtual bool hasBuffer() const REQUIRES(m_mtxSend);
    virtual bool isRestLeft() const REQUIRES(m_mtxSend);
    /** Write once, again after a signal. @return non-zero fails the write */
    virtual int sendRest() REQUIRES(m_mtxSend);
    /** The next buffer, if there is one. @return non-zero fails the write */
    virtual int fetchBuffer() REQUIRES(m_mtxSend);

    // Guards the current buffer; error-checking. The lock of a queue may be taken inside, and the
    // socket's write lock.
    Mutex m_mtxSend{MUTEX_TYPE_ERRORCHECK};
    const void* m_pData GUARDED_BY(m_mtxSend) = nullptr; // null: no buffer
    int m_nLength GUARDED_BY(m_mtxSend) = 0;
    int m_nSent GUARDED_BY(m_mtxSend) = 0;
    std::atomic<bool> m_bSending{false}; // a buffer is in progress; written under m_mtxSend
};

// A listening TCP socket on its own reactor, and the connections accepted from it.
#pragma once

#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "EPoll.h"
#include "TcpClient.h"

/**
 * Accepts connections, tunes their sockets, wraps each in an object of the subclass's kind and
 * routes readiness to it, all on the reactor's thread. No connection can hold it up: in one pass a
 * connection reads at most 16 times and at most 16 are accepted; the rest wait for the next pass.
 *
 * A connection whose peer vanishes ends, too: after 7 s by the kernel's keep-alive when nothing is
 * being sent, otherwise when nothing has been acknowledged for 8 s, which is checked once a second.
 * A peer that merely reads nothing stays connected.
 *
 * Order of calls: init, start, ..., stop, uninit. Connections outlive stop and uninit; those that
 * are still open end with the server, as an error would end them. Logging is at level 2 for
 * failures and 8 for connections that come and go.
 *
 * A subclass calls endService() first thing in its own destructor: until then the reactor may call
 * createClient and connections may use the subclass.
 */
class TcpServer : public EPoll
{
public:
    /**
     * @param pName         the reactor thread's name; null gives "epoll"
     * @param nMostClients  connections at a time; further ones are closed unless makeRoom helps
     */
    explicit TcpServer(const char* pName = nullptr, int nMostClients = INT_MAX);
    ~TcpServer() override;

    /**
     * @return a new connection, the server's from then on; null leaves the peer unserved, open
     * @throws std::bad_alloc  the peer is closed then, as after any lack of memory while accepting
     */
    virtual TcpClient* createClient() = 0;

    /**
     * Listen, with a backlog of 20.
     *
     * After a failure (logged) behind the creation of the socket and before its registration, the
     * socket stays open and a further init fails until uninit has been called.
     * @param u16Port             0 lets the kernel choose
     * @param pIp                 local address, dotted; null for any
     * @param nSendBufferSize     bytes, for every accepted socket
     * @param nReceiveBufferSize  likewise
     * @return 0 or 1
     */
    int init(uint16_t u16Port, const char* pIp, int nSendBufferSize, int nReceiveBufferSize);

    /**
     * Stop listening; the reactor has to be stopped. Logs at level 5 when it did not listen.
     * @return 0
     */
    int uninit();

protected:
    /**
     * Stop the reactor's thread, end every connection and stop listening. Repeating it does
     * nothing.
     */
    void endService();

    /** End a connection for a new one. @return false when there is none to end, as here */
    virtual bool makeRoom();

    /** End the connection that has the highest rank above 0. @return false when none has */
    bool endHighest(const std::function<uint32_t(TcpClient&)>& rank);

    /** Ends the connections whose time is over, or whose peer has vanished. */
    int getWaitMs() override;

    TcpSocket m_socket; // listens

private:
    RET_E onPollAccept(Event* pEvent);
    RET_E onPollIn(Event* pEvent);
    RET_E onPollOut(Event* pEvent);
    RET_E onPollError(Event* pEvent);
    void welcome(TcpSocket& socket);
    void endSilent();
    RET_E endTurn(EPollEvent& event, bool bMore);
    int getTimeLeft(EPollEvent& event);
    bool tune(TcpSocket& socket);
    bool serve(std::unique_ptr<TcpClient> pClient, const TcpSocket& socket);

    int m_nReceiveBufferSize = 0;
    int m_nSendBufferSize = 0;
    int m_nAccepted = 0;        // in this pass
    uint32_t m_u32LookedMs = 0; // for silent peers, of monotonicMs32
    const int m_nMostClients;
    int m_nClients = 0;
    // Made for connections whose set-up then failed; they live as long as the server.
    std::vector<std::unique_ptr<TcpClient>> m_vecRetired;
};

// A connection of the camera service without its server: the test is the reactor and the peer.
#pragma once

#include <string>

#include "WebCameraClient.h"

/** One end of a socket pair is the connection's, the other the peer's. */
class Connection
{
public:
    /** @param nSendBuffer  bytes, 0 for the kernel's choice */
    explicit Connection(int nSendBuffer = 0);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    /** Ends the connection as the server does. */
    ~Connection();

    /** The peer sends the bytes, the reactor lets the connection read. @return onRead's result */
    int request(const std::string& strBytes);

    int read();

    /** Let the connection write on, as the reactor does when the socket drains. */
    int writeOn();

    /** The peer reads what is there, at most uMost bytes. */
    std::string receive(size_t uMost = SIZE_MAX);

    /** Write on and receive until nothing more comes. */
    std::string receiveAll();

    void closePeer();

    WebCameraClient& client()
    {
        return *m_pClient;
    }

    /** End the connection, once. */
    void end();

private:
    int endTurn();

    int m_nFd = -1;
    int m_nPeer = -1;
    WebCameraClient* m_pClient;
};

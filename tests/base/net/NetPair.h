// Connected sockets and what the network tests do with them.
#pragma once

#include <string>
#include <vector>

#include "LogCapture.h"
#include "TcpSocket.h"

/** A connected TCP pair on the loopback interface, blocking; closed at the end. */
class NetPair
{
public:
    NetPair();
    NetPair(const NetPair&) = delete;
    NetPair& operator=(const NetPair&) = delete;
    ~NetPair();

    TcpSocket m_near;
    TcpSocket m_far;
};

/** For its life descriptor 0 is free, as in a process started without a standard input. */
class ZeroIsFree
{
public:
    ZeroIsFree();
    ZeroIsFree(const ZeroIsFree&) = delete;
    ZeroIsFree& operator=(const ZeroIsFree&) = delete;
    ~ZeroIsFree();

private:
    int m_nInput; // the standard input meanwhile
};

/** The port that a bound socket has. */
uint16_t portOf(int nFd);

/** A socket connected to a port of this host; blocking. */
TcpSocket connectTo(uint16_t u16Port);

/** Make the send buffer small, so that a larger write is taken in several pieces. */
void shrinkSendBuffer(TcpSocket& sender);

/** Send until the kernel takes no more. @return bytes taken */
size_t fillUp(TcpSocket& sender);

/** Read what is there without waiting. */
std::string readPending(const TcpSocket& socket);

/** Read exactly so many bytes, or fewer when the peer closes or thirty seconds pass. */
std::string readBytes(const TcpSocket& socket, size_t uCount);

/** The peer has closed: nothing more comes, and the end is reported. */
bool sawEnd(const TcpSocket& socket);

/** Nothing comes, not even the end. */
bool isSilent(const TcpSocket& socket);

/** The value of an option that is a number. */
int optionOf(int nFd, int nLevel, int nName);

/** What was logged since the last call, or those of the lines that hold the text. */
std::vector<std::string> takeLines(LogCapture& log, const std::string& strText = "");

/** True when the number names an open descriptor of this process. */
bool isOpen(int nFd);

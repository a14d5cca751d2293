// Lets viewers on the network watch the log live.
#include "LogServer.h"

#include <new>

#include "LogClient.h"

static const int SOCKET_BUFFER = 4096; // bytes, for each direction of a viewer's socket

static const int MOST_VIEWERS = 32; // the newest is refused

LogServer::LogServer() : TcpServer("LogServer", MOST_VIEWERS) {}

LogServer::~LogServer()
{
    endService();
}

LogServer& LogServer::getInstance()
{
    static LogServer s_instance;
    return s_instance;
}

int LogServer::setUp(const char* pIp, int nPort)
{
    const int nRet = init(static_cast<uint16_t>(nPort), pIp, SOCKET_BUFFER, SOCKET_BUFFER);
    return (0 == nRet) ? start() : nRet;
}

TcpClient* LogServer::createClient()
{
    return new (std::nothrow) LogClient; // null: logged by the server
}

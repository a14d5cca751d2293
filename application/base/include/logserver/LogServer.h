// Lets viewers on the network watch the log live.
#pragma once

#include "TcpServer.h"

/**
 * Every connection gets each line that is published after its arrival, as bare bytes.
 *
 * Process-wide. It goes down with the process exit, before the log does: its thread logs, so that
 * the log always exists first.
 */
class LogServer : public TcpServer
{
public:
    static LogServer& getInstance();
    ~LogServer() override;

    /**
     * Listen and start. Main thread.
     * @param pIp    local address, dotted; null for all
     * @param nPort  taken modulo 65536
     * @return 0, or TcpServer::init's failure (logged)
     */
    int setUp(const char* pIp, int nPort);

    TcpClient* createClient() override;

private:
    LogServer();
};

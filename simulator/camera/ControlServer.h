// Takes commands from connections, one line each.
#pragma once

#include <list>
#include <string>
#include <vector>

#include <poll.h>

#include "CameraCommands.h"

/**
 * The socket control.sock: every line is a command, every answer a line. Clients that send more
 * than 4 KB without a line end are closed; one that does not read loses its answers. The main
 * thread only.
 */
class ControlServer
{
public:
    ControlServer(CameraCommands& commands, const std::string& strDir);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    /** @return false when the socket cannot be made (the reason is in errno) */
    bool start();

    /** Add what must be watched; then, after a poll, do what there is to do. */
    void watch(std::vector<pollfd>& vecPoll) const;
    void handle();

private:
    struct Client
    {
        int nFd;
        std::string strPending;
    };
    bool serve(Client& client);

    CameraCommands& m_commands;
    const std::string m_strPath;
    int m_nListener = -1;
    std::list<Client> m_listClient;
};

// Gives commands to a ControlServer.
#pragma once

#include <string>

/** A connection to a virtual device's control socket. Blocks; one thread only. */
class ControlClient
{
public:
    ControlClient() = default;
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;
    ~ControlClient();

    /** @return false with errno set; ENAMETOOLONG for a path of more than 107 bytes */
    bool connect(const std::string& strPath);

    /**
     * Send a command and wait for its answer; neither has a line end.
     * @return false when the connection broke before the answer was whole
     */
    bool ask(const std::string& strCommand, std::string& strAnswer);

private:
    int m_nFd = -1;
};

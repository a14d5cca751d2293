// Takes instructions for the virtual controller, line by line, from any number of clients.
#pragma once

#include <functional>
#include <list>
#include <string>
#include <vector>

#include <poll.h>

/** A listening Unix stream socket. Every line gets one line in return. */
class ControlSocket
{
public:
    using Handler = std::function<std::string(const std::string&)>;

    ControlSocket() = default;
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;
    ~ControlSocket();

    /** Listen at a path, which is replaced when it exists. @return false with errno set */
    bool open(const std::string& strPath);

    /** Append what poll has to watch. */
    void addTo(std::vector<pollfd>& vecPoll) const;

    /** Accept, read and answer whatever is there, without blocking. */
    void serve(const Handler& handler);

private:
    struct Client
    {
        int nFd;
        std::string strPending; // an unfinished line, at most MAX_PENDING bytes
    };

    static bool serveClient(Client& client, const Handler& handler);

    int m_nFd = -1;
    std::string m_strPath;
    std::list<Client> m_lstClient;
};

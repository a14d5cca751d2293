// Takes commands from connections, one line each.
#pragma once

#include <functional>
#include <list>
#include <string>
#include <vector>

#include <poll.h>

/**
 * A listening Unix stream socket: every line is a command and is answered by a line. A client that
 * sends more than 4 KB without a line end, or that does not read its answers, is closed. One thread
 * only.
 */
class ControlServer
{
public:
    /** Carries a command out. @return the answer; neither has a line end */
    using Handler = std::function<std::string(const std::string&)>;

    explicit ControlServer(Handler handler);
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;
    ~ControlServer();

    /** Listen at a path, which is replaced when it exists. @return false with errno set */
    bool start(const std::string& strPath);

    /** Append the descriptors that poll has to watch; none before start(). */
    void watch(std::vector<pollfd>& vecPoll) const;

    /** Accept, read and answer whatever is there, without blocking. */
    void handle();

private:
    struct Client
    {
        int nFd;
        std::string strPending; // an unfinished line
    };
    bool serve(Client& client);

    Handler m_handler;
    std::string m_strPath;
    int m_nListener = -1;
    std::list<Client> m_listClient;
};

// Takes commands from connections, one line each.
#include "ControlServer.h"

#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

#include "LocalSocket.h"

namespace {

const size_t MAX_PENDING = 4096;

} // namespace

ControlServer::ControlServer(Handler handler) : m_handler(std::move(handler)) {}

ControlServer::~ControlServer()
{
    for (const Client& client : m_listClient) {
        ::close(client.nFd);
    }
    if (m_nListener >= 0) {
        ::close(m_nListener);
        ::unlink(m_strPath.c_str());
    }
}

bool ControlServer::start(const std::string& strPath)
{
    m_strPath = strPath;
    m_nListener = listenAt(strPath, SOCK_STREAM);
    return m_nListener >= 0;
}

void ControlServer::watch(std::vector<pollfd>& vecPoll) const
{
    if (m_nListener >= 0) {
        vecPoll.push_back({m_nListener, POLLIN, 0});
    }
    for (const Client& client : m_listClient) {
        vecPoll.push_back({client.nFd, POLLIN, 0});
    }
}

void ControlServer::handle()
{
    for (int nFd = 0; m_nListener >= 0 && nFd >= 0;) {
        nFd = ::accept4(m_nListener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (nFd >= 0) {
            m_listClient.push_back({nFd, {}});
        }
    }
    for (auto it = m_listClient.begin(); it != m_listClient.end();) {
        if (serve(*it)) {
            ++it;
        } else {
            ::close(it->nFd);
            it = m_listClient.erase(it);
        }
    }
}

bool ControlServer::serve(Client& client)
{
    char acBytes[1024];
    for (;;) {
        const ssize_t nRead = ::read(client.nFd, acBytes, sizeof(acBytes));
        if (nRead < 0) {
            return EAGAIN == errno || EINTR == errno;
        }
        if (0 == nRead) {
            return false;
        }
        client.strPending.append(acBytes, static_cast<size_t>(nRead));
        for (size_t uEnd = 0; std::string::npos != (uEnd = client.strPending.find('\n'));) {
            const std::string strAnswer = m_handler(client.strPending.substr(0, uEnd)) + "\n";
            client.strPending.erase(0, uEnd + 1);
            if (::send(client.nFd, strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(strAnswer.size())) {
                return false;
            }
        }
        if (client.strPending.size() > MAX_PENDING) {
            return false;
        }
    }
}

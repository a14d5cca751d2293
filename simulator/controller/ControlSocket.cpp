// Takes instructions for the virtual controller, line by line, from any number of clients.
#include "ControlSocket.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static const size_t MAX_PENDING = 4096;

ControlSocket::~ControlSocket()
{
    for (const Client& client : m_lstClient) {
        close(client.nFd);
    }
    if (m_nFd >= 0) {
        close(m_nFd);
        unlink(m_strPath.c_str());
    }
}

bool ControlSocket::open(const std::string& strPath)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(address.sun_path, strPath.c_str(), strPath.size() + 1);
    m_nFd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_nFd < 0) {
        return false;
    }
    unlink(strPath.c_str());
    m_strPath = strPath;
    return 0 == bind(m_nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) &&
           0 == listen(m_nFd, 8);
}

void ControlSocket::addTo(std::vector<pollfd>& vecPoll) const
{
    if (m_nFd >= 0) {
        vecPoll.push_back({m_nFd, POLLIN, 0});
    }
    for (const Client& client : m_lstClient) {
        vecPoll.push_back({client.nFd, POLLIN, 0});
    }
}

void ControlSocket::serve(const Handler& handler)
{
    if (m_nFd < 0) {
        return;
    }
    for (int nFd = accept4(m_nFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC); nFd >= 0;
         nFd = accept4(m_nFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) {
        m_lstClient.push_back({nFd, {}});
    }
    for (auto it = m_lstClient.begin(); it != m_lstClient.end();) {
        if (serveClient(*it, handler)) {
            ++it;
        } else {
            close(it->nFd);
            it = m_lstClient.erase(it);
        }
    }
}

bool ControlSocket::serveClient(Client& client, const Handler& handler)
{
    std::array<char, 1024> acBuffer{};
    const ssize_t nRead = recv(client.nFd, acBuffer.data(), acBuffer.size(), 0);
    if (nRead < 0 && (EAGAIN == errno || EINTR == errno)) {
        return true;
    }
    if (nRead <= 0) {
        return false;
    }
    client.strPending.append(acBuffer.data(), static_cast<size_t>(nRead));
    for (size_t nEnd = client.strPending.find('\n'); std::string::npos != nEnd;
         nEnd = client.strPending.find('\n')) {
        const std::string strAnswer = handler(client.strPending.substr(0, nEnd)) + "\n";
        client.strPending.erase(0, nEnd + 1);
        // A client that does not read its one-line answers is dropped.
        if (send(client.nFd, strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(strAnswer.size())) {
            return false;
        }
    }
    return client.strPending.size() <= MAX_PENDING;
}

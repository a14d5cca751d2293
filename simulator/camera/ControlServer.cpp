// Takes commands from connections, one line each.
#include "ControlServer.h"

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

#include "LocalSocket.h"

namespace {

const size_t MAX_LINE = 4096;

} // namespace

ControlServer::ControlServer(CameraCommands& commands, const std::string& strDir)
    : m_commands(commands), m_strPath(strDir + "/control.sock")
{
}

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

bool ControlServer::start()
{
    m_nListener = listenAt(m_strPath, SOCK_STREAM);
    return m_nListener >= 0;
}

void ControlServer::watch(std::vector<pollfd>& vecPoll) const
{
    vecPoll.push_back({m_nListener, POLLIN, 0});
    for (const Client& client : m_listClient) {
        vecPoll.push_back({client.nFd, POLLIN, 0});
    }
}

void ControlServer::handle()
{
    for (;;) {
        const int nFd = ::accept4(m_nListener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (nFd < 0) {
            break;
        }
        m_listClient.push_back({nFd, ""});
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
        for (size_t nEnd = 0; std::string::npos != (nEnd = client.strPending.find('\n'));) {
            const std::string strAnswer = m_commands.run(client.strPending.substr(0, nEnd)) + "\n";
            client.strPending.erase(0, nEnd + 1);
            (void)::send(client.nFd, strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL);
        }
        if (client.strPending.size() > MAX_LINE) {
            return false;
        }
    }
}

// A connection to the guard's operator socket: lines of JSON out and in.
#include "GuardConnection.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "DescriptorMessage.h"
#include "Time.h"

GuardConnection::~GuardConnection()
{
    close();
}

void GuardConnection::close()
{
    if (m_nFd >= 0) {
        ::close(std::exchange(m_nFd, -1));
    }
    m_strInput.clear();
}

bool GuardConnection::isAlive() const
{
    char c = 0;
    const ssize_t nRead = recv(m_nFd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return nRead > 0 || (nRead < 0 && (EAGAIN == errno || EINTR == errno));
}

bool GuardConnection::open(const std::string& strPath)
{
    if (m_nFd >= 0 && isAlive()) {
        return true;
    }
    close();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strPath.empty() || strPath.size() >= sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, strPath.c_str(), strPath.size());
    m_nFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_nFd >= 0 && 0 != connect(m_nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address))) {
        close(); // EAGAIN too: as many as may wait there wait
    }
    return m_nFd >= 0;
}

bool GuardConnection::send(const std::string& strLine, int nPassed)
{
    const std::string strText = strLine + "\n";
    // A line fits the socket's buffer, unless the guard does not read.
    if (m_nFd < 0 || static_cast<ssize_t>(strText.size()) !=
                         sendWithDescriptor(m_nFd, strText.data(), strText.size(), nPassed,
                                            MSG_NOSIGNAL | MSG_DONTWAIT)) {
        close();
        return false;
    }
    return true;
}

GuardConnection::NEXT_E GuardConnection::next(std::string& strLine, uint64_t u64EndMs)
{
    for (;;) {
        if (const size_t uEnd = m_strInput.find('\n'); std::string::npos != uEnd) {
            strLine = m_strInput.substr(0, uEnd);
            m_strInput.erase(0, uEnd + 1);
            return NEXT_LINE;
        }
        if (m_nFd < 0) {
            return NEXT_GONE;
        }
        const uint64_t u64NowMs = monotonicMs();
        pollfd each = {m_nFd, POLLIN, 0};
        const int nReady =
            poll(&each, 1, (u64NowMs < u64EndMs) ? static_cast<int>(u64EndMs - u64NowMs) : 0);
        if (0 == nReady) {
            return NEXT_LATE;
        }
        std::array<char, 4096> acData{};
        const ssize_t nRead = recv(m_nFd, acData.data(), acData.size(), MSG_DONTWAIT);
        if (0 == nRead || (nRead < 0 && EAGAIN != errno && EINTR != errno)) {
            close();
            return NEXT_GONE;
        }
        m_strInput.append(acData.data(), (nRead > 0) ? static_cast<size_t>(nRead) : 0);
    }
}

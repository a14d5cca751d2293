// The socket on which the operator's programs talk to the guard: lines in, lines out.
#include "OperatorSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "GroupName.h"

OperatorSocket::~OperatorSocket()
{
    for (Client& client : m_listClient) {
        close(client);
    }
    if (m_nFd >= 0) {
        ::close(m_nFd);
        unlink(m_strPath.c_str());
    }
}

/** Whether somebody listens there: a guard whose port is not plugged in holds no lock on it. */
bool OperatorSocket::isTaken(const std::string& strPath)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, strPath.c_str(), strPath.size());
    const int nFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool bTaken =
        nFd >= 0 && (0 == connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) ||
                     EAGAIN == errno); // as many as may wait there wait
    if (nFd >= 0) {
        ::close(nFd);
    }
    return bTaken;
}

SOCKET_E OperatorSocket::open(const std::string& strPath, const std::string& strGroup,
                              std::string& strError)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof(address.sun_path)) {
        strError = "the socket's path is too long: " + strPath;
        return SOCKET_REFUSED;
    }
    memcpy(address.sun_path, strPath.c_str(), strPath.size());
    gid_t uGroup = 0;
    if (const GROUP_E eGroup = findGroup(strGroup, uGroup, strError); GROUP_FOUND != eGroup) {
        return (GROUP_UNKNOWN == eGroup) ? SOCKET_REFUSED : SOCKET_FAILED;
    }
    if (isTaken(strPath)) {
        strError = "another guard has " + strPath;
        return SOCKET_REFUSED;
    }
    const int nFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    unlink(strPath.c_str());
    const mode_t uMask = umask(0177); // nobody else's between bind and chmod
    const bool bBound =
        nFd >= 0 && 0 == bind(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    umask(uMask);
    if (!bBound || 0 != chown(strPath.c_str(), static_cast<uid_t>(-1), uGroup) ||
        0 != chmod(strPath.c_str(), 0660) || 0 != listen(nFd, MAX_CLIENTS)) {
        strError = strPath + ": " + strerror(errno);
        if (nFd >= 0) {
            ::close(nFd);
        }
        return SOCKET_FAILED;
    }
    m_strPath = strPath;
    m_nFd = nFd;
    return SOCKET_OPEN;
}

void OperatorSocket::addTo(std::vector<pollfd>& vecPoll) const
{
    if (m_nFd >= 0) {
        vecPoll.push_back({m_nFd, POLLIN, 0});
    }
    for (const Client& client : m_listClient) {
        vecPoll.push_back({client.nFd, static_cast<short>(client.bWaiting ? 0 : POLLIN), 0});
    }
}

void OperatorSocket::serve(const std::vector<pollfd>& vecPoll)
{
    const auto isReady = [&vecPoll](int nFd) {
        return std::any_of(vecPoll.begin(), vecPoll.end(), [nFd](const pollfd& each) {
            return each.fd == nFd && 0 != each.revents;
        });
    };
    for (auto it = m_listClient.begin(); it != m_listClient.end();) {
        if (it->nFd >= 0 && isReady(it->nFd) && !receive(*it)) {
            close(*it);
        }
        it = (it->nFd < 0) ? m_listClient.erase(it) : std::next(it);
    }
    if (isReady(m_nFd)) {
        accept();
    }
}

void OperatorSocket::accept()
{
    const int nFd = accept4(m_nFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (nFd < 0) {
        return;
    }
    ucred user{};
    socklen_t uSize = sizeof(user);
    if (m_listClient.size() >= MAX_CLIENTS ||
        0 != getsockopt(nFd, SOL_SOCKET, SO_PEERCRED, &user, &uSize)) {
        ::close(nFd);
        return;
    }
    m_listClient.emplace_back();
    m_listClient.back().nFd = nFd;
    m_listClient.back().uNumber = ++m_uNumber;
    m_listClient.back().uUser = user.uid;
}

/**
 * Keeps the first of the descriptors that came with a message. The kernel puts all of them, as many
 * as fit, into one header.
 */
void OperatorSocket::takePassed(Client& client, const msghdr& message)
{
    const cmsghdr* const pHeader = CMSG_FIRSTHDR(&message);
    if (nullptr == pHeader || SOL_SOCKET != pHeader->cmsg_level ||
        SCM_RIGHTS != pHeader->cmsg_type) {
        return;
    }
    for (size_t u = 0; CMSG_LEN((u + 1) * sizeof(int)) <= pHeader->cmsg_len; ++u) {
        int nFd = -1;
        memcpy(&nFd, CMSG_DATA(pHeader) + u * sizeof(int), sizeof(int));
        if (0 == u) {
            std::swap(nFd, client.nPassed);
        }
        if (nFd >= 0) {
            ::close(nFd);
        }
    }
}

/** @return false when the connection has to go */
bool OperatorSocket::receive(Client& client)
{
    std::array<char, MAX_LINE> acData{};
    // Room for two: a second descriptor has to be seen to be closed.
    alignas(cmsghdr) std::array<char, CMSG_SPACE(2 * sizeof(int))> acControl{};
    iovec data{acData.data(), acData.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = acControl.data();
    message.msg_controllen = acControl.size();
    const ssize_t nRead = recvmsg(client.nFd, &message, MSG_CMSG_CLOEXEC);
    if (nRead <= 0) {
        return nRead < 0 && (EAGAIN == errno || EINTR == errno);
    }
    takePassed(client, message);
    client.strInput.append(acData.data(), static_cast<size_t>(nRead));
    return handleLines(client);
}

/** @return false when the connection has to go */
bool OperatorSocket::handleLines(Client& client)
{
    size_t uStart = 0;
    for (size_t uEnd = client.strInput.find('\n');
         std::string::npos != uEnd && !client.bWaiting && client.nFd >= 0;
         uEnd = client.strInput.find('\n', uStart)) {
        const std::string strLine = client.strInput.substr(uStart, uEnd - uStart);
        uStart = uEnd + 1;
        if (strLine.size() > MAX_LINE) {
            return false;
        }
        const std::string strAnswer = m_handler(client, strLine);
        client.bWaiting = strAnswer.empty();
        if (!client.bWaiting && !send(client, strAnswer)) {
            return false;
        }
    }
    client.strInput.erase(0, uStart);
    return client.nFd >= 0 && (client.bWaiting || client.strInput.size() <= MAX_LINE);
}

bool OperatorSocket::isConnected(unsigned uNumber) const
{
    return std::any_of(m_listClient.begin(), m_listClient.end(), [uNumber](const Client& client) {
        return client.uNumber == uNumber && client.nFd >= 0;
    });
}

void OperatorSocket::answer(unsigned uNumber, const std::string& strLine)
{
    for (Client& client : m_listClient) {
        if (client.uNumber == uNumber && client.bWaiting && client.nFd >= 0) {
            client.bWaiting = false;
            if (!send(client, strLine) || !handleLines(client)) {
                close(client); // forgotten by the next serve()
            }
        }
    }
}

void OperatorSocket::publish(const char* pLine)
{
    for (Client& client : m_listClient) {
        if (client.bEvents && client.nFd >= 0 && !send(client, pLine, strlen(pLine))) {
            close(client); // forgotten by the next serve()
        }
    }
}

/** A line that the connection does not take at once and whole ends it: nothing is kept here. */
bool OperatorSocket::send(const Client& client, const char* pText, size_t uLength)
{
    return client.nFd >= 0 && static_cast<ssize_t>(uLength) ==
                                  ::send(client.nFd, pText, uLength, MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool OperatorSocket::send(const Client& client, const std::string& strLine)
{
    const std::string strText = strLine + "\n";
    return send(client, strText.data(), strText.size());
}

void OperatorSocket::close(Client& client)
{
    if (client.nPassed >= 0) {
        ::close(std::exchange(client.nPassed, -1));
    }
    if (client.nFd >= 0) {
        ::close(std::exchange(client.nFd, -1));
    }
}

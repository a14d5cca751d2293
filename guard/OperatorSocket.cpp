// The socket on which the operator's programs talk to the guard: lines in, lines out.
#include "OperatorSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

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

bool OperatorSocket::open(const std::string& strPath, const std::string& strGroup,
                          std::string& strError)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof(address.sun_path)) {
        strError = "the socket's path is too long: " + strPath;
        return false;
    }
    memcpy(address.sun_path, strPath.c_str(), strPath.size());
    gid_t uGroup = static_cast<gid_t>(-1);
    if (!strGroup.empty()) {
        const group* const pGroup = getgrnam(strGroup.c_str());
        if (nullptr == pGroup) {
            strError = "no such group: " + strGroup;
            return false;
        }
        uGroup = pGroup->gr_gid;
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
        return false;
    }
    m_strPath = strPath;
    m_nFd = nFd;
    return true;
}

void OperatorSocket::addTo(std::vector<pollfd>& vecPoll) const
{
    if (m_nFd >= 0) {
        vecPoll.push_back({m_nFd, POLLIN, 0});
    }
    for (const Client& client : m_listClient) {
        vecPoll.push_back({client.nFd, POLLIN, 0});
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

/** @return false when the connection has to go */
bool OperatorSocket::receive(Client& client)
{
    std::array<char, MAX_LINE> acData{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> acControl{};
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
    const cmsghdr* const pHeader = CMSG_FIRSTHDR(&message);
    if (nullptr != pHeader && SOL_SOCKET == pHeader->cmsg_level &&
        SCM_RIGHTS == pHeader->cmsg_type && CMSG_LEN(sizeof(int)) == pHeader->cmsg_len) {
        if (client.nPassed >= 0) {
            ::close(client.nPassed);
        }
        memcpy(&client.nPassed, CMSG_DATA(pHeader), sizeof(int));
    }
    client.strInput.append(acData.data(), static_cast<size_t>(nRead));
    for (size_t uEnd = client.strInput.find('\n'); std::string::npos != uEnd;
         uEnd = client.strInput.find('\n')) {
        const std::string strLine = client.strInput.substr(0, uEnd);
        client.strInput.erase(0, uEnd + 1);
        if (strLine.size() > MAX_LINE || !send(client, m_handler(client, strLine))) {
            return false;
        }
    }
    return client.strInput.size() <= MAX_LINE;
}

void OperatorSocket::publish(const std::string& strLine)
{
    for (Client& client : m_listClient) {
        if (client.bEvents && client.nFd >= 0 && !send(client, strLine)) {
            close(client); // forgotten by the next serve()
        }
    }
}

bool OperatorSocket::send(const Client& client, const std::string& strLine)
{
    if (client.nFd < 0) {
        return false;
    }
    const std::string strText = strLine + "\n";
    return static_cast<ssize_t>(strText.size()) ==
           ::send(client.nFd, strText.data(), strText.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
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

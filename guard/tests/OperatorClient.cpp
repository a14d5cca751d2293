// The operator's end of the guard's socket, for tests.
#include "OperatorClient.h"

#include <array>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Eventually.h"

static const int DEADLINE_MS = 30000;

OperatorClient::OperatorClient(const std::string& strPath)
    : m_nFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, strPath.c_str(), strPath.size());
    (void)eventually([&] {
        return 0 == connect(m_nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    });
}

OperatorClient::~OperatorClient()
{
    close(m_nFd);
}

std::string OperatorClient::ask(const std::string& strLine, int nPassed)
{
    std::string strText = strLine + "\n";
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> acControl{};
    iovec data{strText.data(), strText.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (nPassed >= 0) {
        message.msg_control = acControl.data();
        message.msg_controllen = acControl.size();
        cmsghdr* const pHeader = CMSG_FIRSTHDR(&message);
        pHeader->cmsg_level = SOL_SOCKET;
        pHeader->cmsg_type = SCM_RIGHTS;
        pHeader->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(pHeader), &nPassed, sizeof(int));
    }
    if (sendmsg(m_nFd, &message, MSG_NOSIGNAL) < 0) {
        return "";
    }
    return readLine();
}

std::string OperatorClient::readLine()
{
    size_t uEnd = 0;
    while (std::string::npos == (uEnd = m_strInput.find('\n'))) {
        pollfd entry{m_nFd, POLLIN, 0};
        std::array<char, 4096> acData{};
        if (1 != poll(&entry, 1, DEADLINE_MS)) {
            return "";
        }
        const ssize_t nRead = read(m_nFd, acData.data(), acData.size());
        if (nRead <= 0) {
            return "";
        }
        m_strInput.append(acData.data(), static_cast<size_t>(nRead));
    }
    const std::string strLine = m_strInput.substr(0, uEnd);
    m_strInput.erase(0, uEnd + 1);
    return strLine;
}

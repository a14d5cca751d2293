// The operator's end of the guard's socket, for tests.
#include "OperatorClient.h"

#include <array>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "DescriptorMessage.h"
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
    const std::string strText = strLine + "\n";
    if (sendWithDescriptor(m_nFd, strText.data(), strText.size(), nPassed, MSG_NOSIGNAL) < 0) {
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

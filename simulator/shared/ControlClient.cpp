// Gives commands to a ControlServer.
#include "ControlClient.h"

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

#include "LocalSocket.h"

ControlClient::~ControlClient()
{
    if (m_nFd >= 0) {
        ::close(m_nFd);
    }
}

bool ControlClient::connect(const std::string& strPath)
{
    m_nFd = connectTo(strPath, SOCK_STREAM);
    return m_nFd >= 0;
}

bool ControlClient::ask(const std::string& strCommand, std::string& strAnswer)
{
    const std::string strLine = strCommand + "\n";
    for (size_t uSent = 0; uSent < strLine.size();) {
        const ssize_t nDone =
            ::send(m_nFd, strLine.data() + uSent, strLine.size() - uSent, MSG_NOSIGNAL);
        if (nDone < 0 && EINTR == errno) {
            continue;
        }
        if (nDone < 0) {
            return false;
        }
        uSent += static_cast<size_t>(nDone);
    }
    strAnswer.clear();
    for (char c = 0;;) {
        const ssize_t nDone = ::recv(m_nFd, &c, 1, 0);
        if (nDone < 0 && EINTR == errno) {
            continue;
        }
        if (nDone <= 0) {
            return false;
        }
        if ('\n' == c) {
            return true;
        }
        strAnswer += c;
    }
}

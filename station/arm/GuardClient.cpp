// Asks the guard itself, past the station.
#include "GuardClient.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "Descriptor.h"

static const size_t MAX_ANSWER = 4096; // a line of the guard's is shorter

namespace {

class Connection
{
public:
    bool connect(const std::string& strPath) const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (strPath.size() >= sizeof(address.sun_path)) {
            errno = ENAMETOOLONG;
            return false;
        }
        memcpy(address.sun_path, strPath.c_str(), strPath.size());
        return m_socket.get() >= 0 &&
               0 == ::connect(m_socket.get(), reinterpret_cast<sockaddr*>(&address),
                              sizeof(address));
    }

    bool send(const std::string& strLine) const
    {
        return ::send(m_socket.get(), strLine.data(), strLine.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(strLine.size()); // the socket is empty: it takes all of it
    }

    /** @return false behind the deadline, at the stream's end and for an endless line */
    bool receiveLine(std::chrono::steady_clock::time_point deadline, std::string& strLine) const
    {
        while (std::string::npos == strLine.find('\n') && strLine.size() < MAX_ANSWER) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd entry{m_socket.get(), POLLIN, 0};
            const int nReady =
                ::poll(&entry, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
            if (0 == nReady) {
                errno = ETIMEDOUT;
                return false;
            }
            std::array<char, MAX_ANSWER> acBuffer{};
            const ssize_t nRead = ::recv(m_socket.get(), acBuffer.data(), acBuffer.size(), 0);
            if (nRead > 0) {
                strLine.append(acBuffer.data(), static_cast<size_t>(nRead));
            } else if (0 == nRead) {
                errno = ECONNRESET;
                return false;
            } else if (EINTR != errno && EAGAIN != errno) {
                return false;
            }
        }
        return true;
    }

private:
    Descriptor m_socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
};

} // namespace

bool GuardClient::ask(const nlohmann::json& request, int nTimeoutMs, nlohmann::json& answer,
                      std::string& strError) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
    const Connection connection;
    std::string strLine;
    if (!connection.connect(m_strSocket) || !connection.send(request.dump() + "\n") ||
        !connection.receiveLine(deadline, strLine)) {
        strError = m_strSocket + ": " + strerror(errno);
        return false;
    }
    answer = nlohmann::json::parse(strLine, nullptr, false);
    if (!answer.is_object()) {
        strError = m_strSocket + ": no JSON";
        return false;
    }
    return true;
}

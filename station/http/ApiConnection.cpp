// A connection to the operator's interface: collects a request, then is the stream that is
// answered.
#include "ApiConnection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Time.h"

static const uint64_t SEND_MS = 5000; // without the peer taking anything

namespace {

std::string trim(const std::string& strText)
{
    const size_t uBegin = strText.find_first_not_of(" \t");
    const size_t uEnd = strText.find_last_not_of(" \t");
    return (std::string::npos == uBegin) ? "" : strText.substr(uBegin, uEnd - uBegin + 1);
}

/** What of a head matters before it is served. */
struct Head
{
    std::string strLine;
    size_t uLengths = 0;
    std::string strLength;
    std::string strType;
    bool bCoded = false;
};

Head takeHead(const std::string& strText)
{
    Head head;
    size_t uEnd = strText.find("\r\n");
    head.strLine = strText.substr(0, uEnd);
    for (size_t uStart = uEnd + 2; uStart < strText.size(); uStart = uEnd + 2) {
        uEnd = std::min(strText.find("\r\n", uStart), strText.size());
        const size_t uColon = strText.find(':', uStart);
        if (uColon >= uEnd) {
            continue;
        }
        const std::string strName = strText.substr(uStart, uColon - uStart);
        const std::string strValue = trim(strText.substr(uColon + 1, uEnd - uColon - 1));
        if (0 == strcasecmp(strName.c_str(), "Content-Length")) {
            ++head.uLengths;
            head.strLength = strValue;
        } else if (0 == strcasecmp(strName.c_str(), "Content-Type")) {
            head.strType = strValue;
        } else if (0 == strcasecmp(strName.c_str(), "Transfer-Encoding")) {
            head.bCoded = true;
        }
    }
    return head;
}

/** "POST /off HTTP/1.1", with a query or without. */
bool asksFor(const std::string& strLine, const std::string& strWhat)
{
    return 0 == strLine.compare(0, strWhat.size(), strWhat) && strLine.size() > strWhat.size() &&
           (' ' == strLine[strWhat.size()] || '?' == strLine[strWhat.size()]);
}

void tell(const sockaddr_storage& address, std::string& strAddress, int& nPort)
{
    std::array<char, INET6_ADDRSTRLEN> acText{};
    const void* pAddress = nullptr;
    if (AF_INET6 == address.ss_family) {
        const auto& in = reinterpret_cast<const sockaddr_in6&>(address);
        pAddress = &in.sin6_addr;
        nPort = ntohs(in.sin6_port);
    } else {
        const auto& in = reinterpret_cast<const sockaddr_in&>(address);
        pAddress = &in.sin_addr;
        nPort = ntohs(in.sin_port);
    }
    const char* const pText = inet_ntop(address.ss_family, pAddress, acText.data(),
                                        static_cast<socklen_t>(acText.size()));
    strAddress = (nullptr == pText) ? "" : pText;
}

} // namespace

ApiConnection::ApiConnection(int nFd) : m_nFd(nFd) {}

ApiConnection::~ApiConnection()
{
    ::close(m_nFd);
}

REQUEST_E ApiConnection::wrong(const char* pProblem)
{
    m_pProblem = pProblem;
    return REQUEST_WRONG;
}

REQUEST_E ApiConnection::receive()
{
    std::array<char, 4096> acData{};
    while (m_strInput.size() < MAX_HEAD + MAX_BODY) {
        const ssize_t nRead = ::recv(m_nFd, acData.data(), acData.size(), MSG_DONTWAIT);
        if (0 == nRead) {
            return REQUEST_GONE;
        }
        if (nRead < 0) {
            if (EINTR == errno) {
                continue;
            }
            return (EAGAIN == errno) ? classify() : REQUEST_GONE;
        }
        m_strInput.append(acData.data(), static_cast<size_t>(nRead));
        if (const REQUEST_E eRequest = classify(); REQUEST_PART != eRequest) {
            return eRequest; // what comes behind it waits in the kernel
        }
    }
    return classify();
}

REQUEST_E ApiConnection::classify()
{
    if (0 == m_uHead) {
        const size_t uEnd = m_strInput.find("\r\n\r\n");
        if (std::string::npos == uEnd || uEnd + 4 > MAX_HEAD) {
            return (m_strInput.size() < MAX_HEAD) ? REQUEST_PART : wrong("too-large");
        }
        m_uHead = uEnd + 4;
    }
    const Head head = takeHead(m_strInput.substr(0, m_uHead));
    const bool bDigits = std::all_of(head.strLength.begin(), head.strLength.end(),
                                     [](char c) { return c >= '0' && c <= '9'; }) &&
                         head.strLength.size() <= 18; // fits any file's size
    const bool bPost = 0 == head.strLine.compare(0, 5, "POST ");
    if (head.bCoded || head.uLengths > 1 || !bDigits || (bPost && head.strLength.empty())) {
        return wrong("length");
    }
    m_u64Body = head.strLength.empty() ? 0 : std::stoull(head.strLength);
    if (bPost && 0 == strcasecmp(head.strType.c_str(), "application/octet-stream")) {
        return (m_u64Body <= MAX_FILE) ? REQUEST_UPLOAD : wrong("too-large");
    }
    if (m_u64Body > MAX_BODY) {
        return wrong("too-large");
    }
    if (m_strInput.size() < m_uHead + m_u64Body) {
        return REQUEST_PART;
    }
    return asksFor(head.strLine, "POST /off")     ? REQUEST_OFF
           : asksFor(head.strLine, "GET /events") ? REQUEST_WATCH
                                                  : REQUEST_PLAIN;
}

void ApiConnection::begin(uint64_t u64EndMs)
{
    m_u64Read = 0;
    m_u64EndMs = u64EndMs;
}

bool ApiConnection::end()
{
    const uint64_t u64All = m_uHead + m_u64Body;
    const uint64_t u64Seen =
        std::max<uint64_t>(m_u64Read, std::min<uint64_t>(m_strInput.size(), u64All));
    m_strInput.erase(0, static_cast<size_t>(std::min<uint64_t>(m_strInput.size(), u64All)));
    m_uHead = 0;
    m_u64Body = 0;
    return u64Seen >= u64All;
}

bool ApiConnection::waitFor(short sEvents, uint64_t u64EndMs) const
{
    for (;;) {
        const uint64_t u64NowMs = monotonicMs();
        pollfd each = {m_nFd, sEvents, 0};
        const int nReady =
            poll(&each, 1, (u64NowMs < u64EndMs) ? static_cast<int>(u64EndMs - u64NowMs) : 0);
        if (nReady >= 0 || EINTR != errno) {
            return nReady > 0;
        }
    }
}

bool ApiConnection::is_readable() const
{
    return m_u64Read < m_uHead + m_u64Body;
}

bool ApiConnection::is_writable() const
{
    char c = 0;
    const ssize_t nRead = ::recv(m_nFd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return 0 != nRead && (nRead > 0 || EAGAIN == errno || EINTR == errno);
}

/** No byte behind the request's end: it belongs to the next. */
ssize_t ApiConnection::read(char* pBuffer, size_t uSize)
{
    const uint64_t u64All = m_uHead + m_u64Body;
    const auto uWanted = static_cast<size_t>(std::min<uint64_t>(uSize, u64All - m_u64Read));
    if (0 == uWanted) {
        return 0;
    }
    if (m_u64Read < m_strInput.size()) {
        const size_t uTaken =
            std::min<size_t>(uWanted, m_strInput.size() - static_cast<size_t>(m_u64Read));
        memcpy(pBuffer, m_strInput.data() + m_u64Read, uTaken);
        m_u64Read += uTaken;
        return static_cast<ssize_t>(uTaken);
    }
    ssize_t nRead = -1;
    do {
        if (!waitFor(POLLIN, m_u64EndMs)) {
            return -1;
        }
        nRead = ::recv(m_nFd, pBuffer, uWanted, MSG_DONTWAIT);
    } while (nRead < 0 && (EAGAIN == errno || EINTR == errno));
    if (nRead > 0) {
        m_u64Read += static_cast<uint64_t>(nRead);
    }
    return nRead;
}

bool ApiConnection::sendAll(const char* pText, size_t uLength)
{
    size_t uSent = 0;
    while (uSent < uLength) {
        const ssize_t nSent =
            ::send(m_nFd, pText + uSent, uLength - uSent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (nSent > 0) {
            uSent += static_cast<size_t>(nSent);
        } else if (nSent < 0 && EAGAIN == errno) {
            if (!waitFor(POLLOUT, monotonicMs() + SEND_MS)) {
                return false;
            }
        } else if (nSent < 0 && EINTR != errno) {
            return false;
        }
    }
    return true;
}

ssize_t ApiConnection::write(const char* pText, size_t uLength)
{
    return sendAll(pText, uLength) ? static_cast<ssize_t>(uLength) : -1;
}

void ApiConnection::get_remote_ip_and_port(std::string& strAddress, int& nPort) const
{
    sockaddr_storage address{};
    socklen_t uSize = sizeof(address);
    if (0 == getpeername(m_nFd, reinterpret_cast<sockaddr*>(&address), &uSize)) {
        tell(address, strAddress, nPort);
    }
}

void ApiConnection::get_local_ip_and_port(std::string& strAddress, int& nPort) const
{
    sockaddr_storage address{};
    socklen_t uSize = sizeof(address);
    if (0 == getsockname(m_nFd, reinterpret_cast<sockaddr*>(&address), &uSize)) {
        tell(address, strAddress, nPort);
    }
}

socket_t ApiConnection::socket() const
{
    return m_nFd;
}

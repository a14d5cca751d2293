// One client of "/live" in the load generator: takes the stream off its socket and checks it.
#include "LoadClient.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const char* const REQUEST = "GET /live HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
const char* const BOUNDARY = "\r\n--boundarydonotcross\r\n";
const char* const HEADER = "Content-Type: image/jpeg\r\n"
                           "Content-Length: ########\r\n"
                           "X-Timestamp: ################.################\r\n\r\n";
const size_t HEADER_SIZE = strlen(HEADER);
const size_t BOUNDARY_SIZE = strlen(BOUNDARY);

int64_t monotonicMicroseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

} // namespace

LoadClient::LoadClient(uint32_t u32Number, std::vector<Part>& vecPart)
    : m_u32Number(u32Number), m_vecPart(vecPart)
{
}

LoadClient::~LoadClient()
{
    if (m_nSocket >= 0) {
        ::close(m_nSocket);
    }
}

bool LoadClient::complain(const char* pWhat) const
{
    fprintf(stderr, "client %u: %s\n", m_u32Number, pWhat);
    return false;
}

bool LoadClient::start(const char* pAddress, uint16_t u16Port)
{
    m_nSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(u16Port);
    address.sin_addr.s_addr = inet_addr(pAddress);
    const auto nRequest = static_cast<ssize_t>(strlen(REQUEST));
    if (0 != ::connect(m_nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) ||
        nRequest != ::send(m_nSocket, REQUEST, strlen(REQUEST), MSG_NOSIGNAL)) {
        return complain(strerror(errno));
    }
    std::string strAnswer;
    const std::string strEnd = "\r\n\r\n";
    while (strAnswer.size() < strEnd.size() ||
           0 != strAnswer.compare(strAnswer.size() - strEnd.size(), strEnd.size(), strEnd)) {
        char cByte = 0; // nothing of the first part may be taken along
        if (1 != ::recv(m_nSocket, &cByte, 1, 0) || strAnswer.size() > 1024) {
            return complain("no answer");
        }
        strAnswer += cByte;
    }
    m_u64Taken = strAnswer.size();
    return 0 == strAnswer.find("HTTP/1.0 200 OK\r\n") || complain("not answered with 200");
}

bool LoadClient::take(size_t uMost)
{
    while (uMost > 0) {
        const size_t uWhole = STATE_HEADER == m_eState ? HEADER_SIZE : BOUNDARY_SIZE;
        const bool bPicture = STATE_PICTURE == m_eState;
        const size_t uWanted = std::min(uMost, bPicture ? m_uLeft : uWhole - m_strText.size());
        char acText[128];
        const ssize_t nRead =
            ::recv(m_nSocket, acText, uWanted, MSG_DONTWAIT | (bPicture ? MSG_TRUNC : 0));
        if (nRead < 0 && (EAGAIN == errno || EINTR == errno)) {
            return true;
        }
        if (nRead <= 0) {
            return complain(0 == nRead ? "closed by the service" : strerror(errno));
        }
        const auto nDone = static_cast<size_t>(nRead);
        if (0 == m_strText.size() && STATE_HEADER == m_eState) {
            m_part.u64Begin = m_u64Taken;
        }
        m_u64Taken += nDone;
        uMost -= nDone;
        if (bPicture) {
            m_uLeft -= nDone;
            m_eState = 0 == m_uLeft ? STATE_BOUNDARY : STATE_PICTURE;
        } else {
            m_strText.append(acText, nDone);
            if (m_strText.size() == uWhole && !finishText()) {
                return false;
            }
        }
        if (nDone < uWanted) {
            return true; // nothing more is there: spares the call that would say so
        }
    }
    return true;
}

bool LoadClient::finishText()
{
    if (STATE_HEADER == m_eState) {
        if (!parseHeader()) {
            return complain(("not a part header: " + m_strText).c_str());
        }
        m_uLeft = m_part.u32Size;
        m_eState = STATE_PICTURE;
    } else {
        if (BOUNDARY != m_strText) {
            return complain(("not a boundary: " + m_strText).c_str());
        }
        m_part.u32Client = m_u32Number;
        m_part.s64Done = monotonicMicroseconds();
        m_part.u64End = m_u64Taken;
        m_vecPart.push_back(m_part);
        ++m_u32Parts;
        m_eState = STATE_HEADER;
    }
    m_strText.clear();
    return true;
}

bool LoadClient::parseHeader()
{
    for (size_t i = 0; i < HEADER_SIZE; ++i) {
        const char cByte = m_strText[i];
        const bool bNumber = ' ' == cByte || (cByte >= '0' && cByte <= '9');
        if ('#' == HEADER[i] ? !bNumber : HEADER[i] != cByte) {
            return false;
        }
    }
    int nSize = 0;
    long long nSeconds = 0;
    long long nMicroseconds = 0;
    if (3 != sscanf(m_strText.c_str(), "%*s %*s %*s %d %*s %lld.%lld", &nSize, &nSeconds,
                    &nMicroseconds) ||
        nSize <= 0) {
        return false;
    }
    m_part.u32Size = static_cast<uint32_t>(nSize);
    m_part.s64Stamp = static_cast<int64_t>(nSeconds) * 1000000 + nMicroseconds;
    return true;
}

int LoadClient::descriptor() const
{
    return m_nSocket;
}

uint16_t LoadClient::localPort() const
{
    sockaddr_in address{};
    socklen_t uLength = sizeof(address);
    (void)::getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&address), &uLength);
    return ntohs(address.sin_port);
}

uint64_t LoadClient::taken() const
{
    return m_u64Taken;
}

uint32_t LoadClient::parts() const
{
    return m_u32Parts;
}

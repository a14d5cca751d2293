// static-floor: the least that a request for a file can cost, beside which the service is measured.
//
// usage: static-floor PORT FOLDER [commands]
//
// One connection at a time: accept, set the service's socket options, read the request, open the
// file, read it whole, send header and content, wait until the client closes. With "commands" it
// also runs, at each accept, the two shell commands that the service runs there, by the same call.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Command.h"

namespace {

const int SOCKET_BUFFER = 35840;

void check(bool bGood, const char* pWhat)
{
    if (!bGood) {
        perror(pWhat);
        exit(1);
    }
}

void setOption(int nSocket, int nLevel, int nName, int nValue)
{
    check(0 == ::setsockopt(nSocket, nLevel, nName, &nValue, sizeof(nValue)), "socket option");
}

void tune(int nSocket, bool bCommands)
{
    char acLimits[65];
    setOption(nSocket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(nSocket, IPPROTO_TCP, TCP_KEEPIDLE, 5);
    setOption(nSocket, IPPROTO_TCP, TCP_KEEPINTVL, 1);
    setOption(nSocket, IPPROTO_TCP, TCP_KEEPCNT, 2);
    if (bCommands) {
        check(captureCommand("cat /proc/sys/net/ipv4/tcp_rmem", acLimits, sizeof(acLimits)), "cat");
    }
    setOption(nSocket, SOL_SOCKET, SO_RCVBUF, SOCKET_BUFFER);
    if (bCommands) {
        check(captureCommand("cat /proc/sys/net/ipv4/tcp_wmem", acLimits, sizeof(acLimits)), "cat");
    }
    setOption(nSocket, SOL_SOCKET, SO_SNDBUF, SOCKET_BUFFER);
}

void sendAll(int nSocket, const char* pBytes, size_t uBytes)
{
    while (uBytes > 0) {
        const ssize_t nSent = ::send(nSocket, pBytes, uBytes, MSG_NOSIGNAL);
        check(nSent > 0, "send");
        pBytes += nSent;
        uBytes -= static_cast<size_t>(nSent);
    }
}

void serve(int nSocket, const char* pFolder)
{
    char acRequest[2048];
    const ssize_t nRead = ::recv(nSocket, acRequest, sizeof(acRequest) - 1, 0);
    check(nRead > 0, "request");
    acRequest[nRead] = '\0';
    char acPath[256];
    check(1 == sscanf(acRequest, "GET %255s", acPath), "request");
    const int nFile = ::open((std::string(pFolder) + acPath).c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info = {};
    check(nFile >= 0 && 0 == ::fstat(nFile, &info), acPath);
    const auto nSize = static_cast<size_t>(info.st_size);
    char acHeader[512];
    const int nHeader = snprintf(acHeader, sizeof(acHeader),
                                 "HTTP/1.0 200 OK\r\nConnection: close\r\n"
                                 "Content-type: text/plain\r\nContent-Length: %zu\r\n\r\n",
                                 nSize);
    sendAll(nSocket, acHeader, static_cast<size_t>(nHeader));
    std::vector<char> vecContent(nSize);
    check(info.st_size == ::read(nFile, vecContent.data(), nSize), acPath);
    ::close(nFile);
    sendAll(nSocket, vecContent.data(), nSize);
    (void)::recv(nSocket, acRequest, sizeof(acRequest), 0); // until the client has closed
}

} // namespace

int main(int nCount, char** ppArgument)
{
    if (nCount < 3 || nCount > 4) {
        fprintf(stderr, "usage: static-floor PORT FOLDER [commands]\n");
        return 2;
    }
    const int nListener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setOption(nListener, SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(atoi(ppArgument[1])));
    check(0 == ::bind(nListener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) &&
              0 == ::listen(nListener, 20),
          "listen");
    for (;;) {
        const int nSocket = ::accept4(nListener, nullptr, nullptr, SOCK_CLOEXEC);
        check(nSocket >= 0, "accept");
        tune(nSocket, 4 == nCount);
        serve(nSocket, ppArgument[2]);
        ::close(nSocket);
    }
}

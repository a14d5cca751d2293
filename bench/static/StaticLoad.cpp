// static-load: asks for a file again and again, one connection after another.
//
// usage: static-load PORT PATH SIZE SECONDS
//
// Each answer must be 200, tell SIZE as its Content-Length and have that many bytes behind its
// header; the client then closes. Prints the number of requests and the seconds they took. Ends
// with 1 at the first answer that is not as agreed.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/** Read the header and what came along of the body. @return bytes of the body, -1 at a failure */
ssize_t readHeader(int nSocket, const std::string& strLength)
{
    char acHeader[2048];
    size_t uDone = 0;
    for (;;) {
        const ssize_t nRead = ::recv(nSocket, acHeader + uDone, sizeof(acHeader) - uDone, 0);
        if (nRead <= 0) {
            return -1;
        }
        uDone += static_cast<size_t>(nRead);
        const std::string strHeader(acHeader, uDone);
        const size_t uEnd = strHeader.find("\r\n\r\n");
        if (std::string::npos != uEnd) {
            const size_t uLength = strHeader.find(strLength);
            const bool bGood = 0 == strHeader.find("HTTP/1.0 200 OK\r\n") && uLength < uEnd;
            return bGood ? static_cast<ssize_t>(uDone - uEnd - 4) : -1;
        }
        if (uDone == sizeof(acHeader)) {
            return -1;
        }
    }
}

bool ask(const sockaddr_in& address, const std::string& strRequest, size_t nSize)
{
    const int nSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool bGood =
        0 == ::connect(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) &&
        static_cast<ssize_t>(strRequest.size()) ==
            ::send(nSocket, strRequest.data(), strRequest.size(), MSG_NOSIGNAL);
    ssize_t nBody =
        bGood ? readHeader(nSocket, "Content-Length: " + std::to_string(nSize) + "\r\n") : -1;
    while (nBody >= 0 && nBody < static_cast<ssize_t>(nSize)) {
        char cUnused = 0; // MSG_TRUNC, tcp(7): the bytes are thrown away
        const ssize_t nRead =
            ::recv(nSocket, &cUnused, nSize - static_cast<size_t>(nBody), MSG_TRUNC);
        nBody = nRead > 0 ? nBody + nRead : -1;
    }
    bGood = nBody == static_cast<ssize_t>(nSize);
    ::close(nSocket);
    return bGood;
}

} // namespace

int main(int nCount, char** ppArgument)
{
    if (5 != nCount) {
        fprintf(stderr, "usage: static-load PORT PATH SIZE SECONDS\n");
        return 2;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(atoi(ppArgument[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string strRequest =
        std::string("GET ") + ppArgument[2] + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    const auto nSize = static_cast<size_t>(atol(ppArgument[3]));
    const double dSeconds = atof(ppArgument[4]);

    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    unsigned uRequests = 0;
    double dDone = 0;
    while (dDone < dSeconds) {
        if (!ask(address, strRequest, nSize)) {
            fprintf(stderr, "request %u: not the agreed answer\n", uRequests);
            return 1;
        }
        ++uRequests;
        dDone = std::chrono::duration<double>(Clock::now() - start).count();
    }
    printf("%u %.6f\n", uRequests, dDone);
    return 0;
}

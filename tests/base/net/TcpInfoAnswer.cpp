// Changes what the kernel tells of a connection, where no peer can bring it about in time.
#include "TcpInfoAnswer.h"

#include <cstring>

#include <netinet/in.h>

static TcpInfoAnswer::Change g_change;

TcpInfoAnswer::TcpInfoAnswer(const Change& change)
{
    g_change = change;
}

TcpInfoAnswer::~TcpInfoAnswer()
{
    g_change = nullptr;
}

// The linker gives calls of getsockopt to the first, and the second's calls to getsockopt.
extern "C" int __wrap_getsockopt(int nFd, int nLevel, int nName, void* pValue, socklen_t* pLength);
extern "C" int __real_getsockopt(int nFd, int nLevel, int nName, void* pValue, socklen_t* pLength);

int __wrap_getsockopt(int nFd, int nLevel, int nName, void* pValue, socklen_t* pLength)
{
    if (nullptr == g_change || IPPROTO_TCP != nLevel || TCP_INFO != nName) {
        return __real_getsockopt(nFd, nLevel, nName, pValue, pLength);
    }
    tcp_info info{};
    socklen_t uLength = (*pLength < sizeof(info)) ? *pLength : sizeof(info);
    g_change(info, uLength);
    memcpy(pValue, &info, uLength);
    *pLength = uLength;
    return 0;
}

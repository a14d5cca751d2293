// Changes what a wait of the reactor reports, where no peer can bring it about.
#include "WaitAnswer.h"

static WaitAnswer::Change g_change;

WaitAnswer::WaitAnswer(const Change& change)
{
    g_change = change;
}

WaitAnswer::~WaitAnswer()
{
    g_change = nullptr;
}

// The linker gives calls of epoll_wait to the first, and the second's calls to epoll_wait.
extern "C" int __wrap_epoll_wait(int nFd, epoll_event* pEvents, int nMaxEvents, int nTimeoutMs);
extern "C" int __real_epoll_wait(int nFd, epoll_event* pEvents, int nMaxEvents, int nTimeoutMs);

int __wrap_epoll_wait(int nFd, epoll_event* pEvents, int nMaxEvents, int nTimeoutMs)
{
    const int nReady = __real_epoll_wait(nFd, pEvents, nMaxEvents, nTimeoutMs);
    if (nReady > 0 && nullptr != g_change) {
        g_change(pEvents, nReady);
    }
    return nReady;
}

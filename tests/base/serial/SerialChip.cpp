// What a real serial chip has and a pseudo terminal lacks, in place of the C library's calls.
#include "SerialChip.h"

#include <cstdarg>

#include <dlfcn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include "LibraryCall.h"

SerialChip g_chip;

namespace {

template <class F> F realFunction(const char* pName)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, pName));
}

} // namespace

extern "C" int ioctl(int nFd, IoctlRequest request, ...) LIBRARY_CALL
{
    va_list args;
    va_start(args, request);
    void* const pArg = va_arg(args, void*);
    va_end(args);
    if (static_cast<IoctlRequest>(TIOCSERGETLSR) == request && nFd == g_chip.nFd) {
        *static_cast<int*>(pArg) = g_chip.vecStatus.at(g_chip.uQueries++);
        return 0;
    }
    return static_cast<int>(syscall(SYS_ioctl, nFd, request, pArg));
}

extern "C" int tcgetattr(int nFd, termios* pAttr) LIBRARY_CALL
{
    if (nFd != g_chip.nFd || -1 == nFd) {
        return realFunction<int (*)(int, termios*)>("tcgetattr")(nFd, pAttr);
    }
    g_chip.strJournal += "get ";
    *pAttr = g_chip.attr;
    return 0;
}

extern "C" int tcsetattr(int nFd, int nAction, const termios* pAttr) LIBRARY_CALL
{
    if (nFd != g_chip.nFd || -1 == nFd) {
        return realFunction<int (*)(int, int, const termios*)>("tcsetattr")(nFd, nAction, pAttr);
    }
    g_chip.strJournal += (TCSANOW == nAction) ? "set " : "set-late ";
    const tcflag_t untaken = g_chip.attr.c_cflag & g_chip.untaken;
    g_chip.attr = *pAttr;
    g_chip.attr.c_cflag = (pAttr->c_cflag & ~g_chip.untaken) | untaken;
    return 0;
}

extern "C" int tcflush(int nFd, int nQueue) LIBRARY_CALL
{
    if (nFd != g_chip.nFd || -1 == nFd) {
        return realFunction<int (*)(int, int)>("tcflush")(nFd, nQueue);
    }
    g_chip.strJournal += (TCIFLUSH == nQueue)    ? "flush-in "
                         : (TCIOFLUSH == nQueue) ? "flush-io "
                                                 : "flush-out ";
    return 0;
}

// Put before the sources that are changed: which change holds in this process, and which of their
// statements it comes by. Both are told by the environment, so that started programs know it, too.
#pragma once

#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mutation {

inline constexpr unsigned long MOST_POINTS =
    65536; // as many bytes has the file of MUTATION_REACHED

inline int chosen = 0; // none
inline unsigned char nowhere[MOST_POINTS];
inline unsigned char* reached = nowhere;

/** Before every other construction. By system calls: a test may have replaced the library's. */
[[gnu::constructor(101)]] static void choose()
{
    if (const char* const pText = getenv("MUTATION_CHOSEN"); nullptr != pText) {
        chosen = atoi(pText);
    }
    const char* const pPath = getenv("MUTATION_REACHED");
    if (nullptr == pPath || nowhere != reached) {
        return;
    }
    const long nFd = syscall(SYS_openat, AT_FDCWD, pPath, O_RDWR | O_CLOEXEC);
    if (nFd < 0) {
        return;
    }
    void* const pMap =
        mmap(nullptr, MOST_POINTS, PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(nFd), 0);
    syscall(SYS_close, nFd);
    if (MAP_FAILED != pMap) {
        reached = static_cast<unsigned char*>(pMap);
    }
}

} // namespace mutation

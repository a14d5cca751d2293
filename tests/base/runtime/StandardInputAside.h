// Frees descriptor 0 for a test.
#pragma once

#include <fcntl.h>
#include <unistd.h>

/** While it lives descriptor 0 is the lowest free number; then standard input is back there. */
class StandardInputAside
{
public:
    StandardInputAside() : m_nKept(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        close(STDIN_FILENO);
    }
    StandardInputAside(const StandardInputAside&) = delete;
    StandardInputAside& operator=(const StandardInputAside&) = delete;
    ~StandardInputAside()
    {
        close(STDIN_FILENO);
        if (m_nKept >= 0) { // else there was none before
            (void)dup2(m_nKept, STDIN_FILENO);
            close(m_nKept);
        }
    }

private:
    int m_nKept;
};

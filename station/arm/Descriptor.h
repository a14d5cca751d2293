// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

class Descriptor
{
public:
    /** @param nFd  taken over; -1: none */
    explicit Descriptor(int nFd) : m_nFd(nFd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (m_nFd >= 0) {
            ::close(m_nFd);
        }
    }

    int get() const
    {
        return m_nFd;
    }

private:
    int m_nFd;
};

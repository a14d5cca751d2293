// A TUN device: a network interface whose packets a program sees.
#pragma once

#include <cstddef>

#include <sys/types.h>

/** Made in the network namespace of its caller, where it stays; it ends with the object. */
class Tun
{
public:
    Tun() = default;
    Tun(const Tun&) = delete;
    Tun& operator=(const Tun&) = delete;
    ~Tun();

    /**
     * Make it, up, with packets of 1500 bytes at most.
     * @param pAddress  dotted; the others of its /24 are reached through it
     * @return false after a line on standard error
     */
    bool open(const char* pAddress);

    int getFd() const
    {
        return m_nFd;
    }

    /** A packet that was sent through the interface. @return its bytes; 0 when there is none */
    size_t read(char* pData, size_t uSize) const;

    /** Let the interface receive a packet. */
    void write(const char* pData, size_t uSize) const;

private:
    int m_nFd = -1;
};

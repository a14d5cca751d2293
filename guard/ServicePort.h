// The terminal that the service takes for the controller's port.
#pragma once

#include <cstddef>
#include <string>

/**
 * A pseudo terminal under a link. It is raw before its link appears, and the link is replaced in
 * one step. When the service closes it, that is told once; then a new terminal takes its place, so
 * that nobody reads a byte that was meant for the former user. Nothing blocks. One thread.
 */
class ServicePort
{
public:
    /** @param strGroup  may open the terminal; empty: who the system lets */
    ServicePort(std::string strLink, std::string strGroup);
    ServicePort(const ServicePort&) = delete;
    ServicePort& operator=(const ServicePort&) = delete;

    /** The link goes with the object. */
    ~ServicePort();

    /** Make a terminal, in place of the one before. @return false with errno, without a terminal */
    bool renew();

    int getFd() const
    {
        return m_nFd;
    }

    /** In one write; dropped when the terminal does not take it whole. @return false then */
    bool write(const char* pBytes, size_t uLength) const;

    /** @return bytes; 0: none; -1: hung up, renew() is next */
    int read(char* pBuffer, size_t uSize) const;

private:
    void close();
    bool handOver(const char* pTerminal) const;

    std::string m_strLink;
    std::string m_strGroup;
    int m_nFd = -1;
};

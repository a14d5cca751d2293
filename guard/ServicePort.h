// The terminal that the service takes for the controller's port.
#pragma once

#include <cstddef>
#include <string>

#include <sys/types.h>

#include "GroupName.h"

/**
 * A pseudo terminal under a link. It is raw before its link appears, and the link is replaced in
 * one step. When the service closes it, that is told once; then a new terminal takes its place, so
 * that nobody reads a byte that was meant for the former user. Nothing blocks. One thread.
 */
class ServicePort
{
public:
    explicit ServicePort(std::string strLink);
    ServicePort(const ServicePort&) = delete;
    ServicePort& operator=(const ServicePort&) = delete;

    /** The link goes with the object. */
    ~ServicePort();

    /**
     * Who may open the terminals made from now on, besides their owner.
     * @param strGroup  empty: as the system makes them
     * @param strError  one line, when it is not found
     */
    GROUP_E setGroup(const std::string& strGroup, std::string& strError);

    /**
     * Make a terminal, in place of the one before.
     * @return false with errno, without a terminal and without a link: the former one's name may
     * be somebody else's by then
     */
    bool renew();

    /** -1 without a terminal. */
    int getFd() const
    {
        return m_nFd;
    }

    /** In one write; dropped when the terminal does not take it whole. @return false then */
    bool write(const char* pBytes, size_t uLength) const;

    /** @return bytes; 0: none; -1: hung up, renew() is next */
    int read(char* pBuffer, size_t uSize) const;

private:
    bool prepare(int nFd) const;
    void close();

    std::string m_strLink;
    gid_t m_uGroup = static_cast<gid_t>(-1);
    int m_nFd = -1;
};

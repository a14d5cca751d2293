// Readiness of one descriptor, as the reactor hands it to its handlers.
#pragma once

#include <cstdint>

#include "Event.h"

class TcpClient;

/**
 * Built for one handler call. The pointers reach into the descriptor's registration, which lives
 * until EPoll::deleteFd; a handler may null the owner through its pointer.
 */
class EPollEvent : public Event
{
public:
    EPollEvent(uint32_t u32Mask, int* pFd, TcpClient** ppClient)
        : m_u32Mask(u32Mask), m_pFd(pFd), m_ppClient(ppClient)
    {
    }

    uint32_t m_u32Mask; // the one bit that is being dispatched: EPOLLIN, EPOLLOUT, ...
    int* m_pFd;
    TcpClient** m_ppClient; // the connection that owns the descriptor, null for the listener
};

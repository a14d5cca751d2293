// An IPv4 address with its port, in the forms that texts and sockets want.
#pragma once

#include <cstdint>
#include <string>

#include <netinet/in.h>

/** All four forms agree from the construction on. */
class Endpoint
{
public:
    /** @param u32Address  host order @param u16Port  host order */
    Endpoint(uint32_t u32Address, uint16_t u16Port);

    uint32_t m_u32Address;
    uint16_t m_u16Port;
    std::string m_strText; // dotted, e.g. "192.168.1.1"
    sockaddr_in m_address; // ready for connect and bind
};

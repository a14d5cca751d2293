// An IPv4 address with its port, in the forms that texts and sockets want.
#include "Endpoint.h"

#include <cstdio>

#include <arpa/inet.h>

Endpoint::Endpoint(uint32_t u32Address, uint16_t u16Port)
    : m_u32Address(u32Address), m_u16Port(u16Port), m_address{}
{
    char acText[16]; // "255.255.255.255"
    snprintf(acText, sizeof(acText), "%u.%u.%u.%u", u32Address >> 24, (u32Address >> 16) & 0xff,
             (u32Address >> 8) & 0xff, u32Address & 0xff);
    m_strText = acText;
    m_address.sin_family = AF_INET;
    m_address.sin_port = htons(u16Port);
    (void)inet_pton(AF_INET, acText, &m_address.sin_addr); // our own text: always valid
}

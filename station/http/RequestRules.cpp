// Who may ask: the token, the name that the machine was asked by, and the page that asks.
#include "RequestRules.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

static const int PAGE_PORT = 8329;
static const int STATION_PORT = 8330;

namespace {

std::string lower(std::string strText)
{
    std::transform(strText.begin(), strText.end(), strText.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return strText;
}

/** Without the port, in small letters; empty when it is none. */
std::string takeName(const std::string& strHost)
{
    const bool bBracket = !strHost.empty() && '[' == strHost[0];
    const size_t uEnd = bBracket ? strHost.find(']') : strHost.find(':');
    if (bBracket && std::string::npos == uEnd) {
        return "";
    }
    const std::string strRest =
        (std::string::npos == uEnd) ? "" : strHost.substr(bBracket ? uEnd + 1 : uEnd);
    const bool bPort =
        strRest.size() > 1 && ':' == strRest[0] && strRest.size() <= 6 &&
        std::all_of(strRest.begin() + 1, strRest.end(), [](unsigned char c) { return isdigit(c); });
    if (!strRest.empty() && !bPort) {
        return "";
    }
    return lower(bBracket ? strHost.substr(1, uEnd - 1) : strHost.substr(0, uEnd));
}

bool isSameAddress(const ifaddrs& interface, int nFamily, const void* pAddress)
{
    if (nullptr == interface.ifa_addr || interface.ifa_addr->sa_family != nFamily) {
        return false;
    }
    if (AF_INET == nFamily) {
        const auto* const pOwn = reinterpret_cast<const sockaddr_in*>(interface.ifa_addr);
        return 0 == memcmp(&pOwn->sin_addr, pAddress, sizeof(in_addr));
    }
    const auto* const pOwn = reinterpret_cast<const sockaddr_in6*>(interface.ifa_addr);
    return 0 == memcmp(&pOwn->sin6_addr, pAddress, sizeof(in6_addr));
}

/** Whether it is an address of the machine, as digits. */
bool isOwnAddress(const std::string& strName)
{
    std::array<unsigned char, sizeof(in6_addr)> acAddress{};
    const int nFamily = (std::string::npos == strName.find(':')) ? AF_INET : AF_INET6;
    ifaddrs* pFirst = nullptr;
    if (1 != inet_pton(nFamily, strName.c_str(), acAddress.data()) || 0 != getifaddrs(&pFirst)) {
        return false;
    }
    bool bFound = false;
    for (const ifaddrs* p = pFirst; nullptr != p && !bFound; p = p->ifa_next) {
        bFound = isSameAddress(*p, nFamily, acAddress.data());
    }
    freeifaddrs(pFirst);
    return bFound;
}

} // namespace

RequestRules::RequestRules(std::string strToken, std::vector<std::string> vecHost,
                           std::vector<std::string> vecOrigin)
    : m_strToken(std::move(strToken)), m_vecHost(std::move(vecHost)),
      m_vecOrigin(std::move(vecOrigin))
{
    for (std::vector<std::string>* const pList : {&m_vecHost, &m_vecOrigin}) {
        std::transform(pList->begin(), pList->end(), pList->begin(), lower);
    }
}

bool RequestRules::isHost(const std::string& strHost) const
{
    const std::string strName = takeName(strHost);
    return "localhost" == strName ||
           m_vecHost.end() != std::find(m_vecHost.begin(), m_vecHost.end(), strName) ||
           isOwnAddress(strName);
}

bool RequestRules::isOrigin(const std::string& strOrigin, const std::string& strHost,
                            int nPort) const
{
    const std::string strAsked = lower(strOrigin);
    if (m_vecOrigin.end() != std::find(m_vecOrigin.begin(), m_vecOrigin.end(), strAsked)) {
        return true;
    }
    std::string strName = takeName(strHost);
    if (strName.empty()) {
        return false;
    }
    strName = (std::string::npos == strName.find(':')) ? strName : "[" + strName + "]";
    for (const int nEach : {PAGE_PORT, STATION_PORT, nPort}) {
        if (strAsked == "http://" + strName + ":" + std::to_string(nEach)) {
            return true;
        }
    }
    return false;
}

bool RequestRules::isToken(const std::string& strAuthorization) const
{
    static const std::string BEARER = "bearer ";
    if (lower(strAuthorization.substr(0, BEARER.size())) != BEARER || m_strToken.empty()) {
        return false;
    }
    const std::string strGiven = strAuthorization.substr(BEARER.size());
    // Each byte is looked at: the time tells nothing about where the first wrong one is.
    unsigned uDifferent = strGiven.size() == m_strToken.size() ? 0 : 1;
    for (size_t u = 0; u < strGiven.size(); ++u) {
        uDifferent |= static_cast<unsigned char>(strGiven[u]) ^
                      static_cast<unsigned char>(m_strToken[u % m_strToken.size()]);
    }
    return 0 == uDifferent;
}

// Socket::getIfConf: the list of network interfaces.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "DeviceIo.h"
#include "Log.h"
#include "Socket.h"

static const char* const SOURCE_NAME = "Socket";

static const int MAX_INTERFACES = 10; // 320 bytes of ifreq on the board

static std::string addressText(const sockaddr& address)
{
    sockaddr_in inet{};
    memcpy(&inet, &address, sizeof(inet)); // an ifreq is aligned like a sockaddr only
    SocketAddress text;
    Socket::fromSockAddr(inet, text);
    return text.acIp;
}

int Socket::getIfConf(std::vector<InterfaceRecord>& vecRecord)
{
    const int nFd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (nFd < 0) {
        return report(errno, __LINE__, "getIfConf");
    }
    const int nRet = getIfConf(nFd, vecRecord);
    ::close(nFd);
    return nRet;
}

int Socket::getIfConf(int nFd, std::vector<InterfaceRecord>& vecRecord)
{
    ifreq aRequest[MAX_INTERFACES];
    memset(aRequest, 0, sizeof(aRequest));
    ifconf list{};
    list.ifc_len = sizeof(aRequest);
    list.ifc_req = aRequest;
    if (0 != ioctlRetry(nFd, SIOCGIFCONF, &list)) {
        LOG(2, "Error:(%s)   ioctl IFCONF\n", strerror(errno));
        return -1;
    }
    const size_t uCount = static_cast<size_t>(list.ifc_len) / sizeof(ifreq);
    for (size_t i = 0; i < uCount; ++i) {
        ifreq& request = aRequest[i]; // each query overwrites the last one's answer
        InterfaceRecord record;
        record.strName.assign(request.ifr_name, strnlen(request.ifr_name, IFNAMSIZ));
        record.strAddress = addressText(request.ifr_addr);
        if (0 == ioctlRetry(nFd, SIOCGIFNETMASK, &request)) {
            record.strNetmask = addressText(request.ifr_netmask);
        } else {
            LOG(2, "Error: %d, cannot get mask\n", errno);
        }
        if (0 == ioctlRetry(nFd, SIOCGIFMTU, &request)) {
            record.s32Mtu = request.ifr_mtu;
        } else {
            LOG(2, "Error: %d, cannot get MTU\n", errno);
        }
        if (0 == ioctlRetry(nFd, SIOCGIFHWADDR, &request)) {
            unsigned char auHardware[6];
            memcpy(auHardware, request.ifr_hwaddr.sa_data, sizeof(auHardware));
            char acText[18];
            snprintf(acText, sizeof(acText), "%02x:%02x:%02x:%02x:%02x:%02x", auHardware[0],
                     auHardware[1], auHardware[2], auHardware[3], auHardware[4], auHardware[5]);
            record.strHardwareAddress = acText;
        } else {
            LOG(2, "Error: %d, cannot get SIOCGIFHWADDR\n", errno);
        }
        vecRecord.push_back(record);
    }
    return 0;
}

// A TUN device: a network interface whose packets a program sees.
#include "Tun.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

static const char* const DEVICE = "/dev/net/tun";
static const int MOST_BYTES = 1500; // of a packet, as on Ethernet

static bool fail(const char* pWhat)
{
    fprintf(stderr, "kestrel-link: %s: %s\n", pWhat, strerror(errno));
    return false;
}

static void setAddress(ifreq& request, const char* pAddress)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    (void)inet_pton(AF_INET, pAddress, &address.sin_addr);
    memcpy(&request.ifr_addr, &address, sizeof(address));
}

static bool bringUp(int nSocket, ifreq& request, const char* pAddress)
{
    setAddress(request, pAddress);
    if (0 != ioctl(nSocket, SIOCSIFADDR, &request)) {
        return fail("SIOCSIFADDR");
    }
    setAddress(request, "255.255.255.0");
    if (0 != ioctl(nSocket, SIOCSIFNETMASK, &request)) {
        return fail("SIOCSIFNETMASK");
    }
    request.ifr_mtu = MOST_BYTES;
    if (0 != ioctl(nSocket, SIOCSIFMTU, &request)) {
        return fail("SIOCSIFMTU");
    }
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    return 0 == ioctl(nSocket, SIOCSIFFLAGS, &request) || fail("SIOCSIFFLAGS");
}

Tun::~Tun()
{
    if (m_nFd >= 0) {
        ::close(m_nFd);
    }
}

bool Tun::open(const char* pAddress)
{
    m_nFd = ::open(DEVICE, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_nFd < 0) {
        fprintf(stderr, "kestrel-link: %s: %s; a link needs this device and CAP_NET_ADMIN\n",
                DEVICE, strerror(errno));
        return false;
    }
    ifreq request{};
    strcpy(request.ifr_name, "link%d");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (0 != ioctl(m_nFd, TUNSETIFF, &request)) {
        fprintf(stderr, "kestrel-link: TUNSETIFF: %s; a link needs CAP_NET_ADMIN\n",
                strerror(errno));
        return false;
    }
    const int nSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool bUp = bringUp(nSocket, request, pAddress);
    ::close(nSocket);
    return bUp;
}

size_t Tun::read(char* pData, size_t uSize) const
{
    const ssize_t nRead = ::read(m_nFd, pData, uSize);
    return (nRead > 0) ? static_cast<size_t>(nRead) : 0;
}

void Tun::write(const char* pData, size_t uSize) const
{
    (void)!::write(m_nFd, pData, uSize); // refused is lost, as on a network
}

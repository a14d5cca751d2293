// Accepts programs that use the camera.
#include "DeviceServer.h"

#include <algorithm>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "LocalSocket.h"

DeviceServer::DeviceServer(UvcCamera& camera, const std::string& strDir)
    : m_camera(camera), m_strDir(strDir)
{
}

DeviceServer::~DeviceServer()
{
    m_vecSession.clear();
    if (m_nListener >= 0) {
        ::close(m_nListener);
        ::unlink((m_strDir + "/" CAMERA_DEVICE_SOCKET).c_str());
    }
}

bool DeviceServer::start()
{
    m_nListener = listenAt(m_strDir + "/" CAMERA_DEVICE_SOCKET, SOCK_SEQPACKET);
    return m_nListener >= 0;
}

void DeviceServer::watch(std::vector<pollfd>& vecPoll) const
{
    vecPoll.push_back({m_nListener, POLLIN, 0});
    for (const auto& pSession : m_vecSession) {
        if (!pSession->shutDown()) { // would be found hung up each time
            vecPoll.push_back({pSession->getSocket(), 0, 0});
        }
    }
}

void DeviceServer::handle()
{
    m_vecSession.erase(std::remove_if(m_vecSession.begin(), m_vecSession.end(),
                                      [](const auto& pSession) { return pSession->isOver(); }),
                       m_vecSession.end());
    accept();
}

void DeviceServer::accept()
{
    for (;;) {
        const int nFd = ::accept4(m_nListener, nullptr, nullptr, SOCK_CLOEXEC);
        if (nFd < 0) {
            return; // EAGAIN, or a caller that has gone again
        }
        const timeval patience{30, 0}; // the library sends at once, when the scheduler lets it
        ::setsockopt(nFd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        CameraNode node{};
        if (static_cast<ssize_t>(sizeof(node)) != ::recv(nFd, &node, sizeof(node), 0)) {
            ::close(nFd);
            continue;
        }
        if (CAMERA_stat == node.u32Call) {
            m_camera.stat(node);
            (void)::send(nFd, &node, sizeof(node), MSG_NOSIGNAL | MSG_DONTWAIT);
            ::close(nFd);
            continue;
        }
        auto pSession = std::make_unique<CameraSession>(m_camera, m_strDir, nFd);
        if (pSession->start(node)) {
            m_vecSession.push_back(std::move(pSession));
        }
    }
}

// One open of the camera by a program: its connection, its page and the thread that answers.
#include "CameraSession.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Futex.h"

namespace {

/** The process at the other end, 0 when it lives where we cannot see it. */
pid_t peerOf(int nSocket)
{
    ucred credentials{};
    socklen_t nSize = sizeof(credentials);
    return 0 == ::getsockopt(nSocket, SOL_SOCKET, SO_PEERCRED, &credentials, &nSize)
               ? credentials.pid
               : 0;
}

} // namespace

CameraSession::CameraSession(UvcCamera& camera, const std::string& strDir, int nSocket)
    : m_camera(camera), m_strDir(strDir), m_nSocket(nSocket), m_peer(peerOf(nSocket))
{
}

CameraSession::~CameraSession()
{
    if (m_thread.joinable()) {
        m_bEnd = true;
        __atomic_store_n(&m_pPage->u32Gone, 1, __ATOMIC_RELEASE);
        Futex::wakeAll(&m_pPage->u32Reply);
        // Changing the word ends a wait that is about to begin, too.
        __atomic_add_fetch(&m_pPage->u32Request, 1, __ATOMIC_RELEASE);
        Futex::wakeAll(&m_pPage->u32Request);
        m_thread.join();
        m_camera.close(*this);
    }
    if (nullptr != m_pPage) {
        ::munmap(m_pPage, CAMERA_PAGE_SIZE);
        ::unlink(m_strFile.c_str());
    }
    ::close(m_nSocket);
}

bool CameraSession::makePage()
{
    char acName[64];
    snprintf(acName, sizeof(acName), "/" CAMERA_SESSION_FILE, m_u32Session);
    m_strFile = m_strDir + acName;
    const int nFd = ::open(m_strFile.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (nFd < 0) {
        return false;
    }
    void* pPage = MAP_FAILED;
    if (0 == ::ftruncate(nFd, CAMERA_PAGE_SIZE)) {
        pPage = ::mmap(nullptr, CAMERA_PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
    }
    ::close(nFd);
    m_pPage = MAP_FAILED == pPage ? nullptr : static_cast<CameraPage*>(pPage);
    return nullptr != m_pPage;
}

bool CameraSession::start(CameraNode& node)
{
    bool bOpen = m_camera.open(node, *this);
    if (bOpen && !makePage()) {
        m_camera.close(*this);
        node.s32Errno = ENOMEM;
        bOpen = false;
    }
    // The answer must be the first packet; the one that makes the descriptor readable follows.
    (void)::send(m_nSocket, &node, sizeof(node), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (bOpen) {
        m_camera.opened(*this);
        m_thread = std::thread(&CameraSession::serve, this);
    }
    return bOpen;
}

int CameraSession::getSocket() const
{
    return m_nSocket;
}

bool CameraSession::isOver() const
{
    if (m_bClosed) {
        return true;
    }
    if (m_bShutDown) {
        return m_peer > 0 && 0 != ::kill(m_peer, 0) && ESRCH == errno;
    }
    pollfd look{m_nSocket, POLLIN, 0};
    return 1 == ::poll(&look, 1, 0) && 0 != (look.revents & (POLLHUP | POLLERR));
}

void CameraSession::setReadable(bool bReadable)
{
    if (bReadable && !m_bPacket) {
        const char cPacket = 1;
        m_bPacket = 1 == ::send(m_nSocket, &cPacket, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    } else if (!bReadable && m_bPacket) {
        m_bPacket = false;
        ++m_u32TakeOff;
    }
}

uint32_t CameraSession::takeOff()
{
    return std::exchange(m_u32TakeOff, 0);
}

void CameraSession::unplugged()
{
    if (nullptr != m_pPage) {
        __atomic_store_n(&m_pPage->u32Unplugged, 1, __ATOMIC_RELEASE);
    }
    m_bShutDown = true;
    ::shutdown(m_nSocket, SHUT_RDWR);
}

void CameraSession::serve()
{
    uint32_t u32Seen = 0;
    while (!m_bEnd) {
        const uint32_t u32Request = __atomic_load_n(&m_pPage->u32Request, __ATOMIC_ACQUIRE);
        if (u32Request == u32Seen) {
            Futex::wait(&m_pPage->u32Request, u32Seen);
            continue;
        }
        if (m_bEnd) {
            return;
        }
        answer();
        u32Seen = u32Request;
        __atomic_store_n(&m_pPage->u32Reply, u32Request, __ATOMIC_RELEASE);
        Futex::wakeAll(&m_pPage->u32Reply);
    }
}

void CameraSession::answer()
{
    const uint32_t u32Call = m_pPage->u32Call;
    if (u32Call >= CAMERA_CALLS) {
        m_pPage->s32Errno = EINVAL;
        return;
    }
    m_u32CpuMicroseconds = m_pPage->u32CpuMicroseconds;
    const CAMERA_CALL_E eCall = static_cast<CAMERA_CALL_E>(u32Call);
    const UvcCamera::Answer given =
        m_camera.call(*this, m_pPage->u32Pid, eCall, m_pPage->record, 0 != m_pPage->u32Blocking);
    m_pPage->s32Errno = given.nErrno;
    m_pPage->u32Wait = given.bWait ? 1 : 0;
    m_pPage->u32Packets = given.u32TakeOff;
    if (CAMERA_close == eCall) {
        m_bClosed = true;
    }
}

bool CameraSession::shutDown() const
{
    return m_bShutDown;
}

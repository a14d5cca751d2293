// A listening TCP socket on its own reactor, and the connections accepted from it.
#include "TcpServer.h"

#include <cerrno>
#include <new>

#include "Log.h"

static const char* const SOURCE_NAME = "TcpServer";

static const int MAX_EVENTS = 20;
static const int BACKLOG = 20;
static const int32_t KEEP_ALIVE[] = {5, 1, 2}; // seconds idle, seconds between probes, probes

/** The steps of an accept log as one operation. */
static void reportAccept(int nLine, const char* pText)
{
    Log::getInstance().log(SOURCE_NAME, nLine, "onPollAccept", 2, "%s", pText);
}

TcpServer::TcpServer(const char* pName) : EPoll(MAX_EVENTS, pName)
{
    (void)Log::getInstance(); // outlives a server that is a singleton
}

TcpServer::~TcpServer()
{
    endService();
}

void TcpServer::endService()
{
    (void)stop();
    failAll();
    m_vecRetired.clear();
    if (m_socket.isValid()) {
        (void)uninit();
    }
}

int TcpServer::init(uint16_t u16Port, const char* pIp, int nSendBufferSize, int nReceiveBufferSize)
{
    const char* pShown = (nullptr == pIp) ? "(null)" : pIp;
    if (0 != m_socket.create()) {
        LOG(2, "create accept socket error !!   accept ip:%s port:%d\n", pShown, u16Port);
        return 1;
    }
    if (0 != m_socket.setOptBlock(false)) {
        LOG(2, "accept socket set unblock error !!   accept ip:%s port:%d\n", pShown, u16Port);
        return 1;
    }
    if (0 != m_socket.setOptKeepAlive(true, KEEP_ALIVE)) {
        LOG(2, "accept socket set keepalive error !!   accept ip:%s port:%d\n", pShown, u16Port);
        return 1;
    }
    if (0 != m_socket.setOptReuseAddr(true)) {
        LOG(2, "accept socket set reuse addr error !!   accept ip:%s port:%d\n", pShown, u16Port);
        return 1;
    }
    if (0 != m_socket.bind(pIp, u16Port)) {
        LOG(2, "accept socket bind error !!   accept ip:%s port:%d\n", pShown, u16Port);
        return 1;
    }
    if (0 != m_socket.listen(BACKLOG)) {
        LOG(2, "accept socket listen error !!   accept ip:%s port:%d\n", pShown, u16Port);
        return 1;
    }
    (void)setAcceptHandler(this, &TcpServer::onPollAccept);
    (void)setInHandler(this, &TcpServer::onPollIn);
    (void)setOutHandler(this, &TcpServer::onPollOut);
    (void)setErrHandler(this, &TcpServer::onPollError);
    (void)setHupHandler(this, &TcpServer::onPollError);
    setAcceptFd(m_socket.getFd());
    if (0 != addFd(m_socket.getFd(), EPOLLET | EPOLLIN, nullptr)) {
        LOG(2, "accept socket add fd error !!   accept ip:%s port:%d\n", pShown, u16Port);
        (void)m_socket.close();
        return 1;
    }
    m_nReceiveBufferSize = nReceiveBufferSize;
    m_nSendBufferSize = nSendBufferSize;
    return 0;
}

int TcpServer::uninit()
{
    (void)deleteFd(m_socket.getFd(), nullptr); // logged there; EPoll frees the registration
    (void)m_socket.close();
    return 0;
}

RET_E TcpServer::onPollAccept(Event*)
{
    for (;;) {
        TcpSocket socket;
        if (0 != m_socket.accept(socket)) {
            if (EAGAIN != errno && m_socket.isValid()) {
                acceptAgain(); // e.g. out of descriptors, with connections still pending
            }
            return RET_SUCCESS;
        }
        try {
            welcome(socket);
        } catch (const std::bad_alloc&) {
            LOG(2, "create(new) tcp client error !!\n");
            (void)socket.close();
        }
    }
}

/** Make, tune and serve one accepted connection; what throws leaves the socket to the caller. */
void TcpServer::welcome(TcpSocket& socket)
{
    std::unique_ptr<TcpClient> pClient(createClient());
    if (nullptr == pClient) {
        reportAccept(__LINE__, "create(new) tcp client error !!\n");
        return; // Deliberate: the connection stays open
    }
    if (!tune(socket)) {
        (void)socket.close();
        m_vecRetired.push_back(std::move(pClient)); // Deliberate: not destroyed now
        return;
    }
    if (!serve(std::move(pClient), socket)) {
        (void)socket.close(); // the client leaves its descriptor open
        return;
    }
    SocketAddress local;
    SocketAddress remote;
    (void)socket.getLocalSockAddr(local); // failures are logged there and shown empty
    (void)socket.getRemoteSockAddr(remote);
    Log::getInstance().log(SOURCE_NAME, __LINE__, "onPollAccept", 8,
                           "tcp client connected, local(%s:%u) remote(%s:%u)\n", local.acIp,
                           local.u16Port, remote.acIp, remote.u16Port);
}

bool TcpServer::tune(TcpSocket& socket)
{
    if (0 != socket.setOptBlock(false)) {
        reportAccept(__LINE__, "tcp client socket set unblock error !!\n");
        return false;
    }
    if (0 != socket.setOptKeepAlive(true, KEEP_ALIVE)) {
        reportAccept(__LINE__, "tcp client socket set alive error !!\n");
        return false;
    }
    if (0 != socket.setOptRcvBuf(m_nReceiveBufferSize)) {
        reportAccept(__LINE__, "tcp client socket set recv buffer error !!\n");
        return false;
    }
    if (0 != socket.setOptSndBuf(m_nSendBufferSize)) {
        reportAccept(__LINE__, "tcp client socket set send buffer error !!\n");
        return false;
    }
    return true;
}

bool TcpServer::serve(std::unique_ptr<TcpClient> pClient, const TcpSocket& socket)
{
    pClient->setSocket(socket);
    if (0 != pClient->init()) {
        reportAccept(__LINE__, "tcp client connected, but init failed !!\n");
        return false;
    }
    if (0 != pClient->start()) {
        reportAccept(__LINE__, "tcp client connected, but start failed !!\n");
        (void)pClient->uninit();
        return false;
    }
    if (0 !=
        addFd(socket.getFd(), EPOLLET | EPOLLHUP | EPOLLERR | EPOLLOUT | EPOLLIN, pClient.get())) {
        reportAccept(__LINE__, "tcp client connected, but add to epoll failed !!\n");
        (void)pClient->stop();
        (void)pClient->uninit();
        return false;
    }
    (void)pClient.release(); // its registration's, until onPollError
    return true;
}

RET_E TcpServer::onPollIn(Event* pEvent)
{
    auto& event = static_cast<EPollEvent&>(*pEvent);
    const TcpSocket socket(*event.m_pFd);
    // Without an owner (a read may let go of it) nobody would ever read it empty.
    while (socket.isValid() && nullptr != *event.m_ppClient) {
        if (0 != (*event.m_ppClient)->onRead(event)) {
            (void)onPollError(pEvent);
            return RET_FAILED;
        }
        if (!socket.waitReadable(Time())) {
            break;
        }
    }
    return RET_SUCCESS;
}

RET_E TcpServer::onPollOut(Event* pEvent)
{
    auto& event = static_cast<EPollEvent&>(*pEvent);
    const TcpSocket socket(*event.m_pFd);
    if (socket.isValid() && nullptr != *event.m_ppClient &&
        0 != (*event.m_ppClient)->onWrite(event)) {
        (void)onPollError(pEvent);
        return RET_FAILED;
    }
    return RET_SUCCESS;
}

RET_E TcpServer::onPollError(Event* pEvent)
{
    auto& event = static_cast<EPollEvent&>(*pEvent);
    TcpClient* pClient = *event.m_ppClient;
    if (nullptr == pClient) {
        return RET_FAILED;
    }
    (void)pClient->onError(event);
    if (0 == pClient->stop()) {
        (void)pClient->uninit();
    }
    LOG(8, "tcp client error, delete from epoll and close !!\n");
    delete pClient;
    *event.m_ppClient = nullptr;
    TcpSocket socket(*event.m_pFd);
    (void)deleteFd(socket.getFd(), event.m_ppClient); // the event's pointers end here
    (void)socket.close();
    return RET_FAILED;
}

// A listening TCP socket on its own reactor, and the connections accepted from it.
#include "TcpServer.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include "ClientMemory.h"
#include "Log.h"

static const char* const SOURCE_NAME = "TcpServer";

static const int MAX_EVENTS = 20;
static const int BACKLOG = 20;
static const int MOST_ACCEPTS = 16; // in a pass
static const int MOST_READS = 16;   // likewise, of one connection
static const uint32_t LISTENER_MASK = EPOLLET | EPOLLIN;
static const uint32_t CLIENT_MASK = EPOLLET | EPOLLHUP | EPOLLERR | EPOLLOUT | EPOLLIN;
// The kernel takes more while it holds fewer unsent bytes than this, that is none. What a slow peer
// cannot get yet is better kept in our queue, where a picture that would be late is dropped. With
// 8192 one picture in ten came more than a second late to viewers that shared a link.
static const int MOST_UNSENT = 1;
static const uint32_t LOOK_MS = 1000;
static const uint32_t SILENT_MS = 8000;
static const int32_t KEEP_ALIVE[] = {5, 1, 2}; // seconds idle, seconds between probes, probes

TcpServer::TcpServer(const char* pName, int nMostClients)
    : EPoll(MAX_EVENTS, pName), m_nMostClients(nMostClients)
{
    (void)Log::getInstance(); // outlives a server that is a singleton, as does the next one
    (void)ClientMemory::getInstance();
}

TcpServer::~TcpServer()
{
    endService();
}

void TcpServer::endService()
{
    (void)stop();
    forEach([this](EPollEvent& event) { (void)onPollError(&event); });
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
    if (0 != addFd(m_socket.getFd(), LISTENER_MASK, nullptr)) {
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

/** The connections of peers that no longer acknowledge. */
void TcpServer::endSilent()
{
    forEach([this](EPollEvent& event) {
        TcpSocket socket(*event.m_pFd);
        if (socket.isPeerSilent(SILENT_MS)) {
            // With a reset: otherwise the kernel would keep what is unacknowledged for minutes.
            (void)socket.setOptLinger(true, 0);
            (void)onPollError(&event);
        }
    });
}

int TcpServer::getWaitMs()
{
    m_nAccepted = 0;
    const uint32_t u32NowMs = monotonicMs32();
    if (u32NowMs - m_u32LookedMs >= LOOK_MS) { // no wait is shortened for it
        m_u32LookedMs = u32NowMs;
        endSilent();
    }
    int nWaitMs = EPoll::getWaitMs();
    forEach([this, &nWaitMs](EPollEvent& event) { // any larger, it would be allocated
        nWaitMs = std::min(nWaitMs, getTimeLeft(event));
    });
    return nWaitMs;
}

/** End the connection when its time is over. @return milliseconds left, INT_MAX for an ended one */
int TcpServer::getTimeLeft(EPollEvent& event)
{
    TcpClient* pClient = *event.m_ppClient;
    int nLeft = pClient->getTimeLeft(monotonicMs32());
    if (nLeft > 0) {
        return nLeft;
    }
    // A last attempt: the reactor may have been kept from it, and the kernel has room for some
    // bytes before it reports any.
    if (RET_SUCCESS != onPollOut(&event)) {
        return INT_MAX;
    }
    nLeft = pClient->getTimeLeft(monotonicMs32());
    if (nLeft <= 0) {
        (void)onPollError(&event);
        return INT_MAX;
    }
    return nLeft;
}

bool TcpServer::makeRoom()
{
    return false;
}

bool TcpServer::endHighest(const std::function<uint32_t(TcpClient&)>& rank)
{
    struct Highest
    {
        const std::function<uint32_t(TcpClient&)>& rank;
        uint32_t u32Rank;
        TcpClient* pClient;
    } highest{rank, 0, nullptr};
    forEach([&highest](EPollEvent& event) {
        const uint32_t u32Rank = highest.rank(**event.m_ppClient);
        if (u32Rank > highest.u32Rank) {
            highest.u32Rank = u32Rank;
            highest.pClient = *event.m_ppClient;
        }
    });
    forEach([this, &highest](EPollEvent& event) {
        if (*event.m_ppClient == highest.pClient) {
            (void)onPollError(&event);
        }
    });
    return nullptr != highest.pClient;
}

RET_E TcpServer::onPollAccept(Event*)
{
    for (;;) {
        if (m_nAccepted >= MOST_ACCEPTS) {
            acceptNext();
            return RET_SUCCESS;
        }
        ++m_nAccepted;
        TcpSocket socket;
        if (0 != m_socket.accept(socket)) {
            if (EAGAIN != errno && m_socket.isValid()) {
                acceptAgain(); // e.g. out of descriptors, with connections still pending
            }
            return RET_SUCCESS;
        }
        if (m_nClients >= m_nMostClients && !makeRoom()) {
            (void)socket.close();
            continue;
        }
        try {
            welcome(socket);
        } catch (const std::bad_alloc&) {
            LOG(2, "create(new) tcp client error !!\n");
            (void)socket.close();
        }
    }
}

/** Make, tune and serve one accepted connection; an exception leaves the socket to the caller. */
void TcpServer::welcome(TcpSocket& socket)
{
    std::unique_ptr<TcpClient> pClient(createClient());
    if (nullptr == pClient) {
        LOG_AS("onPollAccept", 2, "create(new) tcp client error !!\n");
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
    LOG_AS("onPollAccept", 8, "tcp client connected, local(%s:%u) remote(%s:%u)\n", local.acIp,
           local.u16Port, remote.acIp, remote.u16Port);
}

bool TcpServer::tune(TcpSocket& socket)
{
    if (0 != socket.setOptBlock(false)) {
        LOG_AS("onPollAccept", 2, "tcp client socket set unblock error !!\n");
        return false;
    }
    if (0 != socket.setOptKeepAlive(true, KEEP_ALIVE)) {
        LOG_AS("onPollAccept", 2, "tcp client socket set alive error !!\n");
        return false;
    }
    if (0 != socket.setOptRcvBuf(m_nReceiveBufferSize)) {
        LOG_AS("onPollAccept", 2, "tcp client socket set recv buffer error !!\n");
        return false;
    }
    if (0 != socket.setOptSndBuf(m_nSendBufferSize)) {
        LOG_AS("onPollAccept", 2, "tcp client socket set send buffer error !!\n");
        return false;
    }
    // What belongs together is handed over together, so waiting for more gains nothing. Without
    // this option, or the next one, sending is only slower.
    const int nOn = 1;
    (void)setsockopt(socket.getFd(), IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
    (void)setsockopt(socket.getFd(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &MOST_UNSENT,
                     sizeof(MOST_UNSENT));
    return true;
}

bool TcpServer::serve(std::unique_ptr<TcpClient> pClient, const TcpSocket& socket)
{
    pClient->setSocket(socket);
    if (0 != pClient->init()) {
        LOG_AS("onPollAccept", 2, "tcp client connected, but init failed !!\n");
        return false;
    }
    if (0 != pClient->start()) {
        LOG_AS("onPollAccept", 2, "tcp client connected, but start failed !!\n");
        (void)pClient->uninit();
        return false;
    }
    if (0 != addFd(socket.getFd(), CLIENT_MASK, pClient.get())) {
        LOG_AS("onPollAccept", 2, "tcp client connected, but add to epoll failed !!\n");
        (void)pClient->stop();
        (void)pClient->uninit();
        return false;
    }
    ++m_nClients;
    (void)pClient.release(); // its registration's, until onPollError
    return true;
}

RET_E TcpServer::onPollIn(Event* pEvent)
{
    auto& event = static_cast<EPollEvent&>(*pEvent);
    const TcpSocket socket(*event.m_pFd);
    bool bMore = true;
    for (int i = 0; bMore && i < MOST_READS; ++i) {
        // Without an owner (a read may give it up) nobody would ever drain it.
        if (!socket.isValid() || nullptr == *event.m_ppClient) {
            return RET_SUCCESS;
        }
        if (!(*event.m_ppClient)->mayRead()) {
            break;
        }
        if (0 != (*event.m_ppClient)->onRead(event)) {
            return onPollError(pEvent);
        }
        bMore = socket.waitReadable(Time());
    }
    return endTurn(event, bMore);
}

/** @param bMore  there is more to read */
RET_E TcpServer::endTurn(EPollEvent& event, bool bMore)
{
    TcpClient* pClient = *event.m_ppClient;
    if (nullptr == pClient) {
        return RET_FAILED; // nobody's any more, and not to be touched
    }
    const int nTurn = pClient->onTurn();
    if (0 != nTurn && TcpClient::TURN_AGAIN != nTurn) {
        return onPollError(&event);
    }
    // What was reported once is not reported again by itself.
    const bool bAgain = TcpClient::TURN_AGAIN == nTurn || (bMore && pClient->mayRead());
    if (bAgain && 0 != armAgain(event, CLIENT_MASK)) {
        return onPollError(&event);
    }
    return RET_SUCCESS;
}

RET_E TcpServer::onPollOut(Event* pEvent)
{
    auto& event = static_cast<EPollEvent&>(*pEvent);
    const TcpSocket socket(*event.m_pFd);
    if (!socket.isValid() || nullptr == *event.m_ppClient) {
        return RET_SUCCESS;
    }
    if (0 != (*event.m_ppClient)->onWrite(event)) {
        return onPollError(pEvent);
    }
    return endTurn(event, false);
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
    --m_nClients;
    *event.m_ppClient = nullptr;
    TcpSocket socket(*event.m_pFd);
    (void)deleteFd(socket.getFd(), event.m_ppClient); // the event's pointers end here
    (void)socket.close();
    return RET_FAILED;
}

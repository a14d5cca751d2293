// The HTTP server of the operator's interface: what keeps one client from the others.
#include "ApiServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ApiProblem.h"
#include "Time.h"

static const int LOOK_MS = 500; // between two looks for connections whose time is over

ApiServer::ApiServer(RequestRules rules)
    : m_router(std::move(rules)), m_nWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

ApiServer::~ApiServer()
{
    stop();
    for (const int nListener : m_vecListener) {
        ::close(nListener);
    }
    ::close(m_nWake);
}

bool ApiServer::listen(const std::string& strAddress, int nPort, std::string& strError)
{
    sockaddr_in in{};
    sockaddr_in6 in6{};
    in.sin_family = AF_INET;
    in.sin_port = htons(static_cast<uint16_t>(nPort));
    in6.sin6_family = AF_INET6;
    in6.sin6_port = in.sin_port;
    const bool bSix = 1 == inet_pton(AF_INET6, strAddress.c_str(), &in6.sin6_addr);
    if (!bSix && 1 != inet_pton(AF_INET, strAddress.c_str(), &in.sin_addr)) {
        strError = strAddress + " is no address";
        return false;
    }
    const int nFd =
        ::socket(bSix ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int nOne = 1;
    // Two may listen on "::" and "0.0.0.0" then; where it fails, bind tells.
    (void)setsockopt(nFd, SOL_SOCKET, SO_REUSEADDR, &nOne, sizeof(nOne));
    if (bSix) {
        (void)setsockopt(nFd, IPPROTO_IPV6, IPV6_V6ONLY, &nOne, sizeof(nOne));
    }
    const auto* const pAddress =
        bSix ? reinterpret_cast<const sockaddr*>(&in6) : reinterpret_cast<const sockaddr*>(&in);
    const socklen_t uSize = bSix ? sizeof(in6) : sizeof(in);
    if (nFd < 0 || 0 != bind(nFd, pAddress, uSize) || 0 != ::listen(nFd, 128)) {
        strError = strAddress + " port " + std::to_string(nPort) + ": " + strerror(errno);
        if (nFd >= 0) {
            ::close(nFd);
        }
        return false;
    }
    m_vecListener.push_back(nFd);
    return true;
}

void ApiServer::start()
{
    m_pThread = std::make_unique<Thread>(&ApiServer::loop, this, "station-http", 0, 0, 0, true);
    (void)m_pThread->start(); // returns 0
}

void ApiServer::stop()
{
    m_bEnd = true;
    const uint64_t u64One = 1;
    (void)!::write(m_nWake, &u64One, sizeof(u64One)); // full: it wakes anyway
    m_pThread.reset();
    for (WorkerPool* const pPool : {&m_off, &m_plain, &m_upload, &m_watch}) {
        pPool->close();
    }
}

int ApiServer::loop()
{
    std::vector<pollfd> vecPoll;
    vecPoll.push_back({m_nWake, POLLIN, 0});
    for (const int nListener : m_vecListener) {
        vecPoll.push_back({nListener, POLLIN, 0});
    }
    const size_t uFirst = vecPoll.size();
    for (const Guest& guest : m_vecGuest) {
        vecPoll.push_back({guest.pConnection->getFd(), POLLIN, 0});
    }
    if (::poll(vecPoll.data(), vecPoll.size(), LOOK_MS) < 0) {
        return m_bEnd ? 1 : 0; // EINTR
    }
    if (m_bEnd) {
        m_vecGuest.clear();
        return 1;
    }
    for (size_t u = uFirst; u < vecPoll.size(); ++u) {
        if (0 != vecPoll[u].revents) {
            look(m_vecGuest[u - uFirst]);
        }
    }
    dropLate();
    takeBack();
    for (size_t u = 1; u < uFirst; ++u) {
        if (0 != vecPoll[u].revents) {
            acceptAll(vecPoll[u].fd);
        }
    }
    return 0;
}

void ApiServer::acceptAll(int nListener)
{
    for (;;) {
        const int nFd = accept4(nListener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (nFd < 0) {
            if (EMFILE == errno || ENFILE == errno) {
                dropOldest();
            }
            return;
        }
        const int nOne = 1;
        (void)setsockopt(nFd, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne)); // only slower without
        if (m_nConnections >= MAX_CONNECTIONS) {
            dropOldest();
        }
        std::shared_ptr<ApiConnection> pConnection(new ApiConnection(nFd),
                                                   [this](const ApiConnection* p) {
                                                       delete p;
                                                       --m_nConnections;
                                                   });
        ++m_nConnections;
        if (m_nConnections > MAX_CONNECTIONS) {
            continue; // all the others are being answered
        }
        seat(std::move(pConnection), monotonicMs());
    }
}

/** It may have asked already. */
void ApiServer::seat(std::shared_ptr<ApiConnection> pConnection, uint64_t u64SinceMs)
{
    m_vecGuest.push_back({std::move(pConnection), u64SinceMs});
    look(m_vecGuest.back());
    if (nullptr == m_vecGuest.back().pConnection) {
        m_vecGuest.pop_back();
    }
}

void ApiServer::takeBack()
{
    uint64_t u64Count = 0;
    (void)!::read(m_nWake, &u64Count, sizeof(u64Count)); // nothing to read: woken by another
    std::vector<std::shared_ptr<ApiConnection>> vecBack;
    {
        const MutexGuard guard(m_mtxBack);
        vecBack.swap(m_vecBack);
    }
    for (std::shared_ptr<ApiConnection>& pConnection : vecBack) {
        seat(std::move(pConnection), monotonicMs());
    }
}

/** Its connection is gone from the guest when it is being answered, or closed. */
void ApiServer::look(Guest& guest)
{
    const bool bPart = guest.pConnection->hasPart();
    REQUEST_E eRequest = bPart ? guest.pConnection->classify() : REQUEST_PART;
    if (REQUEST_PART == eRequest) {
        eRequest = guest.pConnection->receive();
    }
    if (REQUEST_PART == eRequest) {
        guest.u64SinceMs =
            (bPart || !guest.pConnection->hasPart()) ? guest.u64SinceMs : monotonicMs();
        return;
    }
    const std::shared_ptr<ApiConnection> pConnection = std::move(guest.pConnection);
    guest.pConnection = nullptr;
    if (REQUEST_WRONG == eRequest) {
        answerAlone(*pConnection, pConnection->getProblem());
    } else if (REQUEST_GONE != eRequest) {
        dispatch(pConnection, eRequest);
    }
}

void ApiServer::dropLate()
{
    const uint64_t u64NowMs = monotonicMs();
    m_vecGuest.erase(
        std::remove_if(m_vecGuest.begin(), m_vecGuest.end(),
                       [u64NowMs](const Guest& guest) {
                           return nullptr == guest.pConnection ||
                                  u64NowMs > guest.u64SinceMs +
                                                 (guest.pConnection->hasPart() ? PART_MS : IDLE_MS);
                       }),
        m_vecGuest.end());
}

void ApiServer::dropOldest()
{
    const auto it = std::min_element(
        m_vecGuest.begin(), m_vecGuest.end(),
        [](const Guest& left, const Guest& right) { return left.u64SinceMs < right.u64SinceMs; });
    if (m_vecGuest.end() != it) {
        m_vecGuest.erase(it);
    }
}

void ApiServer::dispatch(const std::shared_ptr<ApiConnection>& pConnection, REQUEST_E eRequest)
{
    WorkerPool& pool = (REQUEST_OFF == eRequest)      ? m_off
                       : (REQUEST_WATCH == eRequest)  ? m_watch
                       : (REQUEST_UPLOAD == eRequest) ? m_upload
                                                      : m_plain;
    // An upload's rest may never come; a watcher's answer ends with the connection.
    const bool bLast = REQUEST_WATCH == eRequest || REQUEST_UPLOAD == eRequest;
    if (!pool.add([this, pConnection, bLast] { answer(pConnection, bLast); })) {
        answerAlone(*pConnection, "full");
    }
}

void ApiServer::answer(const std::shared_ptr<ApiConnection>& pConnection, bool bLast)
{
    pConnection->begin(monotonicMs() + UPLOAD_MS);
    const bool bGoesOn = m_router.serve(*pConnection, bLast);
    if (!pConnection->end() || !bGoesOn || bLast) {
        return;
    }
    {
        const MutexGuard guard(m_mtxBack);
        m_vecBack.push_back(pConnection);
    }
    const uint64_t u64One = 1;
    (void)!::write(m_nWake, &u64One, sizeof(u64One)); // full: it wakes anyway
}

/** Without the library, which would read on; the connection ends with it. */
void ApiServer::answerAlone(ApiConnection& connection, const char* pProblem)
{
    const ApiProblem problem(pProblem, "The request was not read.");
    const std::string strDocument = problem.getDocument();
    const std::string strAnswer = "HTTP/1.1 " + std::to_string(problem.getStatus()) +
                                  " Refused\r\nContent-Type: application/problem+json\r\n"
                                  "Connection: close\r\nContent-Length: " +
                                  std::to_string(strDocument.size()) + "\r\n\r\n" + strDocument;
    // Never waits: an answer of this size fits, or the peer does not want it.
    (void)!::send(connection.getFd(), strAnswer.data(), strAnswer.size(),
                  MSG_NOSIGNAL | MSG_DONTWAIT);
}

// The HTTP server of the operator's interface: what keeps one client from the others.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ApiConnection.h"
#include "ApiRouter.h"
#include "Mutex.h"
#include "RequestRules.h"
#include "Thread.h"
#include "WorkerPool.h"

/**
 * Connections wait on one thread, "station-http", which polls them and collects their requests; a
 * request that is whole goes to a pool: one for beam off, one for watchers, one for uploads, one
 * for all else. So no number of idle, slow or watching clients keeps a request waiting. The library
 * parses and answers it, on the pool's thread.
 *
 * At most MAX_CONNECTIONS: then the one that waits longest goes. One that says nothing goes after
 * IDLE_MS, one whose request does not get whole after PART_MS.
 */
class ApiServer
{
public:
    static const size_t MAX_CONNECTIONS = 400;
    static const size_t MAX_WATCHERS = 64;
    static const uint64_t IDLE_MS = 15000;
    static const uint64_t PART_MS = 5000;
    static const uint64_t UPLOAD_MS = 300000; // a file of 32 MiB

    explicit ApiServer(RequestRules rules);
    ApiServer(const ApiServer&) = delete;
    ApiServer& operator=(const ApiServer&) = delete;

    /** As stop(). */
    ~ApiServer();

    /** What there is to ask for; complete before start(). */
    ApiRouter& getRouter()
    {
        return m_router;
    }

    /** @param strError  one line, when it cannot be listened there */
    bool listen(const std::string& strAddress, int nPort, std::string& strError);

    void start();

    /** Waits for the requests under way; a handler that waits has to look at isEnding(). */
    void stop();

    bool isEnding() const
    {
        return m_bEnd;
    }

    /** Connections that are open. */
    size_t getConnections() const
    {
        return m_nConnections;
    }

private:
    /** A connection that waits for a request, or for the rest of one. */
    struct Guest
    {
        std::shared_ptr<ApiConnection> pConnection;
        uint64_t u64SinceMs;
    };

    int loop();
    void acceptAll(int nListener);
    void takeBack();
    void look(Guest& guest);
    void seat(std::shared_ptr<ApiConnection> pConnection, uint64_t u64SinceMs);
    void dropLate();
    void dropOldest();
    void dispatch(const std::shared_ptr<ApiConnection>& pConnection, REQUEST_E eRequest);
    void answer(const std::shared_ptr<ApiConnection>& pConnection, bool bLast);
    static void answerAlone(ApiConnection& connection, const char* pProblem);
    ApiRouter m_router;
    std::vector<int> m_vecListener;
    int m_nWake = -1; // eventfd(2): a connection has come back, or the end
    std::atomic<bool> m_bEnd{false};
    std::atomic<uint32_t> m_nConnections{0};

    std::vector<Guest> m_vecGuest;      // the thread's alone
    Mutex m_mtxBack{MUTEX_TYPE_NORMAL}; // guards what follows; innermost
    std::vector<std::shared_ptr<ApiConnection>> m_vecBack GUARDED_BY(m_mtxBack); // answered
    WorkerPool m_off{"station-off", 2, 200};
    WorkerPool m_plain{"station-api", 4, 200};
    WorkerPool m_upload{"station-file", 2, 8};
    WorkerPool m_watch{"station-watch", MAX_WATCHERS, 0};
    std::unique_ptr<Thread> m_pThread;
};

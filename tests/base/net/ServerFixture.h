// A TCP server whose steps can be made to fail, and a record of what happens to its connections.
#pragma once

#include <atomic>
#include <climits>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "NetPair.h"
#include "SendQueueTcpClient.h"
#include "TcpServer.h"

/** What happened, in order, as "STEP NUMBER" with the number of the connection. */
class StepLog
{
public:
    void note(const std::string& strStep, int nClient);

    /** Everything so far; also forgets it. */
    std::vector<std::string> take();

    int count(const std::string& strStep);

private:
    std::mutex m_mtx;
    std::vector<std::string> m_vecStep;
};

/** Echoes what it reads, a few bytes per call. */
class StepClient : public SendQueueTcpClient
{
public:
    StepClient(StepLog& steps, const std::set<std::string>& failing, int nNumber);
    ~StepClient() override;

    int init() override;
    int start() override;
    int stop() override;
    int uninit() override;
    int onRead(EPollEvent& event) override;
    int onWrite(EPollEvent& event) override;
    int onError(EPollEvent& event) override;

private:
    int step(const char* pStep);

    StepLog& m_steps;
    const std::set<std::string>& m_failing;
    const int m_nNumber;
};

/** On a port of the kernel's choice; buffers of 8192 and 16384 bytes. */
class StepServer : public TcpServer
{
public:
    explicit StepServer(int nMostClients = INT_MAX) : TcpServer(nullptr, nMostClients) {}
    ~StepServer() override;

    TcpClient* createClient() override;

    /** Make it listen on the loopback interface. */
    void listen();

    uint16_t getPort() const;
    int getListenFd() const
    {
        return m_socket.getFd();
    }

    /** Passes of the reactor on this thread until the steps have happened that often, or 30 s. */
    bool poll(const std::string& strStep, int nCount = 1);

    StepLog m_steps;
    std::set<std::string> m_failing;            // steps that return 1; "create" gives no client
    std::atomic<int> m_nClients{0};             // made so far
    StepClient* m_pLast = nullptr;              // made last
    std::function<void()> m_onCreate;           // called once a client has been made
    std::function<uint32_t(TcpClient&)> m_rank; // of makeRoom; without, there is none

protected:
    bool makeRoom() override
    {
        return m_rank && endHighest(m_rank);
    }
};

/** A server on a port of the kernel's choice whose connections are of a test's own class. */
template <typename ClientT> class ServerOf : public TcpServer
{
public:
    explicit ServerOf(int nMostClients = INT_MAX) : TcpServer(nullptr, nMostClients) {}
    ~ServerOf() override
    {
        endService();
    }
    TcpClient* createClient() override
    {
        m_pLast = new ClientT;
        return m_pLast;
    }
    int listen()
    {
        return init(0, "127.0.0.1", 4096, 4096);
    }
    uint16_t getPort() const
    {
        return portOf(m_socket.getFd());
    }

    ClientT* m_pLast = nullptr; // made last
};

/** What a server logs when it has not got a connection that it was to accept. */
inline std::string acceptLine(const char* pText)
{
    return std::string("[error] [TcpServer ] [onPollAccept] ") + pText;
}

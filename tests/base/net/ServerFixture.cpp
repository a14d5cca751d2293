// A TCP server whose steps can be made to fail, and a record of what happens to its connections.
#include "ServerFixture.h"

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "NetPair.h"

void StepLog::note(const std::string& strStep, int nClient)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    m_vecStep.push_back(strStep + " " + std::to_string(nClient));
}

std::vector<std::string> StepLog::take()
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    std::vector<std::string> vecResult;
    vecResult.swap(m_vecStep);
    return vecResult;
}

int StepLog::count(const std::string& strStep)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    int nCount = 0;
    for (const std::string& strNoted : m_vecStep) {
        nCount += (0 == strNoted.compare(0, strStep.size() + 1, strStep + " ")) ? 1 : 0;
    }
    return nCount;
}

StepClient::StepClient(StepLog& steps, const std::set<std::string>& failing, int nNumber)
    : m_steps(steps), m_failing(failing), m_nNumber(nNumber)
{
}

StepClient::~StepClient()
{
    (void)step("delete");
}

int StepClient::step(const char* pStep)
{
    m_steps.note(pStep, m_nNumber);
    return (0 != m_failing.count(pStep)) ? 1 : 0;
}

int StepClient::init()
{
    return step("init");
}

int StepClient::start()
{
    return step("start");
}

int StepClient::stop()
{
    return step("stop");
}

int StepClient::uninit()
{
    return step("uninit");
}

int StepClient::onError(EPollEvent&)
{
    return step("onError");
}

int StepClient::onWrite(EPollEvent& event)
{
    return (0 != m_failing.count("onWrite")) ? step("onWrite") : SendQueueTcpClient::onWrite(event);
}

int StepClient::onRead(EPollEvent&)
{
    char acBuffer[10];
    int nDone = 0;
    if (0 != m_socket.read(acBuffer, sizeof(acBuffer), nDone)) {
        return 1;
    }
    if (0 != m_failing.count("onRead")) {
        return step("onRead");
    }
    if (nDone > 0) {
        char* pCopy = static_cast<char*>(malloc(static_cast<size_t>(nDone)));
        memcpy(pCopy, acBuffer, static_cast<size_t>(nDone));
        send(SafePointer_C<char>(pCopy), nDone);
    }
    return 0;
}

StepServer::~StepServer()
{
    endService(); // the clients use the record
}

TcpClient* StepServer::createClient()
{
    const int nNumber = ++m_nClients;
    m_steps.note("create", nNumber);
    if (0 != m_failing.count("create")) {
        return nullptr;
    }
    m_pLast = new StepClient(m_steps, m_failing, nNumber);
    if (m_onCreate) {
        m_onCreate();
    }
    return m_pLast;
}

void StepServer::listen()
{
    ASSERT_EQ(0, init(0, "127.0.0.1", 8192, 16384));
}

uint16_t StepServer::getPort() const
{
    return portOf(m_socket.getFd());
}

bool StepServer::poll(const std::string& strStep, int nCount)
{
    return eventually([&] {
        if (m_steps.count(strStep) >= nCount) {
            return true;
        }
        (void)pollOnce();
        return false;
    });
}

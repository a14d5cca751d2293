// A TCP server whose steps can be made to fail, and a journal of what happens to its connections.
#include "ServerFixture.h"

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "NetPair.h"

void Journal::note(const std::string& strStep, int nClient)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    m_vecStep.push_back(strStep + " " + std::to_string(nClient));
}

std::vector<std::string> Journal::take()
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    std::vector<std::string> vecResult;
    vecResult.swap(m_vecStep);
    return vecResult;
}

int Journal::count(const std::string& strStep)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    int nCount = 0;
    for (const std::string& strNoted : m_vecStep) {
        nCount += (0 == strNoted.compare(0, strStep.size() + 1, strStep + " ")) ? 1 : 0;
    }
    return nCount;
}

JournalClient::JournalClient(Journal& journal, const std::set<std::string>& failing, int nNumber)
    : m_journal(journal), m_failing(failing), m_nNumber(nNumber)
{
}

JournalClient::~JournalClient()
{
    (void)step("delete");
}

int JournalClient::step(const char* pStep)
{
    m_journal.note(pStep, m_nNumber);
    return (0 != m_failing.count(pStep)) ? 1 : 0;
}

int JournalClient::init()
{
    return step("init");
}

int JournalClient::start()
{
    return step("start");
}

int JournalClient::stop()
{
    return step("stop");
}

int JournalClient::uninit()
{
    return step("uninit");
}

int JournalClient::onError(EPollEvent&)
{
    return step("onError");
}

int JournalClient::onWrite(EPollEvent& event)
{
    return (0 != m_failing.count("onWrite")) ? step("onWrite") : SendQueueTcpClient::onWrite(event);
}

int JournalClient::onRead(EPollEvent&)
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

JournalServer::~JournalServer()
{
    endService(); // the clients use the journal
}

TcpClient* JournalServer::createClient()
{
    const int nNumber = ++m_nClients;
    m_journal.note("create", nNumber);
    if (0 != m_failing.count("create")) {
        return nullptr;
    }
    m_pLast = new JournalClient(m_journal, m_failing, nNumber);
    if (m_onCreate) {
        m_onCreate();
    }
    return m_pLast;
}

void JournalServer::listen()
{
    ASSERT_EQ(0, init(0, "127.0.0.1", 8192, 16384));
}

uint16_t JournalServer::getPort() const
{
    return portOf(m_socket.getFd());
}

bool JournalServer::poll(const std::string& strStep, int nCount)
{
    return eventually([&] {
        if (m_journal.count(strStep) >= nCount) {
            return true;
        }
        (void)pollOnce();
        return false;
    });
}

// The operator's socket.
#include "OperatorSocket.h"

#include <array>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "Descriptors.h"
#include "ScratchFolder.h"

namespace {

class OperatorSocketRequests : public testing::Test
{
protected:
    OperatorSocketRequests() : m_strPath((m_folder.path() / "socket").string())
    {
        m_pSocket = std::make_unique<OperatorSocket>(
            [this](OperatorSocket::Client& client, const std::string& strLine) {
                m_vecLine.push_back(strLine);
                m_uUser = client.uUser;
                m_nPassed = client.nPassed;
                m_uNumber = client.uNumber;
                client.bEvents = client.bEvents || "events" == strLine;
                return ("later" == strLine) ? "" : "[" + strLine + "]";
            });
    }
    ~OperatorSocketRequests() override
    {
        for (const int nFd : m_vecFd) {
            close(nFd);
        }
    }
    void open(const std::string& strGroup = "")
    {
        std::string strError;
        ASSERT_EQ(SOCKET_OPEN, m_pSocket->open(m_strPath, strGroup, strError)) << strError;
    }
    static int connectTo(const std::string& strPath)
    {
        const int nFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, strPath.c_str(), strPath.size());
        return (0 == ::connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address))) ? nFd
                                                                                             : -1;
    }
    int connect()
    {
        m_vecFd.push_back(connectTo(m_strPath));
        EXPECT_GE(m_vecFd.back(), 0);
        serve();
        return m_vecFd.back();
    }
    /** Serve until nothing is left to do. */
    void serve()
    {
        for (int n = 0; n < 1000; ++n) {
            std::vector<pollfd> vecPoll;
            m_pSocket->addTo(vecPoll);
            if (0 == poll(vecPoll.data(), vecPoll.size(), 0)) {
                return;
            }
            m_pSocket->serve(vecPoll);
        }
        FAIL() << "never at rest";
    }
    /** Send, have it served, and read what came back; "closed" at the connection's end. */
    std::string ask(int nFd, const std::string& strBytes)
    {
        (void)!::send(nFd, strBytes.data(), strBytes.size(), MSG_NOSIGNAL);
        serve();
        return receive(nFd);
    }
    static std::string receive(int nFd)
    {
        std::string strText;
        std::array<char, 65536> acData{};
        ssize_t n = 0;
        while ((n = recv(nFd, acData.data(), acData.size(), 0)) > 0) {
            strText.append(acData.data(), static_cast<size_t>(n));
        }
        return strText + ((0 == n || ECONNRESET == errno) ? "closed" : "");
    }
    static void pass(int nFd, const std::string& strBytes, const std::vector<int>& vecPassed)
    {
        std::string strText = strBytes;
        iovec data{strText.data(), strText.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(8 * sizeof(int))> acControl{};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = acControl.data();
        message.msg_controllen = CMSG_SPACE(vecPassed.size() * sizeof(int));
        cmsghdr* const pHeader = CMSG_FIRSTHDR(&message);
        pHeader->cmsg_level = SOL_SOCKET;
        pHeader->cmsg_type = SCM_RIGHTS;
        pHeader->cmsg_len = CMSG_LEN(vecPassed.size() * sizeof(int));
        memcpy(CMSG_DATA(pHeader), vecPassed.data(), vecPassed.size() * sizeof(int));
        EXPECT_GT(sendmsg(nFd, &message, MSG_NOSIGNAL), 0);
    }
    /** Whether a process of this user and group can connect. */
    bool canConnect(uid_t uUser, gid_t uGroup) const
    {
        const pid_t nChild = fork();
        if (0 == nChild) {
            const bool bBecome =
                0 == setgroups(0, nullptr) && 0 == setgid(uGroup) && 0 == setuid(uUser);
            _exit(!bBecome ? 2 : (connectTo(m_strPath) >= 0) ? 0 : 1);
        }
        int nStatus = 0;
        waitpid(nChild, &nStatus, 0);
        EXPECT_NE(2, WEXITSTATUS(nStatus)) << "needs the right to become somebody else";
        return 0 == WEXITSTATUS(nStatus);
    }

    ScratchFolder m_folder;
    std::string m_strPath;
    std::vector<std::string> m_vecLine;
    uid_t m_uUser = 0;
    int m_nPassed = -1;
    unsigned m_uNumber = 0;
    std::unique_ptr<OperatorSocket> m_pSocket;
    std::vector<int> m_vecFd;
};

} // namespace

TEST_F(OperatorSocketRequests, EachLineIsAnsweredByOneInOrder)
{
    open();
    const int nFd = connect();

    EXPECT_EQ("[a]\n[]\n[b]\n", ask(nFd, "a\n\nb\nc"));
    EXPECT_EQ("[cd]\n", ask(nFd, "d\n"));
    EXPECT_EQ(geteuid(), m_uUser);
}

TEST_F(OperatorSocketRequests, LineOfTheGreatestLengthPassesAndALongerOneEndsTheConnection)
{
    open();
    const int nFd = connect();
    const std::string strLine(4096, 'x');

    EXPECT_EQ("[" + strLine + "]\n", ask(nFd, strLine + "\n"));
    EXPECT_EQ("closed", ask(nFd, strLine + "x\n"));
    const int nOther = connect();
    EXPECT_EQ("closed", ask(nOther, strLine + "x")); // no end in sight
    EXPECT_EQ(1U, m_vecLine.size());
}

TEST_F(OperatorSocketRequests, NinthConnectionIsClosedUntilAnotherGoes)
{
    open();
    for (int n = 0; n < 8; ++n) {
        EXPECT_EQ("[x]\n", ask(connect(), "x\n"));
    }

    EXPECT_EQ("closed", ask(connect(), "x\n"));
    EXPECT_EQ("[y]\n", ask(m_vecFd[0], "y\n"));
    close(m_vecFd[3]);
    m_vecFd.erase(m_vecFd.begin() + 3);
    serve();
    EXPECT_EQ("[x]\n", ask(connect(), "x\n"));
}

TEST_F(OperatorSocketRequests, DescriptorReachesTheHandlerAndTheRestIsClosed)
{
    open();
    const int nFd = connect();
    const size_t uBefore = openDescriptors().size();

    pass(nFd, "a\n", {STDIN_FILENO});
    serve();
    EXPECT_GE(m_nPassed, 0);
    EXPECT_EQ(uBefore + 1, openDescriptors().size());
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_nPassed, F_GETFD));

    pass(nFd, "b\n", {STDIN_FILENO, STDIN_FILENO});
    pass(nFd, "c\n", {STDIN_FILENO, STDIN_FILENO, STDIN_FILENO, STDIN_FILENO, STDIN_FILENO});
    serve();
    EXPECT_EQ(uBefore + 1, openDescriptors().size()); // the last one of them
    EXPECT_EQ("[a]\n[b]\n[c]\n", receive(nFd));
    EXPECT_EQ("closed", ask(nFd, std::string(5000, 'x')));
    EXPECT_EQ(uBefore - 1, openDescriptors().size()); // the connection's own end is gone, too
}

TEST_F(OperatorSocketRequests, AnswerMayComeLaterAndHoldsBackItsOwnClientAlone)
{
    open();
    const int nFd = connect();
    const int nOther = connect();

    EXPECT_EQ("", ask(nFd, "later\nnext\n"));
    const unsigned uNumber = m_uNumber;
    EXPECT_EQ("[x]\n", ask(nOther, "x\n"));
    EXPECT_TRUE(m_pSocket->isConnected(uNumber));

    m_pSocket->answer(uNumber, "now");

    EXPECT_EQ("now\n[next]\n", receive(nFd));
    m_pSocket->answer(uNumber, "again"); // nobody waits
    EXPECT_EQ("", receive(nFd));
}

TEST_F(OperatorSocketRequests, ClientThatGoesBeforeItsAnswerIsForgotten)
{
    open();
    const int nFd = connect();
    ASSERT_EQ("", ask(nFd, "later\n"));
    const unsigned uNumber = m_uNumber;
    close(nFd);
    m_vecFd.clear();

    serve();

    EXPECT_FALSE(m_pSocket->isConnected(uNumber));
    m_pSocket->answer(uNumber, "now");
}

TEST_F(OperatorSocketRequests, EventsGoToWhoAskedForThem)
{
    open();
    const int nFd = connect();
    const int nOther = connect();
    ASSERT_EQ("[events]\n", ask(nFd, "events\n"));

    m_pSocket->publish("{}\n");

    EXPECT_EQ("{}\n", receive(nFd));
    EXPECT_EQ("", receive(nOther));
}

TEST_F(OperatorSocketRequests, SlowReaderOfEventsLosesItsConnectionAndCostsNoMemory)
{
    open();
    const int nSlow = connect();
    const int nOther = connect();
    ASSERT_EQ("[events]\n", ask(nSlow, "events\n"));
    const std::string strEvent = std::string(200, 'e') + "\n";
    const size_t uBefore = allocatedBytes();

    for (int n = 0; n < 100000; ++n) { // 20 MB that nobody reads; never blocks
        m_pSocket->publish(strEvent.c_str());
    }

    EXPECT_EQ(uBefore, allocatedBytes());
    EXPECT_EQ("[x]\n", ask(nOther, "x\n"));
    const std::string strTaken = receive(nSlow);
    EXPECT_EQ("closed", strTaken.substr(strTaken.size() - 6));
    EXPECT_LT(strTaken.size(), 100000U * 201);
}

TEST_F(OperatorSocketRequests, ClientThatDoesNotReadItsAnswersLosesItsConnection)
{
    open();
    const int nSlow = connect();
    const std::string strLine = std::string(4000, 'x') + "\n";

    for (int n = 0; n < 10000 && ::send(nSlow, strLine.data(), strLine.size(), MSG_NOSIGNAL) > 0;
         ++n) {
        serve();
    }

    const std::string strTaken = receive(nSlow);
    EXPECT_EQ("closed", strTaken.substr(strTaken.size() - 6));
    EXPECT_EQ("[x]\n", ask(connect(), "x\n"));
}

TEST_F(OperatorSocketRequests, OnlyOwnerAndGroupMayConnect)
{
    const gid_t nGroup = (0 == geteuid()) ? 1 : getegid(); // only root may give it to any
    const group* const pGroup = getgrgid(nGroup);
    ASSERT_NE(nullptr, pGroup);
    ASSERT_EQ(0, chmod(m_folder.path().c_str(), 0755)); // the folder is not what keeps them out
    open(pGroup->gr_name);

    struct stat status = {};
    ASSERT_EQ(0, stat(m_strPath.c_str(), &status));
    EXPECT_EQ(0660U, status.st_mode & 0777U);
    EXPECT_EQ(nGroup, status.st_gid);
    if (0 == geteuid()) { // else nobody can be somebody else
        EXPECT_TRUE(canConnect(65534, nGroup));
        EXPECT_FALSE(canConnect(65534, 65534));
    }
}

TEST_F(OperatorSocketRequests, WhatIsInTheWayIsTold)
{
    std::string strError;
    EXPECT_EQ(SOCKET_FAILED, m_pSocket->open("/nonexistent/socket", "", strError));
    EXPECT_EQ("/nonexistent/socket: No such file or directory", strError);
    EXPECT_EQ(SOCKET_REFUSED, m_pSocket->open(m_strPath, "no such one", strError));
    EXPECT_EQ("no such group: no such one", strError);
    EXPECT_EQ(SOCKET_REFUSED, m_pSocket->open(std::string(200, 'x'), "", strError));
    EXPECT_EQ("the socket's path is too long: " + std::string(200, 'x'), strError);
}

TEST_F(OperatorSocketRequests, SocketOfAnotherGuardIsLeftAloneAndADeadOnesReplaced)
{
    open();
    OperatorSocket other([](OperatorSocket::Client&, const std::string&) { return "x"; });
    std::string strError;

    EXPECT_EQ(SOCKET_REFUSED, other.open(m_strPath, "", strError));
    EXPECT_EQ("another guard has " + m_strPath, strError);
    serve(); // the other's look
    EXPECT_EQ("[x]\n", ask(connect(), "x\n"));

    const pid_t nChild = fork();
    if (0 == nChild) { // dies without taking its socket along
        OperatorSocket dead([](OperatorSocket::Client&, const std::string&) { return "x"; });
        _exit((SOCKET_OPEN == dead.open(m_strPath + "2", "", strError)) ? 0 : 1);
    }
    int nStatus = 1;
    waitpid(nChild, &nStatus, 0);
    ASSERT_EQ(0, nStatus);
    EXPECT_EQ(SOCKET_OPEN, other.open(m_strPath + "2", "", strError)) << strError;
}

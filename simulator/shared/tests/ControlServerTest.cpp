// The server of the control socket.
#include "ControlServer.h"

#include <cerrno>
#include <string>
#include <thread>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ControlClient.h"
#include "LocalSocket.h"
#include "ScratchFolder.h"

namespace {

/** A server that answers a line by itself in angle brackets, and counts. */
class Serving
{
public:
    explicit Serving(const std::string& strPath)
        : m_server([this](const std::string& strLine) {
              ++m_nAnswered;
              return "<" + strLine + ">";
          })
    {
        EXPECT_TRUE(m_server.start(strPath));
    }

    void handleOnce()
    {
        std::vector<pollfd> vecPoll;
        m_server.watch(vecPoll);
        ASSERT_LT(0, ::poll(vecPoll.data(), vecPoll.size(), 30000));
        m_server.handle();
    }

    int getAnswered() const
    {
        return m_nAnswered;
    }

private:
    int m_nAnswered = 0;
    ControlServer m_server;
};

} // namespace

TEST(ControlServer, EveryLineIsAnswered)
{
    ScratchFolder folder;
    Serving serving(folder.path() / "control");
    std::string strFirst;
    std::string strSecond;
    std::thread client([&] {
        ControlClient control;
        EXPECT_TRUE(control.connect(folder.path() / "control"));
        EXPECT_TRUE(control.ask("one", strFirst));
        EXPECT_TRUE(control.ask("two words", strSecond));
    });

    while (serving.getAnswered() < 2) {
        serving.handleOnce();
    }
    client.join();

    EXPECT_EQ("<one>", strFirst);
    EXPECT_EQ("<two words>", strSecond);
}

TEST(ControlServer, EndlessLineEndsTheConnection)
{
    ScratchFolder folder;
    Serving serving(folder.path() / "control");
    const int nFd = connectTo(folder.path() / "control", SOCK_STREAM);
    ASSERT_LE(0, nFd);
    const std::string strBytes(5000, 'x');
    ASSERT_EQ(5000, ::send(nFd, strBytes.data(), strBytes.size(), MSG_NOSIGNAL));

    serving.handleOnce();

    char c = 0;
    EXPECT_GE(0, ::recv(nFd, &c, 1, 0)); // closed; reset where bytes were left unread
    ::close(nFd);
}

TEST(ControlServer, ClientThatDoesNotReadIsClosed)
{
    ScratchFolder folder;
    Serving serving(folder.path() / "control");
    const int nFd = connectTo(folder.path() / "control", SOCK_STREAM);
    ASSERT_LE(0, nFd);
    const std::string strLine = std::string(1000, 'x') + "\n";

    ssize_t nSent = 0;
    for (int i = 0; i < 10000 && nSent >= 0; ++i) { // the answers fill the client's buffer
        nSent = ::send(nFd, strLine.data(), strLine.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (nSent >= 0) {
            serving.handleOnce();
        }
    }

    EXPECT_EQ(-1, nSent);
    EXPECT_TRUE(EPIPE == errno || ECONNRESET == errno) << errno;
    ::close(nFd);
}

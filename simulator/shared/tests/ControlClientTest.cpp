// The client of the control socket: paths and connections that fail.
#include "ControlClient.h"

#include <cerrno>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "LocalSocket.h"
#include "ScratchFolder.h"

TEST(ControlClient, LongPathIsRefused)
{
    ControlClient client;

    EXPECT_FALSE(client.connect("/tmp/" + std::string(108, 'x')));

    EXPECT_EQ(ENAMETOOLONG, errno);
}

TEST(ControlClient, BrokenConnectionIsTold)
{
    ScratchFolder folder;
    const int nListener = listenAt(folder.path() / "control", SOCK_STREAM);
    ControlClient client;
    ASSERT_TRUE(client.connect(folder.path() / "control"));
    ::close(nListener);
    std::string strAnswer;

    EXPECT_FALSE(client.ask("anything", strAnswer));
}

// The module of the HTTP service: a port that is taken, and the console's commands.
#include "CommucationModule.h"

#include <string>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DebugCmdEvent.h"
#include "LogCapture.h"
#include "WebCamera.h"

TEST(CommucationModule, PortInUseFailsAndIsLogged)
{
    LogCapture log(0);
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(8329);
    const int nReuse = 1;
    setsockopt(nFd, SOL_SOCKET, SO_REUSEADDR, &nReuse, sizeof(nReuse));
    ASSERT_EQ(0, bind(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(nFd, 1));

    EXPECT_EQ(RET_FAILED, CommucationModule::getInstance().init());

    EXPECT_NE(std::string::npos,
              log.text().find("accept socket bind error !!   accept ip:(null) port:8329\n"))
        << log.text();
    (void)WebCamera::getInstance().uninit();
    ::close(nFd);
}

TEST(CommucationModule, DebugCommandDoesNothing)
{
    LogCapture log;
    const char* apWords[] = {"CommucationModule", "x"};
    const int nOne = 1;
    const int nTwo = 2;
    DebugCmdEvent one(&nOne, apWords);
    DebugCmdEvent two(&nTwo, apWords);

    EXPECT_EQ(0, CommucationModule::getInstance().onDebugCmd(&one));
    EXPECT_EQ(0, CommucationModule::getInstance().onDebugCmd(&two));
    EXPECT_EQ("", log.text());
}

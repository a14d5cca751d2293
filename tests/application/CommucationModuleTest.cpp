// The module of the HTTP service: a port that is taken, and the console's commands.
#include "CommucationModule.h"

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AtExitOrder.h"
#include "ControllerPort.h"
#include "DebugCmdEvent.h"
#include "Descriptors.h"
#include "LogCapture.h"
#include "SystemModule.h"
#include "VideoCapturer.h"
#include "VideoProcessor.h"
#include "WebCamera.h"

namespace {

/** A connection to the service's port; -1 when it is refused. */
int connected()
{
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(8329);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (0 != connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address))) {
        ::close(nFd);
        return -1;
    }
    return nFd;
}

/** The first to use any of them is the server. */
void exitInOrder()
{
    const void* const pServer = &WebCamera::getInstance();
    const void* const pModule = &SystemModule::getInstance();
    const bool bDevices = outlive({&VideoCapturer::getInstance(), &VideoProcessor::getInstance(),
                                   &ControllerPort::getInstance()},
                                  pModule);
    exit(bDevices && outlive({pModule}, pServer) ? 0 : 1);
}

/** Ends the process in the middle of service, under a crowd that comes and goes. */
void exitWhilePeersCome()
{
    if (RET_SUCCESS != CommucationModule::getInstance().init() ||
        RET_SUCCESS != CommucationModule::getInstance().start()) {
        exit(1);
    }
    static std::atomic<int> s_nCame{0}; // outlives the crowd
    for (int i = 0; i < 4; ++i) {
        std::thread([] {
            for (;;) {
                const int nFd = connected();
                if (nFd >= 0) {
                    ++s_nCame;
                    ::close(nFd);
                }
            }
        }).detach();
    }
    while (s_nCame < 10) {
        std::this_thread::yield();
    }
    exit(0);
}

} // namespace

/** Before the others: its child is a fork, and what they leave has threads. */
TEST(CommucationModule, PeersMayComeWhileTheServerGoes)
{
    EXPECT_EXIT(exitWhilePeersCome(), testing::ExitedWithCode(0), "");
}

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

TEST(CommucationModule, ServesItsPortFromStartToStop)
{
    CommucationModule& module = CommucationModule::getInstance();
    ASSERT_EQ(RET_SUCCESS, module.init());
    const int nFd = connected();
    ASSERT_LE(0, nFd);
    ASSERT_EQ(24, send(nFd, "GET /camera HTTP/1.1\r\n\r\n", 24, 0));

    ASSERT_EQ(RET_SUCCESS, module.start());

    pollfd entry{nFd, POLLIN, 0};
    ASSERT_EQ(1, poll(&entry, 1, 30000)) << "no answer";
    char acAnswer[16] = {0};
    EXPECT_EQ(15, recv(nFd, acAnswer, 15, MSG_WAITALL));
    EXPECT_STREQ("HTTP/1.1 200 OK", acAnswer);
    EXPECT_TRUE(hasSocketWithBuffers(8329, 35840));
    ::close(nFd);
    EXPECT_EQ(RET_SUCCESS, module.stop());
    EXPECT_EQ(RET_SUCCESS, module.uninit());
    EXPECT_EQ(-1, connected()) << "the port is closed";
}

TEST(CommucationModule, ServerDiesBeforeTheModuleAndThatBeforeItsDevices)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process that has used none of them yet
    EXPECT_EXIT(exitInOrder(), testing::ExitedWithCode(0), "");
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

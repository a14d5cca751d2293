// LogServer: its end at the end of the process.
#include <atomic>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Time.h"

// The reactor is at work until the server has stopped it: what it accepts meanwhile still has to
// find a whole server.
TEST(LogServerEnd, ViewersThatComeMeanwhileDoNoHarm)
{
    for (int i = 0; i < 5; ++i) {
        ChildProgram program({BASE_CHILD, "server", "0"});
        ASSERT_TRUE(program.waitForOutput("ready\n"));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(
            std::stoi(program.output().substr(program.output().find("port ") + 5))));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::atomic<bool> bEnded{false};
        std::thread viewers([&] {
            while (!bEnded) {
                const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                (void)connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
                close(nFd);
                sleepFor(Time(0, 500));
            }
        });

        program.closeInput();
        const ChildResult result = program.wait();

        bEnded = true;
        viewers.join();
        EXPECT_EQ(0, result.nStatus);
        EXPECT_EQ("", result.strError);
    }
}

// The log server: its port, what it prints, and the log's sinks with and without it.
#include "LogServer.h"

#include <filesystem>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "LogViewer.h"
#include "ScratchFolder.h"

namespace {

/** A port of the kernel's choice that somebody listens on already. */
class TakenPort
{
public:
    TakenPort() : m_nFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        socklen_t uLength = sizeof(address);
        EXPECT_EQ(0, bind(m_nFd, reinterpret_cast<sockaddr*>(&address), uLength));
        EXPECT_EQ(0, listen(m_nFd, 1));
        EXPECT_EQ(0, getsockname(m_nFd, reinterpret_cast<sockaddr*>(&address), &uLength));
        m_nNumber = ntohs(address.sin_port);
    }
    TakenPort(const TakenPort&) = delete;
    TakenPort& operator=(const TakenPort&) = delete;
    ~TakenPort()
    {
        close(m_nFd);
    }

    int number() const
    {
        return m_nNumber;
    }

private:
    int m_nFd;
    int m_nNumber = 0;
};

/** @return what a server that was started with port 0 has printed as its own */
uint16_t portOf(const ChildProgram& program)
{
    const size_t uAt = program.output().find("port ");
    return static_cast<uint16_t>(std::stoi(program.output().substr(uAt + 5)));
}

} // namespace

TEST(LogServer, WhatAViewerSendsIsPrinted)
{
    ChildProgram program({BASE_CHILD, "server", "0"});
    ASSERT_TRUE(program.waitForOutput("ready\n"));
    {
        Viewer viewer(portOf(program));
        viewer.send("hello");
        EXPECT_TRUE(program.waitForOutput("logserver recv:hello\n")) << program.output();

        program.write("a line\n");
        EXPECT_TRUE(viewer.readUntil("a line\n"));
        EXPECT_EQ("a line\n", viewer.text());
    }
    program.closeInput();

    EXPECT_EQ(0, program.wait().nStatus);
}

TEST(LogServer, LongInputIsPrintedInPiecesOfTheBuffer)
{
    ChildProgram program({BASE_CHILD, "server", "0"});
    ASSERT_TRUE(program.waitForOutput("ready\n"));
    const Viewer viewer(portOf(program));

    viewer.send(std::string(2048, 'a') + "b");

    EXPECT_TRUE(program.waitForOutput("b\n"));
    EXPECT_EQ("port " + std::to_string(portOf(program)) +
                  "\nready\nlogserver recv:" + std::string(2048, 'a') + "\nlogserver recv:b\n",
              program.output());
}

TEST(LogServer, WithoutTheServerSinkNothingListens)
{
    ScratchFolder folder;
    const ChildResult result =
        runChild({BASE_CHILD, "sinks", "2", (folder.path() / "log").string(), "0"});

    EXPECT_NE(std::string::npos, result.strOutput.find("not listening\n"));
    EXPECT_EQ(0, result.nStatus);
}

TEST(LogServer, WithTheServerSinkItListensAndNoFileIsMade)
{
    ScratchFolder folder;
    const ChildResult result =
        runChild({BASE_CHILD, "sinks", "4", (folder.path() / "log").string(), "0"});

    EXPECT_EQ("listening\n", result.strOutput);
    EXPECT_EQ(0, result.nStatus);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(LogServer, TakenPortIsLoggedAndTheProgramGoesOn)
{
    ScratchFolder folder;
    const TakenPort taken;
    const std::string strPort = std::to_string(taken.number());

    const ChildResult result =
        runChild({BASE_CHILD, "sinks", "5", (folder.path() / "log").string(), strPort});

    EXPECT_NE(std::string::npos,
              result.strOutput.find(
                  "accept socket bind error !!   accept ip:(null) port:" + strPort + "\n"))
        << result.strOutput;
    EXPECT_NE(std::string::npos, result.strOutput.find("a line\n"));
    EXPECT_EQ(0, result.nStatus);
}

TEST(LogServer, PortIsTakenModulo65536)
{
    ScratchFolder folder;
    const TakenPort taken;

    const ChildResult result = runChild({BASE_CHILD, "sinks", "5", (folder.path() / "log").string(),
                                         std::to_string(taken.number() + 65536)});

    EXPECT_NE(std::string::npos,
              result.strOutput.find("accept socket bind error !!   accept ip:(null) port:" +
                                    std::to_string(taken.number()) + "\n"))
        << result.strOutput;
}

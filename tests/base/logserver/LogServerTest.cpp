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
#include "FreePort.h"
#include "LogViewer.h"
#include "ScratchFolder.h"

TEST(LogServer, WhatAViewerSendsIsPrinted)
{
    const uint16_t u16Port = freePort();
    ChildProgram program({BASE_CHILD, "server", std::to_string(u16Port)});
    ASSERT_TRUE(program.waitForOutput("ready\n"));
    {
        Viewer viewer(u16Port);
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
    const uint16_t u16Port = freePort();
    ChildProgram program({BASE_CHILD, "server", std::to_string(u16Port)});
    ASSERT_TRUE(program.waitForOutput("ready\n"));
    const Viewer viewer(u16Port);

    viewer.send(std::string(2048, 'a') + "b");

    EXPECT_TRUE(program.waitForOutput("b\n"));
    EXPECT_EQ("ready\nlogserver recv:" + std::string(2048, 'a') + "\nlogserver recv:b\n",
              program.output());
}

TEST(LogServer, WithoutTheServerSinkNothingListens)
{
    ScratchFolder folder;
    const ChildResult result = runChild(
        {BASE_CHILD, "sinks", "2", (folder.path() / "log").string(), std::to_string(freePort())});

    EXPECT_NE(std::string::npos, result.strOutput.find("not listening\n"));
    EXPECT_EQ(0, result.nStatus);
}

TEST(LogServer, WithTheServerSinkItListensAndNoFileIsMade)
{
    ScratchFolder folder;
    const ChildResult result = runChild(
        {BASE_CHILD, "sinks", "4", (folder.path() / "log").string(), std::to_string(freePort())});

    EXPECT_EQ("listening\n", result.strOutput);
    EXPECT_EQ(0, result.nStatus);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(LogServer, PortIsTakenModulo65536)
{
    ScratchFolder folder;
    const uint16_t u16Port = freePort();
    ChildProgram program({BASE_CHILD, "server", std::to_string(u16Port + 65536)});
    ASSERT_TRUE(program.waitForOutput("ready\n"));

    Viewer viewer(u16Port);
    viewer.send("x");

    EXPECT_TRUE(program.waitForOutput("logserver recv:x\n"));
}

TEST(LogServer, TakenPortIsLoggedAndTheProgramGoesOn)
{
    ScratchFolder folder;
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t uLength = sizeof(address);
    ASSERT_EQ(0, bind(nFd, reinterpret_cast<sockaddr*>(&address), uLength));
    ASSERT_EQ(0, listen(nFd, 1));
    ASSERT_EQ(0, getsockname(nFd, reinterpret_cast<sockaddr*>(&address), &uLength));
    const std::string strPort = std::to_string(ntohs(address.sin_port));

    const ChildResult result =
        runChild({BASE_CHILD, "sinks", "5", (folder.path() / "log").string(), strPort});

    close(nFd);
    EXPECT_NE(std::string::npos,
              result.strOutput.find(
                  "accept socket bind error !!   accept ip:(null) port:" + strPort + "\n"))
        << result.strOutput;
    EXPECT_NE(std::string::npos, result.strOutput.find("a line\n"));
    EXPECT_EQ(0, result.nStatus);
}

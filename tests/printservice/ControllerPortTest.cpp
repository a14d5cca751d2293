// Looking for the controller's port: which name is taken, and what is open meanwhile.
#include "ControllerPort.h"

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "BoardEnvironment.h"
#include "CallJournal.h"
#include "Fault.h"
#include "ScratchFolder.h"

namespace {

[[maybe_unused]] const testing::Environment* const ENVIRONMENT =
    testing::AddGlobalTestEnvironment(new BoardEnvironment);

/** A pseudo terminal that stands in /dev as the controller's node. */
class ControllerPortLook : public testing::Test
{
protected:
    void TearDown() override
    {
        ControllerPort::getInstance().getUart().close();
        EXPECT_EQ(0, unlink(m_strNode.c_str()));
        close(m_nSlave);
        close(m_nMaster);
    }

    void plug(const std::string& strNode)
    {
        std::array<char, 64> acPath{};
        ASSERT_EQ(0, openpty(&m_nMaster, &m_nSlave, acPath.data(), nullptr, nullptr));
        m_strNode = strNode;
        m_strTerminal = acPath.data();
        ASSERT_EQ(0, symlink(acPath.data(), strNode.c_str()));
    }

    /** Open the port. @return what was told */
    static std::string look()
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(RET_SUCCESS, ControllerPort::getInstance().open());
        return testing::internal::GetCapturedStdout();
    }

    int m_nMaster = -1;
    int m_nSlave = -1;
    std::string m_strNode;
    std::string m_strTerminal;
};

} // namespace

TEST_F(ControllerPortLook, NameMayHaveSeventyEightCharacters)
{
    const std::string strNode = "/dev/ttyACM" + std::string(78 - 11, '1');
    plug(strNode);

    EXPECT_EQ("[" + strNode + "]", look());
}

// A node that stays open keeps its number when the controller is plugged anew.
TEST_F(ControllerPortLook, FindsThePortClosed)
{
    plug("/dev/ttyACM0");
    (void)look();
    const ScratchFolder folder;
    folder.write("ls", "#!/bin/sh\n/bin/ls -l /proc/" + std::to_string(getpid()) + "/fd > " +
                           folder.path().string() + "/open\nexec /bin/ls \"$@\"\n");
    ASSERT_EQ(0, chmod((folder.path() / "ls").c_str(), 0755));
    const std::string strPath = getenv("PATH");
    close(m_nSlave);
    m_nSlave = -1;

    ASSERT_EQ(0, setenv("PATH", (folder.path().string() + ":" + strPath).c_str(), 1));
    EXPECT_EQ("[/dev/ttyACM0]", look());
    ASSERT_EQ(0, setenv("PATH", strPath.c_str(), 1));

    const std::string strOpen = folder.read("open");
    EXPECT_NE(std::string::npos, strOpen.find(" -> ")) << "somebody has looked";
    EXPECT_EQ(std::string::npos, strOpen.find(m_strTerminal + "\n")) << strOpen;
}

TEST_F(ControllerPortLook, ThatCannotBeMadeIsRepeatedASecondLater)
{
    plug("/dev/ttyACM0");
    const FaultScope fault("popen=ls:1:ENOMEM");
    const CallJournal journal("popen select");

    EXPECT_EQ("[][/dev/ttyACM0]", look());

    EXPECT_EQ((std::vector<std::string>{"popen ls /dev/ttyACM*", "select 1.000000",
                                        "popen ls /dev/ttyACM*"}),
              CallJournal::lines());
}

// The controller's port.
#include "GuardPort.h"

#include <array>
#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "ScratchFolder.h"
#include "TestTerminal.h"

namespace {

std::string readFrom(const GuardPort& port, int& nRead)
{
    std::array<char, 64> acData{};
    nRead = port.read(acData.data(), acData.size());
    return std::string(acData.data(), (nRead > 0) ? static_cast<size_t>(nRead) : 0);
}

/** Write until nothing is taken any more. @return everything that was taken */
std::string fill(GuardPort& port)
{
    std::string strAll;
    for (int n = 0; n < 10000; ++n) {
        std::string strBlock(512, static_cast<char>('a' + n % 26));
        if (!port.write(strBlock.data(), strBlock.size())) {
            break;
        }
        strAll += strBlock;
    }
    EXPECT_TRUE(port.isPending());
    return strAll;
}

/** @return the error of open(2) without root's rights; 0 when there is none */
int openAsNobody(const std::string& strPath)
{
    const pid_t nChild = fork();
    if (0 == nChild) {
        if (0 == getuid() && (0 != setgid(65534) || 0 != setuid(65534))) {
            _exit(255);
        }
        _exit((open(strPath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC) >= 0) ? 0 : errno);
    }
    int nStatus = 0;
    EXPECT_EQ(nChild, waitpid(nChild, &nStatus, 0));
    return WEXITSTATUS(nStatus);
}

} // namespace

TEST(GuardPort, IsRawAt115200And8N1)
{
    const TestTerminal terminal;
    GuardPort port(terminal.path());

    ASSERT_EQ(PORT_OPEN, port.open());

    termios attr{};
    ASSERT_EQ(0, tcgetattr(port.getFd(), &attr));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&attr));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetispeed(&attr));
    EXPECT_EQ(0U, attr.c_iflag);
    EXPECT_EQ(0U, attr.c_oflag);
    EXPECT_EQ(0U, attr.c_lflag);
    EXPECT_EQ(static_cast<tcflag_t>(CS8), attr.c_cflag & (CSIZE | PARENB | CSTOPB));
}

TEST(GuardPort, SecondGuardDoesNotGetIt)
{
    const TestTerminal terminal;
    GuardPort port(terminal.path());
    ASSERT_EQ(PORT_OPEN, port.open());
    GuardPort other(terminal.path());

    EXPECT_EQ(PORT_TAKEN, other.open());
    EXPECT_EQ(EBUSY, other.getError());
    EXPECT_EQ(-1, other.getFd());
    port.close();
    EXPECT_EQ(PORT_OPEN, other.open());
    EXPECT_EQ(0, other.getError());
}

TEST(GuardPort, LockHoldsUnderAnotherNameToo)
{
    const TestTerminal terminal;
    const ScratchFolder folder;
    const std::string strLink = (folder.path() / "by-id").string();
    ASSERT_EQ(0, symlink(terminal.path().c_str(), strLink.c_str()));
    GuardPort port(terminal.path());
    ASSERT_EQ(PORT_OPEN, port.open());

    EXPECT_EQ(PORT_TAKEN, GuardPort(strLink).open());
}

TEST(GuardPort, OnlyRootPassesWhileItIsOpenAndEverybodyBehindIt)
{
    const TestTerminal terminal;
    ASSERT_EQ(0, chmod(terminal.path().c_str(), 0666));
    GuardPort port(terminal.path());

    ASSERT_EQ(PORT_OPEN, port.open());
    EXPECT_EQ(EBUSY, openAsNobody(terminal.path()));
    port.close();
    EXPECT_EQ(0, openAsNobody(terminal.path()));
}

TEST(GuardPort, MissingPortAndWhatIsNoTerminalAreMissing)
{
    const ScratchFolder folder;
    folder.write("file", "");

    GuardPort missing("/nonexistent");
    EXPECT_EQ(PORT_MISSING, missing.open());
    EXPECT_EQ(ENOENT, missing.getError());
    GuardPort file((folder.path() / "file").string());
    EXPECT_EQ(PORT_MISSING, file.open());
    EXPECT_EQ(ENOTTY, file.getError());
}

TEST(GuardPort, BytesThatFindNoRoomWaitAndFollowInOrder)
{
    const TestTerminal terminal;
    GuardPort port(terminal.path());
    ASSERT_EQ(PORT_OPEN, port.open());
    const std::string strSent = fill(port);

    std::string strTaken;
    EXPECT_TRUE(eventually([&] {
        strTaken += terminal.read();
        port.flush();
        return strTaken.size() >= strSent.size();
    }));

    EXPECT_EQ(strSent, strTaken);
    EXPECT_FALSE(port.isPending());
    EXPECT_FALSE(port.isBroken());
}

TEST(GuardPort, CutGoesAheadOfWhatWaits)
{
    const TestTerminal terminal;
    GuardPort port(terminal.path());
    ASSERT_EQ(PORT_OPEN, port.open());
    const std::string strSent = fill(port);

    port.cut("\x18", 1);

    std::string strTaken;
    EXPECT_TRUE(eventually([&] {
        port.flush();
        strTaken += terminal.read();
        return !strTaken.empty() && '\x18' == strTaken.back();
    }));
    EXPECT_FALSE(port.isPending());
    EXPECT_LE(strTaken.size() - 1, strSent.size() - 4096 + 512); // what waited here is dropped
}

TEST(GuardPort, HangUpIsTold)
{
    TestTerminal terminal;
    GuardPort port(terminal.path());
    ASSERT_EQ(PORT_OPEN, port.open());
    int nRead = 0;
    EXPECT_EQ("", readFrom(port, nRead));
    EXPECT_EQ(0, nRead);
    terminal.write("ok\n");
    EXPECT_TRUE(eventually([&] { return "ok\n" == readFrom(port, nRead); }));

    terminal.hangUp();

    (void)readFrom(port, nRead);
    EXPECT_EQ(-1, nRead);
}

TEST(GuardPort, WriteThatFailsForGoodBreaksIt)
{
    TestTerminal terminal;
    GuardPort port(terminal.path());
    ASSERT_EQ(PORT_OPEN, port.open());
    EXPECT_FALSE(port.isBroken());
    terminal.hangUp();

    (void)port.write("G1\n", 3);

    EXPECT_TRUE(port.isBroken());
    port.close();
    EXPECT_FALSE(port.isBroken());
    EXPECT_FALSE(port.write("G1\n", 3)); // closed
}

TEST(GuardPort, OffIsSentWhateverTheLineIsLike)
{
    const TestTerminal terminal;
    GuardPort port(terminal.path());
    ASSERT_EQ(PORT_OPEN, port.open());
    (void)fill(port); // full, at another speed, stopped, and taken
    termios attr{};
    ASSERT_EQ(0, tcgetattr(port.getFd(), &attr));
    cfsetospeed(&attr, B9600);
    cfsetispeed(&attr, B9600);
    ASSERT_EQ(0, tcsetattr(port.getFd(), TCSANOW, &attr));
    ASSERT_EQ(0, tcflow(port.getFd(), TCOOFF));

    (void)ioctl(port.getFd(), (0 == geteuid()) ? TIOCEXCL : TIOCNXCL); // root passes it
    ASSERT_TRUE(GuardPort::sendOff(terminal.path()));

    std::string strTaken;
    EXPECT_TRUE(eventually([&] {
        strTaken += terminal.read();
        return !strTaken.empty() && '\x18' == strTaken.back();
    }));
    ASSERT_EQ(0, tcgetattr(port.getFd(), &attr));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&attr));
}

TEST(GuardPort, OffThatCannotBeSentIsTold)
{
    EXPECT_FALSE(GuardPort::sendOff("/nonexistent"));
    EXPECT_EQ(ENOENT, errno);
}

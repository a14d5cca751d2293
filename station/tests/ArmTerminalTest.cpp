// The terminal when the guard goes while somebody uses it.
#include "ArmTerminal.h"

#include <array>
#include <future>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "PrintService.h"
#include "ScratchFolder.h"

namespace {

/** The guard's end of a terminal. */
class GuardEnd
{
public:
    GuardEnd() : m_nFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        EXPECT_EQ(0, grantpt(m_nFd));
        EXPECT_EQ(0, unlockpt(m_nFd));
    }
    GuardEnd(const GuardEnd&) = delete;
    GuardEnd& operator=(const GuardEnd&) = delete;
    ~GuardEnd()
    {
        hangUp();
    }

    std::string getPath() const
    {
        return ptsname(m_nFd);
    }

    void hangUp()
    {
        if (m_nFd >= 0) {
            ::close(m_nFd);
            m_nFd = -1;
        }
    }

    /** Whether nobody has the other end open. */
    bool isLeft() const
    {
        pollfd each = {m_nFd, 0, 0};
        return 1 == poll(&each, 1, 0) && 0 != (each.revents & POLLHUP);
    }

    std::string read() const
    {
        std::array<char, 64> acData{};
        const ssize_t nRead = ::read(m_nFd, acData.data(), acData.size());
        return (nRead > 0) ? std::string(acData.data(), static_cast<size_t>(nRead)) : "";
    }

    void say(const std::string& strText) const
    {
        EXPECT_EQ(static_cast<ssize_t>(strText.size()),
                  ::write(m_nFd, strText.data(), strText.size()));
    }

private:
    int m_nFd;
};

} // namespace

TEST(ArmTerminal, IsOpenedAndClosedWithTheGuard)
{
    const GuardEnd guard;
    ArmTerminal terminal(guard.getPath());

    terminal.follow(false);
    EXPECT_FALSE(terminal.isOpen());
    terminal.follow(true);
    EXPECT_TRUE(terminal.isOpen());
    EXPECT_FALSE(guard.isLeft());
    terminal.follow(false);

    EXPECT_FALSE(terminal.isOpen());
    EXPECT_TRUE(guard.isLeft());
    EXPECT_EQ(ArmTerminal::ANSWER_GONE, terminal.send("M5"));
}

TEST(ArmTerminal, StaysOpenForAMoveThatIsUnderWay)
{
    const GuardEnd guard;
    ArmTerminal terminal(guard.getPath());
    terminal.follow(true);
    auto moved = std::async(std::launch::async, [&terminal] { return terminal.move("G05 X1"); });
    ASSERT_EQ('\n', guard.read().back());

    terminal.follow(false);
    EXPECT_FALSE(terminal.isOpen());
    EXPECT_FALSE(guard.isLeft());
    terminal.follow(true);
    EXPECT_FALSE(terminal.isOpen()); // not before it was closed
    guard.say("ok\nok\n");

    EXPECT_EQ(ArmTerminal::ANSWER_OK, moved.get());
    terminal.follow(false);
    EXPECT_TRUE(guard.isLeft());
}

TEST(ArmTerminal, StaysOpenForThePrintServicesReader)
{
    const GuardEnd guard;
    ArmTerminal terminal(guard.getPath());
    terminal.follow(true);
    std::array<char, 64> acReply{};
    auto read = std::async(std::launch::async, [&acReply] {
        PrintService::getInstance().readUart(acReply.data(), acReply.size(), 60, 0);
    });
    ASSERT_TRUE(eventually([] { return PrintService::getInstance().isPortInUse(); }));

    terminal.follow(false);
    EXPECT_FALSE(terminal.isOpen());
    EXPECT_FALSE(guard.isLeft());
    guard.say("ok\n");

    read.get();
    EXPECT_STREQ("ok\n", acReply.data());
    terminal.follow(false);
    EXPECT_TRUE(guard.isLeft());
}

TEST(ArmTerminal, HungUpMoveEndsAndTheNextGuardsTerminalIsOpened)
{
    const ScratchFolder folder; // the link stays where it is when the guard comes back
    GuardEnd guard;
    const std::string strLink = folder.path() / "link";
    ASSERT_EQ(0, symlink(guard.getPath().c_str(), strLink.c_str()));
    ArmTerminal terminal(strLink);
    terminal.follow(true);
    auto moved = std::async(std::launch::async, [&terminal] { return terminal.move("G05 X1"); });
    ASSERT_EQ('\n', guard.read().back());

    guard.hangUp();

    EXPECT_EQ(ArmTerminal::ANSWER_GONE, moved.get());
    const GuardEnd next;
    ASSERT_EQ(0, unlink(strLink.c_str()));
    ASSERT_EQ(0, symlink(next.getPath().c_str(), strLink.c_str()));
    EXPECT_TRUE(eventually([&terminal] {
        terminal.follow(true);
        return terminal.isOpen();
    }));
}

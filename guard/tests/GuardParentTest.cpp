// The process that watches the guard at work.
#include "GuardParent.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DescriptorMessage.h"
#include "Eventually.h"
#include "ScratchFolder.h"
#include "TestTerminal.h"

namespace {

class GuardParentWatch : public testing::Test
{
protected:
    GuardParentWatch()
    {
        sigprocmask(SIG_SETMASK, nullptr, &m_mask);
    }
    ~GuardParentWatch() override
    {
        // The parent blocks signals; what came behind its end is nobody's.
        sigset_t signals;
        sigemptyset(&signals);
        for (const int nSignal : {SIGTERM, SIGINT, SIGHUP}) {
            sigaddset(&signals, nSignal);
        }
        const timespec now{};
        while (sigtimedwait(&signals, nullptr, &now) > 0) {
        }
        sigprocmask(SIG_SETMASK, &m_mask, nullptr);
        unsetenv("NOTIFY_SOCKET");
    }
    int run(const std::function<int(int)>& worker) const
    {
        return GuardParent(m_terminal.path(), "").run(worker);
    }

    TestTerminal m_terminal;
    sigset_t m_mask{};
};

void beat(int nFd)
{
    (void)!write(nFd, "b", 1);
}

/** A beat with a descriptor. */
void show(int nFd, int nShown)
{
    (void)sendWithDescriptor(nFd, "b", 1, nShown, 0);
}

/** Whether the worker's parent has this file open. */
bool parentHas(const std::string& strPath)
{
    const std::string strFolder = "/proc/" + std::to_string(getppid()) + "/fd";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(strFolder, error)) {
        // A terminal that was hung up is told as deleted.
        if (0 == std::filesystem::read_symlink(entry, error).string().find(strPath)) {
            return true;
        }
    }
    return false;
}

} // namespace

TEST_F(GuardParentWatch, WorkerThatEndsInOrderKeepsItsStatus)
{
    for (const int nStatus : {0, 2, 3}) {
        EXPECT_EQ(nStatus, run([nStatus](int nFd) {
                      beat(nFd);
                      return nStatus;
                  }));
    }
    EXPECT_EQ("", m_terminal.read());
}

TEST_F(GuardParentWatch, WorkerThatDidNotSeeTheBeamOffIsFollowedByBeamOff)
{
    EXPECT_EQ(1, run([](int) { return 1; }));

    ASSERT_TRUE(m_terminal.wait());
    EXPECT_EQ("\x18", m_terminal.read());
}

TEST_F(GuardParentWatch, WorkerThatIsKilledIsFollowedByBeamOff)
{
    EXPECT_EQ(1, run([](int nFd) {
                  beat(nFd);
                  raise(SIGKILL);
                  return 0;
              }));

    ASSERT_TRUE(m_terminal.wait());
    EXPECT_EQ("\x18", m_terminal.read());
}

TEST_F(GuardParentWatch, BeamOffTakesThePortThatTheWorkerHasShown)
{
    TestTerminal former;
    const auto worker = [&](int nFd) {
        show(nFd, open(former.path().c_str(), O_RDWR | O_NOCTTY));
        show(nFd, open(m_terminal.path().c_str(), O_RDWR | O_NOCTTY));
        raise(SIGKILL);
        return 0;
    };

    EXPECT_EQ(1, GuardParent("/nonexistent", "").run(worker));

    ASSERT_TRUE(m_terminal.wait());
    EXPECT_EQ("\x18", m_terminal.read());
    EXPECT_EQ("", former.read());
}

TEST_F(GuardParentWatch, PulledPortIsLetGo)
{
    const int nStatus = run([](int nFd) {
        TestTerminal pulled;
        const int nPort = open(pulled.path().c_str(), O_RDWR | O_NOCTTY);
        show(nFd, nPort);
        close(nPort);
        const bool bHeld = eventually([&] { return parentHas(pulled.path()); });
        pulled.hangUp();
        const bool bLetGo = eventually([&] {
            beat(nFd);
            return !parentHas(pulled.path());
        });
        return (bHeld && bLetGo) ? 0 : 2;
    });

    EXPECT_EQ(0, nStatus);
}

TEST_F(GuardParentWatch, WorkerThatMissesABeatIsKilledAndFollowedByBeamOff)
{
    std::array<int, 2> anPipe{};
    ASSERT_EQ(0, pipe2(anPipe.data(), O_CLOEXEC));

    EXPECT_EQ(1, run([&](int nFd) {
                  beat(nFd);
                  for (;;) {
                      pause();
                  }
                  return 0;
              }));

    close(anPipe[1]);
    char c = 0;
    EXPECT_EQ(0, read(anPipe[0], &c, 1)); // its end of the pipe is gone with it
    close(anPipe[0]);
    ASSERT_TRUE(m_terminal.wait());
    EXPECT_EQ("\x18", m_terminal.read());
}

TEST_F(GuardParentWatch, SignalsInBetweenDoNotReplaceBeats)
{
    // The worker beats once and has its parent signalled all the time.
    EXPECT_EQ(1, run([](int nFd) {
                  beat(nFd);
                  for (int n = 0; n < 600; ++n) {
                      kill(getppid(), SIGHUP);
                      usleep(100000);
                  }
                  return 0;
              }));

    ASSERT_TRUE(m_terminal.wait());
    EXPECT_EQ("\x18", m_terminal.read());
}

TEST_F(GuardParentWatch, SignalsArePassedOn)
{
    EXPECT_EQ(7, run([](int nFd) {
                  sigset_t signals;
                  sigemptyset(&signals);
                  sigaddset(&signals, SIGTERM);
                  beat(nFd);
                  kill(getppid(), SIGTERM);
                  int nSignal = 0;
                  sigwait(&signals, &nSignal);
                  return (SIGTERM == nSignal) ? 7 : 1;
              }));
}

TEST_F(GuardParentWatch, SystemdIsToldReadyAndEachBeat)
{
    const ScratchFolder folder;
    const std::string strPath = (folder.path() / "notify").string();
    const int nSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, strPath.c_str(), strPath.size());
    ASSERT_EQ(0, bind(nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    setenv("NOTIFY_SOCKET", strPath.c_str(), 1);

    EXPECT_EQ(0, run([](int nFd) {
                  for (int n = 0; n < 3; ++n) {
                      beat(nFd);
                      usleep(50000); // beats of their own
                  }
                  return 0;
              }));

    std::string strTold;
    std::array<char, 64> acData{};
    for (ssize_t n = 0; (n = recv(nSocket, acData.data(), acData.size(), 0)) > 0;) {
        strTold += std::string(acData.data(), static_cast<size_t>(n)) + "|";
    }
    EXPECT_EQ(0U, strTold.find("READY=1|WATCHDOG=1|")) << strTold;
    close(nSocket);
}

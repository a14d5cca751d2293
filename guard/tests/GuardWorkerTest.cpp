// The guard at work without its parent, and where its calls fail.
#include "GuardWorker.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "GuardBench.h"
#include "ScratchFolder.h"
#include "VirtualController.h"

namespace {

const char* const SEEN_OFF = "\"beam_seen_off\":true";

/** A worker in a process of its own; the test holds the other end of its beats. */
class LoneWorker
{
public:
    /** @param strPlan  of failing calls; NODE in it is the controller's port */
    explicit LoneWorker(std::string strPlan = "")
    {
        if (const size_t uNode = strPlan.find("NODE"); std::string::npos != uNode) {
            strPlan.replace(uNode, 4, m_controller.getNode());
        }
        m_folder.write("guard.toml",
                       "[controller]\nport = \"" + m_controller.getNode() +
                           "\"\nlanguage = \"kestrel\"\n[service]\nlink = \"" + path("ttyACM") +
                           "\"\n[operator]\nsocket = \"" + path("socket") +
                           "\"\n[limits]\nmin = [0, 0, 0]\nmax = [1, 1, 1]\nfeed = 1\n"
                           "power = 1\nacceleration = 1\n");
        std::string strError;
        EXPECT_TRUE(readConfiguration(path("guard.toml"), m_configuration, strError)) << strError;
        EXPECT_EQ(
            0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, m_anBeat.data()));
        m_nProcess = fork();
        if (0 == m_nProcess) {
            signal(SIGPIPE, SIG_IGN);
            close(m_anBeat[0]);
            dup2(open(path("journal").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600),
                 STDOUT_FILENO);
            (void)faultPlan(strPlan.c_str());
            _exit(GuardWorker(m_configuration, path("last-port"), m_anBeat[1]).run());
        }
        close(m_anBeat[1]);
    }
    LoneWorker(const LoneWorker&) = delete;
    LoneWorker& operator=(const LoneWorker&) = delete;
    ~LoneWorker()
    {
        closeBeat();
        if (m_nProcess > 0) {
            kill(m_nProcess, SIGKILL);
            waitpid(m_nProcess, nullptr, 0);
        }
    }

    std::string path(const std::string& strName) const
    {
        return (m_folder.path() / strName).string();
    }
    VirtualController& controller()
    {
        return m_controller;
    }
    std::string journal() const
    {
        return m_folder.read("journal");
    }
    size_t countCuts()
    {
        const std::vector<std::string> vecByte = m_controller.readTexts("byte");
        return static_cast<size_t>(std::count(vecByte.begin(), vecByte.end(), "\x18"));
    }

    /** As when the parent is gone. */
    void closeBeat()
    {
        if (m_anBeat[0] >= 0) {
            close(m_anBeat[0]);
            m_anBeat[0] = -1;
        }
    }

    /** @return its status once it has ended; -1 when it has not within half a minute */
    int wait()
    {
        int nStatus = 0;
        if (!eventually([&] { return m_nProcess == waitpid(m_nProcess, &nStatus, WNOHANG); })) {
            return -1;
        }
        m_nProcess = -1;
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    }

private:
    VirtualController m_controller;
    ScratchFolder m_folder;
    Configuration m_configuration;
    std::array<int, 2> m_anBeat{-1, -1};
    pid_t m_nProcess = -1;
};

bool seesState(OperatorClient& client, const std::string& strField)
{
    return eventually(
        [&] { return std::string::npos != client.ask("{\"do\":\"state\"}").find(strField); });
}

} // namespace

TEST(GuardWorker, ParentThatIsGoneTurnsBeamOffAndEnds)
{
    LoneWorker worker;
    OperatorClient client(worker.path("socket"));
    ASSERT_TRUE(seesState(client, SEEN_OFF));
    const size_t uCuts = worker.countCuts();

    worker.closeBeat();

    EXPECT_EQ(1, worker.wait());
    EXPECT_EQ(uCuts + 1, worker.countCuts());
}

TEST(GuardWorker, FailingPollHidesNothingFromIt)
{
    LoneWorker worker("poll:3-:ENOMEM");
    OperatorClient client(worker.path("socket"));
    ASSERT_TRUE(seesState(client, SEEN_OFF));

    // All of its sides: operator, service and controller.
    ASSERT_EQ("{\"ok\":true}", client.ask("{\"do\":\"motion\"}"));
    const int nService = open(worker.path("ttyACM").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_LE(0, nService);
    ASSERT_EQ(4, write(nService, "$X\n\n", 4));
    std::array<char, 64> acAnswer{};
    EXPECT_EQ(9, read(nService, acAnswer.data(), acAnswer.size()));
    EXPECT_STREQ("error:21\n", acAnswer.data());
    close(nService);
    EXPECT_TRUE(seesState(client, "\"level\":\"dark\"")); // who hangs up, trips
    ASSERT_EQ("ok", worker.controller().command("unplug"));
    EXPECT_TRUE(seesState(client, "\"controller\":false"));
    ASSERT_EQ("ok", worker.controller().command("plug"));
    EXPECT_TRUE(seesState(client, SEEN_OFF));
}

TEST(GuardWorker, PortThatMayNotBeOpenedIsNotTakenForAMissingOne)
{
    LoneWorker worker("open=NODE:1-:EACCES");
    OperatorClient client(worker.path("socket"));

    EXPECT_TRUE(
        seesState(client, "\"controller\":false,\"controller_error\":\"Permission denied\""));
}

TEST(GuardWorker, FailureToOpenThePortIsToldOnceAndOverOnceItIsOpen)
{
    LoneWorker worker("open=NODE:1-8:EACCES");
    OperatorClient client(worker.path("socket"));
    EXPECT_TRUE(seesState(client, "\"controller\":true,\"controller_error\":null"));

    const std::string strLine =
        "no controller: " + worker.controller().getNode() + ": Permission denied\n";
    ASSERT_TRUE(eventually(
        [&] { return std::string::npos != worker.journal().find("controller plugged in"); }));
    const std::string strJournal = worker.journal();
    EXPECT_NE(std::string::npos, strJournal.find(strLine));
    EXPECT_EQ(strJournal.find(strLine), strJournal.rfind(strLine));
    ASSERT_EQ("ok", worker.controller().command("unplug"));
    EXPECT_TRUE(seesState(client, "\"controller_error\":\"No such file or directory\""));
}

TEST(GuardWorker, CallThatFailsAtItsStartIsNoRefusal)
{
    for (const char* const pPlan : {"pipe2:1:EMFILE", "fork:1:EAGAIN", "signalfd:1:ENFILE",
                                    "bind:1:EACCES", "posix_openpt:1:ENOSPC"}) {
        LoneWorker worker(pPlan);

        EXPECT_EQ(1, worker.wait()) << pPlan; // its parent ends with this, and is started again
    }
}

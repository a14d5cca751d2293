// The journal's way to standard output.
#include "JournalRelay.h"

#include <array>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

/** A pipe in place of standard output. */
class JournalRelayOutput : public testing::Test
{
protected:
    JournalRelayOutput()
    {
        EXPECT_EQ(0, pipe2(m_anPipe.data(), O_CLOEXEC));
    }
    ~JournalRelayOutput() override
    {
        close(m_anPipe[0]);
        closeInput();
    }
    void closeInput()
    {
        if (m_anPipe[1] >= 0) {
            close(m_anPipe[1]);
            m_anPipe[1] = -1;
        }
    }

    /** What has come until nobody can write any more. */
    std::string readAll()
    {
        closeInput();
        std::string strText;
        std::array<char, 4096> acData{};
        for (ssize_t n = 0; (n = read(m_anPipe[0], acData.data(), acData.size())) > 0;) {
            strText.append(acData.data(), static_cast<size_t>(n));
        }
        return strText;
    }

    std::array<int, 2> m_anPipe{-1, -1};
};

/** @return bytes that the pipe has taken until it was full */
size_t fill(int nFd)
{
    const int nFlags = fcntl(nFd, F_GETFL);
    (void)fcntl(nFd, F_SETFL, nFlags | O_NONBLOCK);
    size_t uFilled = 0;
    while (1 == write(nFd, "f", 1)) {
        ++uFilled;
    }
    (void)fcntl(nFd, F_SETFL, nFlags);
    return uFilled;
}

pid_t onlyChild()
{
    const std::string strSelf = std::to_string(getpid());
    std::ifstream file("/proc/" + strSelf + "/task/" + strSelf + "/children");
    pid_t nChild = -1;
    file >> nChild;
    return nChild;
}

bool writes(const JournalRelay& relay, const std::string& strLine)
{
    return static_cast<ssize_t>(strLine.size()) ==
           write(relay.getFd(), strLine.data(), strLine.size());
}

} // namespace

TEST_F(JournalRelayOutput, LinesHaveGoneOutBeforeItIsDestroyed)
{
    std::chrono::steady_clock::time_point begin;
    {
        const JournalRelay relay(m_anPipe[1], -1);
        EXPECT_TRUE(writes(relay, "first\n"));
        EXPECT_TRUE(writes(relay, "second\n"));
        begin = std::chrono::steady_clock::now();
    }
    if (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(50)) {
        (void)fcntl(m_anPipe[0], F_SETFL, O_NONBLOCK); // it was not the bound that ended the wait
    }

    EXPECT_EQ("first\nsecond\n", readAll());
}

TEST_F(JournalRelayOutput, OutputThatTakesNothingIsNotWaitedForAndLosesNothing)
{
    const size_t uFilled = fill(m_anPipe[1]);
    std::string strLines;
    {
        const JournalRelay relay(m_anPipe[1], -1);
        for (int n = 0; n < 100; ++n) {
            const std::string strLine = "line " + std::to_string(n) + "\n";
            EXPECT_TRUE(writes(relay, strLine));
            strLines += strLine;
        }
        while (writes(relay, "x")) { // until no more fits, which is told and not waited for
            strLines += "x";
        }
    }

    EXPECT_EQ(std::string(uFilled, 'f') + strLines, readAll());
}

TEST_F(JournalRelayOutput, EndsWithItsWriterAndByNoSignalOfTheGuards)
{
    {
        const JournalRelay relay(m_anPipe[1], -1);
        EXPECT_TRUE(writes(relay, "x"));
        char c = 0;
        ASSERT_EQ(1, read(m_anPipe[0], &c, 1)); // it works
        for (const int nSignal : {SIGTERM, SIGINT, SIGHUP}) {
            kill(onlyChild(), nSignal);
        }
        EXPECT_TRUE(writes(relay, "still there\n"));
    }

    closeInput();
    while (waitpid(-1, nullptr, 0) > 0) { // ends, and may end late on a busy machine
    }
    EXPECT_EQ("still there\n", readAll());
}

TEST_F(JournalRelayOutput, KeepsNoOtherPipeOpen)
{
    std::array<int, 2> anOther{-1, -1};
    ASSERT_EQ(0, pipe2(anOther.data(), O_CLOEXEC));

    const JournalRelay relay(m_anPipe[1], anOther[1]);
    close(anOther[1]);

    char c = 0;
    EXPECT_EQ(0, read(anOther[0], &c, 1));
    close(anOther[0]);
}

// The private /dev and /sys/class: what is there, and that the host does not notice.
#include "BoardNamespace.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

size_t countEntries(const char* pFolder)
{
    size_t uCount = 0;
    DIR* const pDir = opendir(pFolder);
    while (nullptr != readdir(pDir)) {
        ++uCount;
    }
    closedir(pDir);
    return uCount;
}

/** Runs a body inside the namespace, in a child, whose exit status is the number of failures. */
int failuresInside(void (*body)(std::vector<std::string>& vecFailure))
{
    const pid_t nPid = fork();
    if (0 == nPid) {
        std::string strError;
        std::vector<std::string> vecFailure;
        if (enterBoardNamespace(strError)) {
            body(vecFailure);
        } else {
            vecFailure.push_back(strError);
        }
        for (const std::string& strFailure : vecFailure) {
            fprintf(stderr, "inside: %s\n", strFailure.c_str());
        }
        _exit(static_cast<int>(vecFailure.size()));
    }
    int nStatus = 0;
    waitpid(nPid, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

void need(bool bHolds, const char* pWhat, std::vector<std::string>& vecFailure)
{
    if (!bHolds) {
        vecFailure.emplace_back(pWhat);
    }
}

} // namespace

TEST(BoardNamespace, NodesWorkInside)
{
    const int nFailures = failuresInside([](std::vector<std::string>& vecFailure) {
        char acBuffer[4] = {1, 1, 1, 1};
        need(4 == read(open("/dev/zero", O_RDONLY), acBuffer, 4), "read zero", vecFailure);
        need(0 == acBuffer[0], "zero is zero", vecFailure);
        need(4 == write(open("/dev/null", O_WRONLY), acBuffer, 4), "write null", vecFailure);
        need(4 == read(open("/dev/urandom", O_RDONLY), acBuffer, 4), "urandom", vecFailure);

        const int nMaster = posix_openpt(O_RDWR | O_NOCTTY);
        need(nMaster >= 0, "a pseudo terminal", vecFailure);
        need(0 == grantpt(nMaster) && 0 == unlockpt(nMaster), "its slave", vecFailure);
        need(std::string("/dev/pts/0") == ptsname(nMaster), "numbers of our own", vecFailure);
        need(open(ptsname(nMaster), O_RDWR | O_NOCTTY) >= 0, "slave opens", vecFailure);
        need(0 != access("/dev/ttyACM0", F_OK), "no controller yet", vecFailure);
    });

    EXPECT_EQ(0, nFailures);
}

TEST(BoardNamespace, SysClassIsEmptyAndWritable)
{
    const int nFailures = failuresInside([](std::vector<std::string>& vecFailure) {
        need(2 == countEntries("/sys/class"), "empty", vecFailure);
        need(0 == mkdir("/sys/class/gpio", 0755), "mkdir", vecFailure);
    });

    EXPECT_EQ(0, nFailures);
}

TEST(BoardNamespace, HostDoesNotNotice)
{
    const size_t uDev = countEntries("/dev");
    const size_t uClass = countEntries("/sys/class");

    const int nFailures = failuresInside([](std::vector<std::string>& vecFailure) {
        need(0 == symlink("/dev/null", "/dev/ttyACM0"), "node", vecFailure);
        need(0 == mkdir("/sys/class/gpio", 0755), "mkdir", vecFailure);
    });

    EXPECT_EQ(0, nFailures);
    EXPECT_EQ(uDev, countEntries("/dev"));
    EXPECT_EQ(uClass, countEntries("/sys/class"));
}

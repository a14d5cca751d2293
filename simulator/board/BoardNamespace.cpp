// A private /dev and /sys/class for the virtual board, seen by this process and its children only.
#include "BoardNamespace.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::array<const char*, 6> NODES = {"null", "zero", "full", "random", "urandom", "tty"};

const std::array<std::array<const char*, 2>, 5> LINKS = {{{"/proc/self/fd", "/dev/fd"},
                                                          {"/proc/self/fd/0", "/dev/stdin"},
                                                          {"/proc/self/fd/1", "/dev/stdout"},
                                                          {"/proc/self/fd/2", "/dev/stderr"},
                                                          {"pts/ptmx", "/dev/ptmx"}}};

bool fail(std::string& strError, const std::string& strWhat)
{
    strError = "no private board here: " + strWhat + ": " + strerror(errno);
    return false;
}

bool writeFile(const char* pPath, const std::string& strText)
{
    const int nFd = open(pPath, O_WRONLY | O_CLOEXEC);
    if (nFd < 0) {
        return false;
    }
    const bool bWritten =
        static_cast<ssize_t>(strText.size()) == write(nFd, strText.data(), strText.size());
    close(nFd);
    return bWritten;
}

bool unshareMounts(std::string& strError)
{
    if (0 == unshare(CLONE_NEWNS)) {
        return true;
    }
    if (EPERM != errno) {
        return fail(strError, "unshare of the mounts");
    }
    const std::string strUid = std::to_string(getuid());
    const std::string strGid = std::to_string(getgid());
    if (0 != unshare(CLONE_NEWUSER | CLONE_NEWNS)) {
        return fail(strError, "unshare of user and mounts");
    }
    // Without "deny" the kernel takes no group map from an unprivileged process
    // (user_namespaces(7)).
    if (!writeFile("/proc/self/setgroups", "deny") ||
        !writeFile("/proc/self/uid_map", "0 " + strUid + " 1") ||
        !writeFile("/proc/self/gid_map", "0 " + strGid + " 1")) {
        return fail(strError, "user map");
    }
    return true;
}

/** Bind what the descriptor stands for onto a new empty file. */
bool bindNode(int nFd, const std::string& strTarget)
{
    const int nTarget = open(strTarget.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (nTarget < 0) {
        return false;
    }
    close(nTarget);
    const std::string strSource = "/proc/self/fd/" + std::to_string(nFd);
    return 0 == mount(strSource.c_str(), strTarget.c_str(), nullptr, MS_BIND, nullptr);
}

bool buildDev(std::string& strError)
{
    // Held by descriptor, since the old /dev disappears behind the new one.
    std::array<int, NODES.size()> anFd{};
    for (size_t i = 0; i < NODES.size(); ++i) {
        anFd[i] = open((std::string("/dev/") + NODES[i]).c_str(), O_PATH | O_CLOEXEC);
        if (anFd[i] < 0) {
            return fail(strError, std::string("/dev/") + NODES[i]);
        }
    }
    if (0 != mount("board-dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755,size=4m")) {
        return fail(strError, "tmpfs over /dev");
    }
    for (size_t i = 0; i < NODES.size(); ++i) {
        const bool bBound = bindNode(anFd[i], std::string("/dev/") + NODES[i]);
        if (!bBound) {
            return fail(strError, std::string("bind of ") + NODES[i]);
        }
        close(anFd[i]);
    }
    if (0 != mkdir("/dev/pts", 0755) || 0 != mkdir("/dev/shm", 0777) ||
        0 != chmod("/dev/shm", 01777)) {
        return fail(strError, "folders of /dev");
    }
    if (0 != mount("board-pts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
                   "newinstance,ptmxmode=0666,mode=0620")) {
        return fail(strError, "devpts");
    }
    for (const auto& link : LINKS) {
        if (0 != symlink(link[0], link[1])) {
            return fail(strError, link[1]);
        }
    }
    return true;
}

} // namespace

bool enterBoardNamespace(std::string& strError)
{
    if (!unshareMounts(strError)) {
        return false;
    }
    // Otherwise our mounts would show up on the host.
    if (0 != mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) {
        return fail(strError, "making the mounts private");
    }
    if (0 != mount("board-class", "/sys/class", "tmpfs", MS_NOSUID, "mode=0755,size=1m")) {
        return fail(strError, "tmpfs over /sys/class");
    }
    return buildDev(strError);
}

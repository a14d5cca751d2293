// Which names are opened below a folder, and which are refused.
#include "OpenBelow.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptors.h"
#include "Fault.h"
#include "ScratchFolder.h"

namespace fs = std::filesystem;

static bool g_bTooEarly = false;  // for fstatat, which finds nothing then
static bool g_bLooks = false;     // fstatat, for descriptors that a program would inherit
static size_t g_uInheritable = 0; // that it saw

/** Descriptors that a program started now would get. */
static size_t inheritable()
{
    size_t uCount = 0;
    for (int nFd = 0; nFd < 256; ++nFd) {
        const int nFlags = fcntl(nFd, F_GETFD);
        uCount += (nFlags >= 0 && 0 == (nFlags & FD_CLOEXEC)) ? 1 : 0;
    }
    return uCount;
}

extern "C" [[gnu::weak]] int __real_fstatat(int nFolder, const char* pName, struct stat* pInfo,
                                            int nFlags);

extern "C" int __wrap_fstatat(int nFolder, const char* pName, struct stat* pInfo, int nHow)
{
    if (g_bLooks) {
        g_uInheritable = inheritable();
    }
    if (g_bTooEarly) {
        errno = ENOENT;
        return -1;
    }
    return __real_fstatat(nFolder, pName, pInfo, nHow);
}

namespace {

class OpenBelow : public testing::Test
{
protected:
    OpenBelow()
    {
        fs::create_directories(inside("sub/deep"));
    }

    fs::path inside(const std::string& strName) const
    {
        return m_folder.path() / "folder" / strName;
    }

    /** Open, write "new" and close. @return false when it was refused */
    bool opened(const std::string& strName) const
    {
        const int nFd = openBelow((m_folder.path() / "folder").c_str(), strName.c_str());
        if (nFd < 0) {
            EXPECT_EQ(-1, nFd);
            return false;
        }
        EXPECT_NE(0, fcntl(nFd, F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(3, write(nFd, "new", 3));
        close(nFd);
        return true;
    }

    ScratchFolder m_folder;
};

} // namespace

TEST_F(OpenBelow, NameIsOpenedWhereItSays)
{
    const std::string aName[][2] = {{"a", "a"},
                                    {"sub/b", "sub/b"},
                                    {"sub/deep/c", "sub/deep/c"},
                                    {"/d", "d"},
                                    {"./e", "e"},
                                    {"sub//./deep///f", "sub/deep/f"},
                                    {"sub/../g", "g"},
                                    {"sub/deep/../../h", "h"},
                                    {"sub/../sub/deep/../i", "sub/i"},
                                    {"... .", "... ."},
                                    {"\xff\n$(id)", "\xff\n$(id)"}};
    for (const auto& name : aName) {
        EXPECT_TRUE(opened(name[0])) << name[0];
        EXPECT_EQ("new", m_folder.read("folder/" + name[1])) << name[0];
    }
}

TEST_F(OpenBelow, FileIsNotTruncated)
{
    m_folder.write("folder/a", "old bytes");

    EXPECT_TRUE(opened("a"));

    EXPECT_EQ("new bytes", m_folder.read("folder/a"));
}

TEST_F(OpenBelow, NewFileGetsTheUsualMode)
{
    const mode_t uOld = umask(022);

    EXPECT_TRUE(opened("a"));

    umask(uOld);
    EXPECT_EQ(fs::perms(0644), fs::status(inside("a")).permissions());
}

TEST_F(OpenBelow, NameThatLeavesTheFolderIsRefused)
{
    m_folder.write("outside", "old");
    for (const char* pName : {"../outside", "../new", "..", "../", "sub/../../outside",
                              "../folder/a", "sub/deep/../../../outside", "/../outside"}) {
        EXPECT_FALSE(opened(pName)) << pName;
    }

    EXPECT_EQ("old", m_folder.read("outside"));
    EXPECT_FALSE(fs::exists(m_folder.path() / "new"));
    EXPECT_FALSE(fs::exists(inside("a")));
}

TEST_F(OpenBelow, MissingFolderIsNotMade)
{
    for (const char* pName : {"missing/a", "missing/../a", "sub/missing/a"}) {
        EXPECT_FALSE(opened(pName)) << pName;
    }

    EXPECT_FALSE(fs::exists(inside("missing")));
    EXPECT_FALSE(fs::exists(inside("a")));
}

TEST_F(OpenBelow, FileOnTheWayIsRefused)
{
    m_folder.write("folder/file", "");

    EXPECT_FALSE(opened("file/a"));
    EXPECT_FALSE(opened("file/../a"));
    EXPECT_FALSE(opened("file/"));
}

TEST_F(OpenBelow, LinkBelowTheFolderIsRefusedWhereverItLeads)
{
    m_folder.write("folder/file", "old");
    fs::create_symlink("file", inside("link"));
    fs::create_symlink("missing", inside("dangling"));
    fs::create_directory_symlink("sub", inside("near"));
    fs::create_directory_symlink(m_folder.path(), inside("far"));
    for (const char* pName :
         {"link", "dangling", "near/a", "far/a", "near/../a", "sub/../near/a"}) {
        EXPECT_FALSE(opened(pName)) << pName;
    }

    EXPECT_EQ("old", m_folder.read("folder/file"));
    EXPECT_FALSE(fs::exists(inside("missing")));
    EXPECT_FALSE(fs::exists(inside("a")));
    EXPECT_FALSE(fs::exists(inside("sub/a")));
    EXPECT_FALSE(fs::exists(m_folder.path() / "a"));
}

TEST_F(OpenBelow, LinkAboveIsFollowed)
{
    fs::create_directory_symlink(m_folder.path(), m_folder.path() / "above");

    const int nFd = openBelow((m_folder.path() / "above/folder/").c_str(), "a");

    EXPECT_GE(nFd, 0);
    close(nFd);
    EXPECT_TRUE(fs::exists(inside("a")));
}

TEST_F(OpenBelow, WhatIsNoRegularFileIsRefusedAtOnce)
{
    ASSERT_EQ(0, mkfifo(inside("pipe").c_str(), 0666));
    const int nReader = open(inside("pipe").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(nReader, 0); // so that opening would succeed
    ASSERT_EQ(0, mkfifo(inside("lonely").c_str(), 0666));
    const int nSocket = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, inside("socket").c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, bind(nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));

    for (const char* pName : {"pipe", "lonely", "socket", "sub", "sub/", "sub/.", "sub/..", "."}) {
        EXPECT_FALSE(opened(pName)) << pName;
    }

    pollfd entry{nReader, POLLIN, 0};
    EXPECT_EQ(0, poll(&entry, 1, 0)) << "a writer has come and gone: opening may do anything";
    close(nReader);
    close(nSocket);
}

TEST_F(OpenBelow, FolderReplacedByALinkMeanwhileLeadsNowhere)
{
    fs::create_directory(m_folder.path() / "outside");
    std::atomic<bool> bQuit{false};
    std::thread swapper([&] {
        while (!bQuit) {
            fs::rename(inside("sub"), inside("kept"));
            fs::create_directory_symlink(m_folder.path() / "outside", inside("sub"));
            fs::remove(inside("sub"));
            fs::rename(inside("kept"), inside("sub"));
        }
    });
    unsigned uOpened = 0;
    for (int i = 0; i < 20000 || (0 == uOpened && i < 2000000); ++i) {
        uOpened += opened("sub/a") ? 1 : 0;
    }
    bQuit = true;
    swapper.join();

    EXPECT_GT(uOpened, 0u);
    EXPECT_TRUE(fs::is_empty(m_folder.path() / "outside"));
}

// The look at what is there comes too early.
TEST_F(OpenBelow, WhatIsPutThereMeanwhileIsRefused)
{
    if (nullptr == &__real_fstatat) {
        GTEST_SKIP() << "the call has another name here";
    }
    m_folder.write("outside", "old");
    fs::create_symlink(m_folder.path() / "outside", inside("link"));
    ASSERT_EQ(0, mkfifo(inside("lonely").c_str(), 0666));
    ASSERT_EQ(0, mkfifo(inside("pipe").c_str(), 0666));
    const int nReader = open(inside("pipe").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(nReader, 0); // this one can be opened
    alarm(30);             // ends a run that waits for a reader

    g_bTooEarly = true;
    EXPECT_FALSE(opened("link"));
    EXPECT_FALSE(opened("lonely"));
    EXPECT_FALSE(opened("pipe"));
    EXPECT_FALSE(opened("sub"));
    g_bTooEarly = false;

    alarm(0);
    close(nReader);
    EXPECT_EQ("old", m_folder.read("outside"));
}

TEST_F(OpenBelow, NoProgramInheritsAFolderOnTheWay)
{
    if (nullptr == &__real_fstatat) {
        GTEST_SKIP() << "the call has another name here";
    }
    g_uInheritable = SIZE_MAX;
    g_bLooks = true;

    EXPECT_TRUE(opened("sub/deep/a"));

    g_bLooks = false;
    EXPECT_EQ(inheritable(), g_uInheritable);
}

TEST_F(OpenBelow, FolderThatIsAFifoIsRefusedAtOnce)
{
    ASSERT_EQ(0, mkfifo(inside("pipe").c_str(), 0666));
    alarm(30); // ends a run that waits for a writer

    EXPECT_EQ(-1, openBelow(inside("pipe").c_str(), "a"));

    alarm(0);
}

TEST_F(OpenBelow, MissingFolderOrBadNameIsRefused)
{
    EXPECT_EQ(-1, openBelow((m_folder.path() / "nowhere").c_str(), "a"));
    EXPECT_FALSE(opened(""));
    EXPECT_FALSE(opened(std::string(256, 'n'))); // NAME_MAX is 255
    EXPECT_FALSE(opened(std::string(256, 'n') + "/a"));
}

TEST_F(OpenBelow, DescriptorZeroIsAsGoodAsAnother)
{
    const int nKept = dup(STDIN_FILENO);
    const size_t uBefore = openDescriptors().size();
    close(STDIN_FILENO);

    EXPECT_TRUE(opened("a"));
    EXPECT_TRUE(opened("sub/b"));

    const bool bLeftOpen = -1 != fcntl(STDIN_FILENO, F_GETFD);
    dup2(nKept, STDIN_FILENO);
    EXPECT_FALSE(bLeftOpen);
    EXPECT_EQ(uBefore, openDescriptors().size());
    close(nKept);
}

TEST_F(OpenBelow, NoDescriptorIsLeftOpen)
{
    const size_t uBefore = openDescriptors().size();

    for (const char* pName : {"sub/deep/a", "sub/deep/../../../a", "sub/missing/a", "sub/deep/"}) {
        (void)opened(pName);
    }
    unsigned uCall = 0;
    for (bool bFailed = true; bFailed;) { // each allocation in turn
        FaultScope fault(("malloc:" + std::to_string(++uCall) + ":ENOMEM").c_str());
        try {
            (void)opened("sub/deep/a");
        } catch (const std::bad_alloc&) {
        }
        bFailed = 0 != faultHits();
    }
    EXPECT_LT(2u, uCall); // the list of the folders grew

    EXPECT_EQ(uBefore, openDescriptors().size());
}

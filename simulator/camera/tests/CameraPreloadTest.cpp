// The preloaded library leaves what it is loaded into alone.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "VideoClient.h"
#include "VirtualCamera.h"

// What fortified builds call instead of the plain names.
// NOLINTBEGIN(bugprone-reserved-identifier, readability-identifier-naming)
extern "C" {
int __open_2(const char* pPath, int nFlags);
int __open64_2(const char* pPath, int nFlags);
int __openat_2(int nDir, const char* pPath, int nFlags);
}
// NOLINTEND(bugprone-reserved-identifier, readability-identifier-naming)

namespace {

const char* const LIST = "/proc/bus/input/devices";

size_t entries(const char* pFolder)
{
    size_t uCount = 0;
    for (const auto& entry : std::filesystem::directory_iterator(pFolder)) {
        (void)entry;
        ++uCount;
    }
    return uCount;
}

size_t descriptors()
{
    return entries("/proc/self/fd");
}

/** Run a shell command, with the library preloaded or not; what it printed. */
std::string shell(const std::string& strCommand, bool bPreloaded = true)
{
    if (bPreloaded) {
        setenv("LD_PRELOAD", KESTREL_CAMERA_LIBRARY, 1);
    }
    FILE* pPipe = popen(strCommand.c_str(), "re");
    unsetenv("LD_PRELOAD");
    std::string strOutput;
    for (int c = 0; EOF != (c = fgetc(pPipe));) {
        strOutput += static_cast<char>(c);
    }
    EXPECT_EQ(0, pclose(pPipe)) << strCommand;
    return strOutput;
}

bool hasCamera(int nFd)
{
    char acText[4096] = {};
    const ssize_t nRead = read(nFd, acText, sizeof(acText) - 1);
    close(nFd);
    return nRead > 0 && nullptr != strstr(acText, "05a3");
}

} // namespace

TEST(CameraPreload, OpenTakesOneDescriptorAndNoThread)
{
    VirtualCamera camera;
    const size_t uDescriptors = descriptors();
    const size_t uThreads = entries("/proc/self/task");
    {
        VideoClient client;
        ASSERT_EQ(0, client.startStreaming());
        v4l2_buffer buffer{};
        ASSERT_TRUE(client.readable(30000));
        ASSERT_EQ(0, client.dequeue(buffer));

        EXPECT_EQ(uDescriptors + 1, descriptors());
        EXPECT_EQ(uThreads, entries("/proc/self/task"));
    }

    EXPECT_EQ(uDescriptors, descriptors());
}

TEST(CameraPreload, UseAllocatesNothing)
{
    VirtualCamera camera;
    const auto use = [] {
        VideoClient client; // has two vectors, which it gives back
        EXPECT_EQ(0, client.startStreaming());
        v4l2_buffer buffer{};
        EXPECT_TRUE(client.readable(30000));
        EXPECT_EQ(0, client.dequeue(buffer));
    };
    use(); // symbols are looked up once

    const size_t uBefore = allocatedBytes();
    use();

    EXPECT_EQ(uBefore, allocatedBytes());
}

TEST(CameraPreload, WorksFromOtherNamespaces)
{
    // Whoever is not root needs a user namespace too.
    const std::string strUnshare = (0 == geteuid()) ? "unshare -m -n " : "unshare -r -m -n ";
    ASSERT_EQ(0, system((strUnshare + "true").c_str()));
    VirtualCamera camera;

    (void)shell(strUnshare + "sh -c 'exec 3<>/dev/video0' 2>&1");

    EXPECT_EQ(1u, camera.count("open flags="));
}

TEST(CameraPreload, RepeatedOpensLeaveNothingMapped)
{
    VirtualCamera camera;
    const auto mappings = [] {
        std::ifstream maps("/proc/self/maps");
        size_t uCount = 0;
        for (std::string strLine; std::getline(maps, strLine);) {
            uCount += std::string::npos != strLine.find("/kestrel-test-") ? 1 : 0;
        }
        return uCount;
    };

    for (int i = 0; i < 50; ++i) {
        VideoClient client;
        ASSERT_EQ(0, client.startStreaming());
        EXPECT_EQ(3u, mappings());
    }

    EXPECT_EQ(0u, mappings());
    EXPECT_TRUE(camera.waitForCalls("close", 50));
}

TEST(CameraPreload, CloseOnExecAndBlockingAreAsAskedFor)
{
    VirtualCamera camera;
    VideoClient plain(O_RDWR);
    VideoClient both(O_RDWR | O_NONBLOCK | O_CLOEXEC);

    EXPECT_EQ(0, fcntl(plain.descriptor(), F_GETFD));
    EXPECT_EQ(FD_CLOEXEC, fcntl(both.descriptor(), F_GETFD));
    EXPECT_EQ(O_RDWR, fcntl(plain.descriptor(), F_GETFL));
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(both.descriptor(), F_GETFL));
}

TEST(CameraPreload, EveryWayOfOpeningReachesTheCamera)
{
    VirtualCamera camera;
    const std::vector<int> vecFd = {
        open64("/dev/video0", O_RDWR),
        openat(AT_FDCWD, "/dev/video0", O_RDWR),
#ifdef __GLIBC__ // the checked forms
        __open_2("/dev/video0", O_RDWR),
        __open64_2("/dev/video0", O_RDWR),
        __openat_2(AT_FDCWD, "/dev/video0", O_RDWR),
#endif
    };

    for (const int nFd : vecFd) {
        EXPECT_GE(nFd, 0);
        close(nFd);
    }
    EXPECT_EQ(vecFd.size(), camera.count("open flags=O_RDWR = 0"));
}

TEST(CameraPreload, EveryWayOfReadingTheListShowsTheCamera)
{
    VirtualCamera camera;

    EXPECT_TRUE(hasCamera(open(LIST, O_RDONLY)));
    EXPECT_TRUE(hasCamera(open64(LIST, O_RDONLY)));
    EXPECT_TRUE(hasCamera(openat(AT_FDCWD, LIST, O_RDONLY)));
#ifdef __GLIBC__
    EXPECT_TRUE(hasCamera(__open_2(LIST, O_RDONLY)));
#endif
    for (FILE* pFile : {fopen(LIST, "r"), fopen64(LIST, "r")}) {
        ASSERT_NE(nullptr, pFile);
        EXPECT_TRUE(hasCamera(dup(fileno(pFile))));
        fclose(pFile);
    }
    EXPECT_TRUE(camera.readJournal().empty());
}

TEST(CameraPreload, ChildrenThatDoNotUseTheCameraLeaveNoTrace)
{
    VirtualCamera camera;

    const std::string strLook = "ls /proc/self/fd; ls /proc/self/task | wc -l";

    EXPECT_EQ(shell(strLook, false), shell(strLook));
    EXPECT_NE(std::string::npos, shell(std::string("cat ") + LIST).find("05a3"));
    EXPECT_TRUE(camera.readJournal().empty());
}

TEST(CameraPreload, ForkedChildsCloseLeavesTheCameraOpen)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    const pid_t pid = fork();
    if (0 == pid) {
        close(client.descriptor());
        _exit(0);
    }
    ASSERT_EQ(pid, waitpid(pid, nullptr, 0));

    v4l2_buffer buffer{};
    ASSERT_TRUE(client.readable(30000));
    EXPECT_EQ(0, client.dequeue(buffer));
    EXPECT_EQ(0u, camera.count("close"));
}

TEST(CameraPreload, KilledProcessGivesTheCameraBack)
{
    VirtualCamera camera;
    const pid_t pid = fork();
    if (0 == pid) {
        VideoClient client;
        (void)client.startStreaming();
        _exit(7);
    }
    int nStatus = 0;
    ASSERT_EQ(pid, waitpid(pid, &nStatus, 0));

    VideoClient client;
    int nError = EBUSY;
    for (int i = 0; i < 3000 && EBUSY == nError; ++i) {
        nError = client.requestBuffers(2);
        usleep(10000);
    }

    EXPECT_EQ(0, nError);
}

TEST(CameraPreload, DescriptorClosedBehindItsBackIsNobodys)
{
    VirtualCamera camera;
    const VideoClient client; // closes the other one at its end
    const int nFd = client.descriptor();

    syscall(SYS_close, nFd);
    const int nOther = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_EQ(nFd, nOther);

    struct stat status = {};
    EXPECT_EQ(0, fstat(nOther, &status));
    EXPECT_EQ(makedev(1, 3), status.st_rdev);
    v4l2_capability cap{};
    EXPECT_EQ(-1, ioctl(nOther, VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(0u, camera.count("QUERYCAP"));
}

TEST(CameraPreload, MappingOfADescriptorClosedBehindItsBackCanBeUndone)
{
    VirtualCamera camera;
    VideoClient lost;
    ASSERT_EQ(0, lost.requestBuffers(2));
    ASSERT_EQ(0, lost.mapBuffers(2));
    syscall(SYS_close, lost.descriptor());

    const VideoClient next;
    ASSERT_EQ(lost.descriptor(), next.descriptor());

    EXPECT_EQ(0, lost.unmapBuffers());
    EXPECT_EQ(0u, camera.count("munmap"));
}

TEST(CameraPreload, WithoutTheVariableEverythingIsHandedOn)
{
    struct stat status = {};

    const int nResult = stat("/dev/video0", &status);

    EXPECT_EQ(syscall(SYS_faccessat, AT_FDCWD, "/dev/video0", F_OK), nResult);
}

TEST(CameraPreload, SixteenOpensAreTheMost)
{
    VirtualCamera camera;
    std::vector<std::unique_ptr<VideoClient>> vecClient;
    for (int i = 0; i < 16; ++i) {
        vecClient.push_back(std::make_unique<VideoClient>());
        EXPECT_EQ(0, vecClient.back()->error());
    }

    EXPECT_EQ(EMFILE, VideoClient().error());

    vecClient.pop_back();
    EXPECT_EQ(0, VideoClient().error());
}

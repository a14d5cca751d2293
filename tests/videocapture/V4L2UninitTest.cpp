// Letting one camera go: its mappings and its descriptor, and what is left by a failure.
#include <array>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "Descriptors.h"
#include "Fault.h"
#include "V4L2InitFixture.h"

namespace {

class V4L2Uninit : public V4L2InitFixture
{
protected:
    /** Use thirty cameras, all there until the end, and compare the memory before and after. */
    template <class F> void expectNothingKept(F use)
    {
        std::array<V4L2, 30> arrV4l2;
        for (int i = 0; i < 5; ++i) {
            use(m_v4l2); // what is allocated once
            m_log.clear();
        }

        const size_t uBefore = allocatedBytes();
        for (V4L2& v4l2 : arrV4l2) {
            use(v4l2);
            m_log.clear();
        }

        EXPECT_GT(uBefore + 5000, allocatedBytes()); // thirty tables of 32 have 7,680 or more
    }
};

} // namespace

TEST_F(V4L2Uninit, DeliberateNodeWithoutCapabilitiesStaysOpenUntilUninit)
{
    m_camera.command("fail QUERYCAP EINVAL");

    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));

    EXPECT_EQ(Lines{logged("init", "/dev/video0 is no V4L2 device\n")}, messages());
    EXPECT_EQ(0U, m_camera.count("close"));
    EXPECT_EQ(RET_SUCCESS, m_v4l2.uninit());
    EXPECT_EQ(1U, m_camera.count("close"));
}

TEST_F(V4L2Uninit, MoreBuffersThanAskedForAreAllMapped)
{
    m_camera.command("grant 4");

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));
    EXPECT_EQ(4U, m_camera.count("mmap "));
    EXPECT_EQ(RET_SUCCESS, m_v4l2.uninit());

    EXPECT_EQ(4U, m_camera.count("munmap "));
    EXPECT_EQ(0U, mappedBuffers());
}

TEST_F(V4L2Uninit, InitOfAnOpenCameraBeginsAnew)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));
    const size_t uOpen = openDescriptors().size();

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    EXPECT_EQ(uOpen, openDescriptors().size());
    EXPECT_EQ(2U, mappedBuffers());
}

TEST_F(V4L2Uninit, ObjectReleasesAnOpenCamera)
{
    const size_t uBefore = openDescriptors().size();
    {
        V4L2 other;
        EXPECT_EQ(RET_SUCCESS, other.init(0));
    }

    EXPECT_EQ(uBefore, openDescriptors().size());
    EXPECT_EQ(0U, mappedBuffers());
}

TEST_F(V4L2Uninit, UninitUnmapsAndCloses)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));
    m_camera.clearJournal();

    EXPECT_EQ(RET_SUCCESS, m_v4l2.uninit());

    EXPECT_EQ((Lines{"munmap length=614400 offset=0 = 0", "munmap length=614400 offset=614400 = 0",
                     "close = 0"}),
              m_camera.readJournal());
    EXPECT_EQ(RET_FAILED, m_v4l2.uninit());
}

TEST_F(V4L2Uninit, UninitEndsAtTheFirstMappingThatStays)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));
    m_camera.clearJournal();

    {
        const FaultScope fault("munmap:2:EINVAL");
        EXPECT_EQ(0, fault.result());
        EXPECT_EQ(RET_FAILED, m_v4l2.uninit());
    }

    EXPECT_EQ(Lines{"munmap length=614400 offset=0 = 0"}, m_camera.readJournal());
    EXPECT_EQ(RET_SUCCESS, m_v4l2.uninit()); // goes on where it ended
    EXPECT_EQ((Lines{"munmap length=614400 offset=0 = 0", "munmap length=614400 offset=614400 = 0",
                     "close = 0"}),
              m_camera.readJournal());
}

TEST_F(V4L2Uninit, FailedCloseFailsUninitAndIsNotRepeated)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    {
        const FaultScope fault("close:1:EIO");
        EXPECT_EQ(0, fault.result());
        EXPECT_EQ(RET_FAILED, m_v4l2.uninit());
        EXPECT_EQ(1U, faultHits());
    }

    EXPECT_EQ(RET_FAILED, m_v4l2.uninit());
    EXPECT_EQ(0U, m_camera.count("close"));
}

// Somebody else's by then.
TEST_F(V4L2Uninit, DescriptorOfAFailedInitIsNotClosedAgain)
{
    m_camera.command("fail S_FMT EINVAL");
    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));
    std::vector<int> vecOther; // the camera's number is among them
    for (int i = 0; i < 8; ++i) {
        vecOther.push_back(dup(STDERR_FILENO));
    }

    EXPECT_EQ(RET_FAILED, m_v4l2.uninit());

    for (const int nOther : vecOther) {
        EXPECT_EQ(0, close(nOther));
    }
}

// A service may be started without a standard input.
TEST_F(V4L2Uninit, DescriptorZeroIsAsGoodAsAnother)
{
    PVENC_FRAME_T frame;
    const int nKept = dup(STDIN_FILENO);
    close(STDIN_FILENO);

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));
    EXPECT_NE(-1, fcntl(STDIN_FILENO, F_GETFD)) << "the camera's";
    EXPECT_EQ(RET_SUCCESS, m_v4l2.streamOn());
    EXPECT_EQ(RET_SUCCESS, m_v4l2.getVideoStream(frame, 10000));
    EXPECT_EQ(RET_SUCCESS, m_v4l2.streamOff());
    EXPECT_EQ(RET_SUCCESS, m_v4l2.uninit());
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
    {
        V4L2 other;
        EXPECT_EQ(RET_SUCCESS, other.init(0));
    }
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));

    dup2(nKept, STDIN_FILENO);
    close(nKept);
}

TEST_F(V4L2Uninit, ClosedCameraKeepsNoMemory)
{
    m_camera.command("grant 32 always");

    expectNothingKept([](V4L2& v4l2) {
        EXPECT_EQ(RET_SUCCESS, v4l2.init(0));
        EXPECT_EQ(RET_SUCCESS, v4l2.uninit());
    });
}

TEST_F(V4L2Uninit, FailedInitKeepsNoMemory)
{
    m_camera.command("grant 32 always");
    m_camera.command("fail QUERYBUF EIO always");

    expectNothingKept([](V4L2& v4l2) { EXPECT_EQ(RET_FAILED, v4l2.init(0)); });
}

// The camera as an independent program finds it: v4l2-ctl, with the library preloaded.
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

#include "VirtualCamera.h"

namespace {

class V4l2Ctl : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, system("command -v v4l2-ctl >/dev/null")) << "package v4l-utils";
    }

    /** Run it; what it printed on either stream. */
    static std::string run(const std::string& strOptions)
    {
        return shell("v4l2-ctl " + strOptions);
    }

    static std::string shell(const std::string& strCommand)
    {
        const std::string strPreload = "LD_PRELOAD='" KESTREL_CAMERA_LIBRARY "' timeout 30 ";
        FILE* pPipe = popen((strPreload + strCommand + " 2>&1").c_str(), "re");
        std::string strOutput;
        for (int c = 0; EOF != (c = fgetc(pPipe));) {
            strOutput += static_cast<char>(c);
        }
        const int nStatus = pclose(pPipe);
        EXPECT_NE(124, WEXITSTATUS(nStatus)) << strCommand << " did not end: " << strOutput;
        return strOutput;
    }

    static bool holds(const std::string& strText, const std::string& strPart)
    {
        return std::string::npos != strText.find(strPart);
    }

    static size_t count(const std::string& strText, const std::string& strPart)
    {
        size_t uCount = 0;
        for (size_t uAt = 0; std::string::npos != (uAt = strText.find(strPart, uAt)); ++uAt) {
            ++uCount;
        }
        return uCount;
    }

    static std::string streamed(int nFrames)
    {
        return run("--verbose --stream-mmap=2 --stream-count=" + std::to_string(nFrames));
    }
};

} // namespace

TEST_F(V4l2Ctl, ShowsTheWholeCamera)
{
    VirtualCamera camera;

    const std::string strAll = run("--all");

    EXPECT_TRUE(holds(strAll, "Driver name      : uvcvideo")) << strAll;
    EXPECT_TRUE(holds(strAll, "Device Caps      : 0x04200001"));
    EXPECT_TRUE(holds(strAll, "Video input : 0 (Camera 1: ok)"));
    EXPECT_TRUE(holds(strAll, "Width/Height      : 640/480"));
    EXPECT_TRUE(holds(strAll, "Pixel Format      : 'MJPG' (Motion-JPEG)"));
    EXPECT_TRUE(holds(strAll, "Field             : None"));
    EXPECT_TRUE(holds(strAll, "Frames per second: 30.000 (30/1)"));
    EXPECT_TRUE(holds(strAll, "exposure_auto 0x009a0901 (menu)   : min=0 max=3 default=3 value=3"));
    EXPECT_TRUE(holds(strAll, "1: Manual Mode"));
    EXPECT_TRUE(holds(strAll, "min=1 max=5000 step=1 default=157 value=157 flags=inactive"));
}

TEST_F(V4l2Ctl, ListsFormatsSizesAndIntervals)
{
    VirtualCamera camera;

    const std::string strList = run("--list-formats-ext");

    EXPECT_TRUE(holds(strList, "[0]: 'MJPG' (Motion-JPEG, compressed)")) << strList;
    EXPECT_TRUE(holds(strList, "[1]: 'YUYV' (YUYV 4:2:2)"));
    EXPECT_EQ(2u, count(strList, "Size: Discrete 640x480"));
    EXPECT_EQ(2u, count(strList, "Size: Discrete 1280x720"));
    EXPECT_EQ(4u, count(strList, "Interval: Discrete 0.033s (30.000 fps)"));
    EXPECT_EQ(4u, count(strList, "Interval: Discrete 0.040s (25.000 fps)"));
    EXPECT_EQ(4u, count(strList, "Interval: Discrete 0.067s (15.000 fps)"));
}

TEST_F(V4l2Ctl, SetsExposureAsTheServiceDoes)
{
    VirtualCamera camera;

    const std::string strOutput = shell(
        "sh -c 'v4l2-ctl --set-ctrl=exposure_auto=1;v4l2-ctl --set-ctrl=exposure_absolute=300;"
        "v4l2-ctl --get-ctrl=exposure_auto,exposure_absolute'");

    EXPECT_EQ("exposure_auto: 1 (Manual Mode)\nexposure_absolute: 300\n", strOutput);
    EXPECT_EQ(1u, camera.count("S_EXT_CTRLS which=0x9a0000 count=1 id=0x009a0902 value=300 = 0"));
}

TEST_F(V4l2Ctl, StreamsTheFramesThatWereProduced)
{
    VirtualCamera camera({"--keep", "1000", "--fps", "50"});
    ScratchFolder folder;
    const std::string strFile = (folder.path() / "stream").string();

    const std::string strOutput = run("--stream-mmap=2 --stream-count=30 --stream-to=" + strFile);

    std::string strExpected;
    const std::vector<VirtualCamera::Frame> vecFrame = camera.frames();
    ASSERT_GE(vecFrame.size(), 30u) << strOutput;
    for (size_t i = 0; i < 30; ++i) {
        strExpected += vecFrame[i].strPicture;
    }
    EXPECT_TRUE(strExpected == folder.read("stream"));
}

TEST_F(V4l2Ctl, StreamsUncompressedAtTheLargerSize)
{
    VirtualCamera camera;

    const std::string strOutput = run("--set-fmt-video=width=1280,height=720,pixelformat=YUYV "
                                      "--verbose --stream-mmap=2 --stream-count=2");

    EXPECT_EQ(2u, count(strOutput, "bytesused: 1843200")) << strOutput;
}

TEST_F(V4l2Ctl, CoercesFormatAndRate)
{
    VirtualCamera camera;

    const std::string strFormat = run("--set-fmt-video=width=800,height=600,pixelformat=H264,"
                                      "field=interlaced --get-fmt-video");
    EXPECT_TRUE(holds(strFormat, "640/480")) << strFormat;
    EXPECT_TRUE(holds(strFormat, "'MJPG'"));
    EXPECT_TRUE(holds(strFormat, "Field             : None"));
    EXPECT_TRUE(holds(run("--set-parm=20"), "Frame rate set to 25.000 fps"));
}

TEST_F(V4l2Ctl, EndsWithAnUnplugWhileStreaming)
{
    VirtualCamera camera;
    std::string strOutput;
    std::thread program([&strOutput] { strOutput = streamed(100000); });

    const bool bStreams = camera.waitForCalls("DQBUF type=1 memory=1 = 0", 3);
    camera.command("unplug");
    program.join();

    EXPECT_TRUE(bStreams);
    // It may meet the requeueing, whose error that program does not name.
    EXPECT_TRUE(holds(strOutput, "No such device") || holds(strOutput, "qbuf error")) << strOutput;
    EXPECT_TRUE(holds(run("--all"), "Cannot open device /dev/video0"));
    camera.command("replug");
    EXPECT_EQ(3u, count(streamed(3), "bytesused: "));
}

TEST_F(V4l2Ctl, ScriptUnplugsTheCamera)
{
    ScratchFolder folder;
    folder.write("script", "# as if someone tripped over the cable\n0.5 unplug\n");
    VirtualCamera camera({"--script", (folder.path() / "script").string()});

    const std::string strOutput = streamed(100000);

    // A loaded machine may open it after the unplug only; at the requeueing that program names no
    // error.
    EXPECT_TRUE(holds(strOutput, "No such device") || holds(strOutput, "Cannot open device") ||
                holds(strOutput, "qbuf error"))
        << strOutput;
}

TEST_F(V4l2Ctl, EndsWithAnUnplugBetweenDequeueAndQueue)
{
    VirtualCamera camera;
    camera.command("unplug after dequeue");

    const std::string strOutput = streamed(100);

    EXPECT_EQ(1u, camera.count("DQBUF type=1 memory=1 = 0"));
    EXPECT_EQ(1u, camera.count("QBUF type=1 memory=1 index=0 = -1 ENODEV")) << strOutput;
}

TEST_F(V4l2Ctl, TimesOutOnAFrozenCamera)
{
    VirtualCamera camera;
    camera.command("freeze");

    const std::string strOutput = run("--stream-poll --stream-mmap=2 --stream-count=3");

    EXPECT_TRUE(holds(strOutput, "select timeout")) << strOutput;
}

TEST_F(V4l2Ctl, SeesFailingSteps)
{
    VirtualCamera camera;

    camera.command("fail DQBUF EIO");
    EXPECT_TRUE(holds(streamed(3), "VIDIOC_DQBUF: failed: Input/output error"));
    camera.command("fail DQBUF EAGAIN");
    EXPECT_EQ(3u, count(streamed(3), "bytesused: ")); // it tries again
    EXPECT_EQ(1u, camera.count("DQBUF type=1 memory=1 = -1 EAGAIN"));
    camera.command("fail REQBUFS ENOMEM");
    EXPECT_TRUE(holds(streamed(3), "VIDIOC_REQBUFS"));
    camera.command("fail STREAMON EIO");
    EXPECT_TRUE(holds(streamed(3), "VIDIOC_STREAMON"));
    camera.command("fail mmap ENOMEM");
    EXPECT_EQ(0u, count(streamed(3), "bytesused: ")); // it gives up without a word
    EXPECT_EQ(1u, camera.count("mmap length=614400 prot=READ|WRITE flags=SHARED offset=0 = -1 "
                               "ENOMEM"));
    camera.command("fail open EBUSY");
    EXPECT_TRUE(holds(streamed(3), "Failed to open /dev/video0: Device or resource busy"));
    camera.command("fail stat ENOENT");
    EXPECT_TRUE(holds(streamed(3), "Cannot open device /dev/video0"));
}

TEST_F(V4l2Ctl, SeesFramesOfOddSizes)
{
    VirtualCamera camera;
    camera.command("bytes 0 3"); // which it does not count
    EXPECT_EQ(3u, count(streamed(2), "bytesused: 0 "));
    for (const char* pBytes : {"175", "176"}) {
        camera.command(std::string("bytes ") + pBytes + " always");
        EXPECT_EQ(2u, count(streamed(2), std::string("bytesused: ") + pBytes + " "));
    }
    camera.command("bytes overflow always");
    EXPECT_EQ(2u, count(streamed(2), "bytesused: 614401 "));
}

TEST_F(V4l2Ctl, SeesOneBufferAndAStubbornDriver)
{
    VirtualCamera camera;

    camera.command("grant 1");
    (void)streamed(3);
    EXPECT_EQ(1u, camera.count("REQBUFS count=2 type=1 memory=1 = 0 count=1"));
    camera.command("coerce 30");
    EXPECT_TRUE(holds(run("--set-parm=25"), "Frame rate set to 30.000 fps"));
    camera.command("timeperframe off");
    EXPECT_FALSE(holds(run("--get-parm"), "timeperframe"));
    camera.command("timeperframe on");
    EXPECT_TRUE(holds(run("--get-parm"), "timeperframe"));
}

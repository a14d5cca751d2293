// The video stream while its camera is missing, lost, frozen or broken.
#include <algorithm>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Eventually.h"
#include "FrameConsumer.h"
#include "LogCapture.h"
#include "VideoStreamFixture.h"
#include "VideoStreamProducer.h"
#include "VirtualCamera.h"

namespace {

class VideoStreamProducerLoss : public VideoStreamProducerStream
{
};

} // namespace

TEST_F(VideoStreamProducerLoss, CameraThatComesAfterTheStartIsOpened)
{
    m_camera.command("unplug");
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    start();

    m_camera.command("replug");

    EXPECT_TRUE(m_consumer.waitForMore(2));
}

TEST_F(VideoStreamProducerLoss, LostCameraIsClosedOnceAndOpenedAgainWhenItIsThere)
{
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    m_camera.command("fail DQBUF ENODEV 1 skip 3");
    m_camera.command("fail stat ENOENT 2 skip 1");
    start();

    ASSERT_TRUE(m_camera.waitForCalls("STREAMON ", 2));
    ASSERT_TRUE(m_consumer.waitForMore(3)); // registered all the time

    Lines vecCall = callsFrom("DQBUF type=1 memory=1 = -1 ENODEV");
    vecCall.resize(9);
    EXPECT_EQ((Lines{"DQBUF type=1 memory=1 = -1 ENODEV", "STREAMOFF type=1 = 0",
                     "munmap length=614400 offset=0 = 0", "munmap length=614400 offset=614400 = 0",
                     "close = 0", "stat = -1 ENOENT", "stat = -1 ENOENT", "stat = 0 character",
                     "open flags=O_RDWR|O_NONBLOCK|O_CLOEXEC = 0"}),
              vecCall);
    EXPECT_EQ(1, m_log.count("[debug] [videocapture/V4L2 ] [getVideoStream] [0]VIDIOC_DQBUF "
                             "FAILED(errno:19)!\n"));
}

TEST_F(VideoStreamProducerLoss, CameraThatGoesSlowlyIsOpenedAgainWhenItIsThere)
{
    loseSlowly();

    m_camera.command("replug");

    EXPECT_TRUE(m_consumer.waitForMore(2));
}

TEST_F(VideoStreamProducerLoss, CameraUnderAnotherNumberIsFoundByItsEvent)
{
    loseSlowly();

    m_camera.command("replug video1 event6");

    EXPECT_TRUE(m_consumer.waitForMore(2));
    EXPECT_LE(1U, m_camera.count("open node=1 "));
}

// Its number alone has changed: the event still names the old node.
TEST_F(VideoStreamProducerLoss, CameraUnderAnotherNumberWithItsOldEventIsNotFoundUntilItsReturn)
{
    loseSlowly();

    m_camera.command("replug video1");
    m_camera.clearJournal();

    ASSERT_TRUE(m_camera.waitForCalls("stat = -1 ENOENT", 2));
    EXPECT_EQ(0U, m_camera.count("open "));
    m_camera.command("unplug");
    m_camera.command("replug");

    EXPECT_TRUE(m_consumer.waitForMore(2));
}

TEST_F(VideoStreamProducerLoss, FrozenCameraIsClosedAfterFourTimeouts)
{
    m_camera.command("freeze");
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    start();

    ASSERT_TRUE(m_camera.waitForCalls("close", 1)); // four seconds
    m_camera.command("thaw");

    EXPECT_TRUE(m_consumer.waitForMore(2));
    EXPECT_EQ(0U, m_camera.count("DQBUF type=1 memory=1 = -1"));
    EXPECT_EQ((Lines{"STREAMOFF type=1 = 0", "munmap length=614400 offset=0 = 0",
                     "munmap length=614400 offset=614400 = 0", "close = 0"}),
              [&] {
                  Lines vecCall = callsFrom("STREAMOFF");
                  vecCall.resize(4);
                  return vecCall;
              }());
}

TEST_F(VideoStreamProducerLoss, CameraThatDoesNotStreamIsClosedAndTriedAgain)
{
    m_camera.command("fail STREAMON EIO 2"); // at the start, and at the first recovery
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    start();

    ASSERT_TRUE(m_consumer.waitForMore(2));

    EXPECT_EQ(2U, m_camera.count("STREAMON type=1 = -1 EIO"));
    EXPECT_EQ(1U, m_camera.count("STREAMON type=1 = 0"));
    EXPECT_EQ(3U, m_camera.count("open "));
    EXPECT_EQ(1U, m_camera.count("STREAMOFF")); // when the loss was found, not at each attempt
    // After the second refusal the camera is closed at once.
    Lines vecCall = callsFrom("STREAMOFF");
    vecCall.erase(vecCall.begin(),
                  std::find(vecCall.begin(), vecCall.end(), "STREAMON type=1 = -1 EIO"));
    vecCall.resize(4);
    EXPECT_EQ((Lines{"STREAMON type=1 = -1 EIO", "munmap length=614400 offset=0 = 0",
                     "munmap length=614400 offset=614400 = 0", "close = 0"}),
              vecCall);
}

// One that comes back meanwhile gets its old number only when nobody holds it open.
TEST_F(VideoStreamProducerLoss, CameraIsClosedBeforeEachPause)
{
    const CallJournal journal("select");
    m_camera.command("fail STREAMON EIO 2"); // at the start, and at the first recovery
    start();

    ASSERT_TRUE(eventually([] { return CallJournal::count("select 1.000000") >= 1; }));
    EXPECT_LE(1U, m_camera.count("close"));
    ASSERT_TRUE(eventually([] { return CallJournal::count("select 1.000000") >= 2; }));
    EXPECT_EQ(2U, m_camera.count("close"));
}

TEST_F(VideoStreamProducerLoss, CameraThatIsLostTwiceIsClosedTwice)
{
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    m_camera.command("fail DQBUF ENODEV 1 skip 2");
    start();
    ASSERT_TRUE(m_camera.waitForCalls("STREAMON ", 2));

    m_camera.command("fail DQBUF ENODEV");
    ASSERT_TRUE(m_camera.waitForCalls("STREAMON ", 3));
    ASSERT_TRUE(m_consumer.waitForMore(1));

    EXPECT_EQ(2U, m_camera.count("STREAMOFF type=1 = 0"));
    EXPECT_EQ(2U, m_camera.count("close"));
}

TEST_F(VideoStreamProducerLoss, CameraThatIsLostInTheNextLifeIsClosedLikeTheFirst)
{
    const CallJournal journal("select");
    m_camera.command("unplug");
    start();
    ASSERT_TRUE(eventually([] { return CallJournal::count("select 1.000000") >= 1; }));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop()); // it counts as closed by now
    ASSERT_EQ(RET_SUCCESS, m_producer.uninit());

    m_camera.command("replug");
    m_camera.command("fail DQBUF ENODEV");
    start();
    ASSERT_TRUE(m_camera.waitForCalls("close", 1));

    EXPECT_EQ(1U, m_camera.count("STREAMOFF type=1 = 0"));
}

TEST_F(VideoStreamProducerLoss, NodeThatAnswersNothingIsOpenedAnewEachTime)
{
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    m_camera.command("fail DQBUF ENODEV 1 skip 2");
    m_camera.command("fail QUERYCAP EIO 2 skip 1");
    start();

    ASSERT_TRUE(m_camera.waitForCalls("STREAMON ", 2));
    ASSERT_TRUE(m_consumer.waitForMore(1));

    EXPECT_EQ(4U, m_camera.count("open "));
    EXPECT_EQ(3U, m_camera.count("close"));
    EXPECT_EQ(1U, m_camera.count("STREAMOFF")); // at the loss; not on a node that never streamed
}

TEST_F(VideoStreamProducerLoss, FrameThatIsDroppedDoesNotDisturbTheStream)
{
    m_camera.command("bytes 175 3");
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));

    start();

    EXPECT_TRUE(m_consumer.waitForMore(2));
    EXPECT_EQ(0U, m_camera.count("close"));
    EXPECT_EQ(3, m_log.count("[debug] [videocapture/V4L2 ] [getVideoStream] [0] Ignoring empty "
                             "buffer ...\n"));
}

// The service ends, and its manager starts it again.
TEST_F(VideoStreamProducerLoss, UnplugWithABufferInHandAborts)
{
    m_camera.command("unplug after dequeue");

    EXPECT_DEATH(
        {
            start();
            (void)eventually([] { return false; }); // the capture thread aborts meanwhile
        },
        "int VideoStreamProducer::dispatchThread\\(\\): "
        "Assertion `RET_SUCCESS == m_v4l2->releaseVideoStream\\(\\)' failed.");
}

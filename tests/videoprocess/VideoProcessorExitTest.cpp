// What the vision host leaves behind when the process ends: it dies before everything that it uses.
#include <cstdlib>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "AtExitOrder.h"
#include "EventBus.h"
#include "IdlePrintEvent.h"
#include "Log.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "SetExposureEvent.h"
#include "VideoFrameEvent.h"
#include "VideoProcessor.h"
#include "VisionHost.h"

namespace {

class VideoProcessorExitStarted : public VisionHost
{
protected:
    void publishBehindItsEnd()
    {
        alarm(30); // ends a run in which the handler waits for a frame
        EXPECT_EQ(RET_SUCCESS, m_host.start());
        m_host.~VideoProcessor();

        std::vector<int32_t> vecValue;
        int32_t s32First = 0;
        int32_t s32Second = 0;
        IdlePrintEvent event(&vecValue, &s32First, &s32Second);
        EventBus<IdlePrintEvent>::publish(event);
        _exit(HasFailure() ? 1 : 0);
    }
};

} // namespace

// The first to use any of them is the vision host.
static void exitInOrder()
{
    const void* const pHost = &VideoProcessor::getInstance();
    exit(outlive({&Log::getInstance(), &EventBus<VideoFrameEvent>::getInstance(),
                  &EventBus<IdlePrintEvent>::getInstance(),
                  &EventBus<SetExposureEvent>::getInstance(),
                  &EventBus<MoveLaserEvent>::getInstance(), &EventBus<MeasureEvent>::getInstance()},
                 pHost)
             ? 0
             : 1);
}

TEST(VideoProcessorExit, LogAndEventsThatItUsesOutliveIt)
{
    EXPECT_EXIT(exitInOrder(), testing::ExitedWithCode(0), "");
}

TEST_F(VideoProcessorExitStarted, EventBehindItsEndDoesNotReachIt)
{
    load("test_plugin");

    EXPECT_EXIT(publishBehindItsEnd(), testing::ExitedWithCode(0), "");
}

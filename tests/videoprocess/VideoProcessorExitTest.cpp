// What the vision host leaves behind when the process ends: it dies before everything that it uses.
#include <cstdlib>

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

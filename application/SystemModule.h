// The module for the device side, and the facade through which the HTTP service reaches it.
#pragma once

#include "IModule.h"
#include "VideoFrame.h"

class IConsumer;

/**
 * Runs the capture side's life. The vision host and the print service are reached through it but
 * not started by it.
 *
 * The lifecycle is the main thread's; the other operations may come from any thread. The module
 * keeps no state that needs a lock.
 */
class SystemModule : public IModule
{
public:
    /** Made on first use; outlives whoever called this in its constructor. */
    static SystemModule& getInstance();
    ~SystemModule() override;

    /** The capture side's matching steps and their results; VideoCapturer.h tells more. */
    RET_E initModule() override;
    RET_E startModule() override;
    RET_E stopModule() override;
    RET_E uninitModule() override;

    /** The module has no commands of its own. @return 0 */
    int onDebugCmd(Event* pEvent) override;

    /** Deliver the frames of the consumer's stream to it from now on; VideoCapturer.h tells more.
     */
    RET_E registerConsumer(IConsumer* pConsumer);

    /** After the return the consumer is not called any more. */
    RET_E cancelConsumer(IConsumer* pConsumer);

    /** Run the measuring sequence, which waits for frames; VideoProcessor.h tells more. */
    RET_E measure(float* pResult);

    /** Correct a frame's lens distortion, as far as the vision host can; VideoProcessor.h. */
    void undistort(PVENC_FRAME_T& in, PVENC_FRAME_T& out);

private:
    SystemModule();
};

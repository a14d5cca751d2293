// The module for the device side, and the facade through which the HTTP service reaches it.
#pragma once

#include "IModule.h"
#include "VideoFrame.h"

class IConsumer;

/**
 * Runs the capture side's life. The vision host and the print service are reached through it but
 * not started by it.
 */
class SystemModule : public IModule
{
public:
    /** Made on first use; outlives whoever called this in its constructor. */
    static SystemModule& getInstance();
    ~SystemModule() override;

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

private:
    SystemModule();
};

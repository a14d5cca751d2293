// The module of the device side.
#include "SystemModule.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DebugCmdEvent.h"
#include "EventBus.h"
#include "FrameConsumer.h"
#include "LogCapture.h"
#include "VirtualCamera.h"

namespace {

class SystemModuleCamera : public testing::Test
{
protected:
    ~SystemModuleCamera() override
    {
        if (MODULE_STATUS_RUNNING == m_module.getStatus()) {
            EXPECT_EQ(RET_SUCCESS, m_module.stop());
        }
        if (MODULE_STATUS_STOPPED == m_module.getStatus()) {
            EXPECT_EQ(RET_SUCCESS, m_module.uninit());
        }
    }

    void bringUp()
    {
        ASSERT_EQ(RET_SUCCESS, m_module.init());
        ASSERT_EQ(RET_SUCCESS, m_module.start());
    }

    int debugCommand(const std::vector<const char*>& vecWord)
    {
        const int nCount = static_cast<int>(vecWord.size());
        DebugCmdEvent event(&nCount, vecWord.data());
        return m_module.onDebugCmd(&event);
    }

    VirtualCamera m_camera;
    LogCapture m_log;
    SystemModule& m_module = SystemModule::getInstance();
    FrameConsumer m_consumer;
};

} // namespace

TEST_F(SystemModuleCamera, LifeIsThatOfTheCaptureSide)
{
    ASSERT_EQ(RET_SUCCESS, m_module.init());
    EXPECT_EQ(1U, m_camera.count("open "));
    EXPECT_EQ(0U, m_camera.count("STREAMON "));

    ASSERT_EQ(RET_SUCCESS, m_module.start());
    EXPECT_EQ(1U, m_camera.count("STREAMON "));

    ASSERT_EQ(RET_SUCCESS, m_module.stop());
    EXPECT_EQ(1U, m_camera.count("STREAMOFF "));
    EXPECT_EQ(0U, m_camera.count("close"));

    ASSERT_EQ(RET_SUCCESS, m_module.uninit());
    EXPECT_EQ(1U, m_camera.count("close"));
}

TEST_F(SystemModuleCamera, MissingCameraDoesNotKeepTheModuleDown)
{
    m_camera.command("unplug");

    bringUp();
    ASSERT_EQ(RET_SUCCESS, m_module.registerConsumer(&m_consumer));
    m_camera.command("replug");

    EXPECT_TRUE(m_consumer.waitForMore(1));
    EXPECT_EQ(RET_SUCCESS, m_module.cancelConsumer(&m_consumer));
}

TEST_F(SystemModuleCamera, ConsumersReachTheCaptureSide)
{
    EXPECT_EQ(RET_FAILED, m_module.registerConsumer(&m_consumer));
    bringUp();

    EXPECT_EQ(RET_SUCCESS, m_module.registerConsumer(&m_consumer));
    EXPECT_EQ(RET_FAILED, m_module.registerConsumer(&m_consumer));
    EXPECT_TRUE(m_consumer.waitForMore(2));
    EXPECT_EQ(RET_SUCCESS, m_module.cancelConsumer(&m_consumer));
    EXPECT_EQ(RET_FAILED, m_module.cancelConsumer(&m_consumer));
}

TEST_F(SystemModuleCamera, WithoutThePluginNothingIsMeasuredOrCorrected)
{
    bringUp();
    ASSERT_EQ(RET_SUCCESS, m_module.registerConsumer(&m_consumer));
    ASSERT_TRUE(m_consumer.waitForMore(1));
    ASSERT_EQ(RET_SUCCESS, m_module.cancelConsumer(&m_consumer));
    PVENC_FRAME_T in = m_consumer.frames().back();
    PVENC_FRAME_T out;
    float fResult = 3;

    EXPECT_EQ(RET_FAILED, m_module.measure(&fResult));
    m_module.undistort(in, out);

    EXPECT_EQ(0.0F, fResult);
    EXPECT_EQ(in.get(), out.get());
}

TEST_F(SystemModuleCamera, DebugCommandsAreAcceptedAndDoNothing)
{
    EXPECT_EQ(0, debugCommand({"shell"}));
    EXPECT_EQ(0, debugCommand({"shell", "SystemModule"}));
    EXPECT_EQ(0, debugCommand({"shell", "OtherModule"}));
    EXPECT_EQ(0, debugCommand({"SystemModule", "SystemModule", "anything"}));

    EXPECT_EQ(std::vector<std::string>{}, m_log.lines());
    EXPECT_EQ(std::vector<std::string>{}, m_camera.readJournal());
}

TEST_F(SystemModuleCamera, ProcessMayExitWhileTheModuleRuns)
{
    EXPECT_EXIT(
        {
            bringUp();
            const bool bFrames = m_camera.waitForCalls("DQBUF ", 3);
            exit(bFrames ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

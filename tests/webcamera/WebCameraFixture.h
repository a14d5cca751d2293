// The server with real clients.
#pragma once

#include <csignal>
#include <cstddef>

#include <gtest/gtest.h>

#include "CommucationModule.h"
#include "Descriptors.h"
#include "Eventually.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "WebCameraPeer.h"

/** The module up and running. */
class WebCameraFixture : public testing::Test
{
protected:
    static constexpr const char* LIVE = "GET /live HTTP/1.1\r\n\r\n";
    static constexpr size_t LIVE_HEADER_SIZE = 281;

    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN); // as main does
        FakeSystem::reset();
        ASSERT_EQ(RET_SUCCESS, m_module.init());
        ASSERT_EQ(RET_SUCCESS, m_module.start());
        Peer first; // what the first use opens
        first.send("garbage\r\n\r\n");
        first.readToEnd();                             // the service has closed its end too
        m_uDescriptors = openDescriptors().size() - 1; // without the first peer's
    }
    void TearDown() override
    {
        EXPECT_TRUE(eventually([this] { return m_uDescriptors >= openDescriptors().size(); }));
        EXPECT_EQ(0u, FakeSystem::consumerCount());
        EXPECT_EQ(RET_SUCCESS, m_module.stop());
        EXPECT_EQ(RET_SUCCESS, m_module.uninit());
    }

    CommucationModule& m_module = CommucationModule::getInstance();
    LogCapture m_log;
    size_t m_uDescriptors = 0;
};

// A connection without its server.
#pragma once

#include <gtest/gtest.h>

#include "Connection.h"
#include "FakeSystem.h"
#include "LogCapture.h"

class WebCameraClientFixture : public testing::Test
{
protected:
    void SetUp() override
    {
        FakeSystem::reset();
    }

    LogCapture m_log;
    Connection m_connection;
};

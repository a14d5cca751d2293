// A print service whose controller and codec are the test's own, so that nothing else sets a pace.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "CodecCalls.h"
#include "Eventually.h"
#include "PrintTest.h"
#include "PtyController.h"

class PrintServiceCallFixture : public FreshPrintTest
{
protected:
    void SetUp() override
    {
        begin(m_controller.m_uart);
        CodecCalls::s_vecIdleReport.clear();
        CodecCalls::s_uLongestReply = 0;
    }

    void startJob(const std::string& strJob)
    {
        m_folder.write("tmp.gcode", strJob);
        EXPECT_EQ(0, service().startPrint());
    }

    /** Wait until the job's thread has made so many of the calls that are noted. */
    static bool waitForCalls(size_t uCalls)
    {
        return eventually([uCalls] { return CallJournal::lines("printservice").size() >= uCalls; });
    }

    /** Whether a call was made, by any thread. */
    static bool wasCalled(const std::string& strLine)
    {
        return 0 < CallJournal::count(strLine);
    }

    std::string readOf64() const
    {
        return "read " + std::to_string(m_controller.m_uart.getFd()) + " 64";
    }

    std::string write(size_t uBytes) const
    {
        return "write " + std::to_string(m_controller.m_uart.getFd()) + " " +
               std::to_string(uBytes);
    }

    PtyController m_controller;
};

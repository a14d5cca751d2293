// A print service with a job, on the virtual controller.
#pragma once

#include "PrintTest.h"

class PrintJobFixture : public PrintTest
{
protected:
    /** A job of numbered moves. */
    static std::string makeJob(int nLines)
    {
        std::string strJob;
        for (int i = 1; i <= nLines; ++i) {
            strJob += makeLine(i) + "\n";
        }
        return strJob;
    }

    static std::string makeLine(int nNumber)
    {
        return "G1 X" + std::to_string(nNumber % 100) + " Y" + std::to_string(nNumber % 7) +
               " F60000";
    }

    bool waitForWire(const std::string& strBytes)
    {
        return eventually([&] { return strBytes == m_controller.readReceivedBytes(); });
    }

    /** Start the next job without the wait of saveGcode(). */
    void startJob(const std::string& strJob)
    {
        m_folder.write("tmp.gcode", strJob);
        EXPECT_EQ(0, service().startPrint());
    }
};

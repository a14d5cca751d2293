// An arm that does damage when something goes wrong.
#pragma once

#include <algorithm>
#include <string>

#include "Eventually.h"
#include "LogCapture.h"
#include "PrintTest.h"

/** An arm at its real speed, with its reset line and without a care for the laser. */
class PrintServiceHazardFixture : public PrintTest
{
protected:
    explicit PrintServiceHazardFixture(const Texts& vecHabit = {"--alarm-keeps-laser",
                                                                "--hold-keeps-laser",
                                                                "--reset-laser-on"})
        : PrintTest(makeOptions(vecHabit))
    {
    }

    static Texts makeOptions(Texts vecOption)
    {
        vecOption.insert(vecOption.end(), {"--gpio", "/sys/class/gpio", "--boot-ms", "100"});
        return vecOption;
    }

    /** The laser on, then moves of 0.2 s each. */
    static std::string makeMoves(int nMoves)
    {
        std::string strJob = "M3 S100\n";
        for (int i = 0; i < nMoves; ++i) {
            strJob += (0 == i % 2) ? "G1 X20 F6000\n" : "G1 X0 F6000\n";
        }
        return strJob;
    }

    void startJob(const std::string& strJob)
    {
        saveJob(strJob);
        EXPECT_EQ(0, service().startPrint());
    }

    bool isLaserOn()
    {
        return 1 == m_controller.getState("laser");
    }

    bool isMoving()
    {
        return 1 == m_controller.getState("moving");
    }

    bool waitUntilDark()
    {
        return eventually([this] { return !isLaserOn(); });
    }

    bool waitUntilStill()
    {
        return eventually([this] { return !isMoving(); });
    }

    bool hasReceived(const std::string& strLine)
    {
        const Texts vecLine = received();
        return vecLine.end() != std::find(vecLine.begin(), vecLine.end(), strLine);
    }

    /** Wait until the job's thread has stopped itself. */
    bool waitForThread()
    {
        return eventually([this] { return contains(m_log.text(), "stop thread by myself"); });
    }

    LogCapture m_log;
};

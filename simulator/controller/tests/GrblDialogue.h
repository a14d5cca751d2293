// A dialogue with the virtual controller in Grbl 1.1, by a clock of the test's own.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "GrblController.h"

/** The controller has been powered up and its greeting read when a test begins. */
class GrblDialogue : public testing::Test
{
protected:
    static constexpr int64_t MS = 1000; // microseconds

    GrblDialogue() : m_controller({}, m_journal)
    {
        m_controller.setTrigger([this](const std::string& strCommand) {
            EXPECT_TRUE(m_controller.runCommand(strCommand, m_s64Now));
        });
    }

    /** Power-up over, greeting read. */
    void SetUp() override
    {
        wait(100 * MS);
    }

    std::string wait(int64_t s64Us)
    {
        m_s64Now += s64Us;
        m_controller.advance(m_s64Now);
        std::string strAll;
        for (std::string strText; m_controller.takeAnswer(m_s64Now, strText);) {
            strAll += strText;
        }
        return strAll;
    }

    void send(const std::string& strBytes)
    {
        m_controller.receive(strBytes, m_s64Now);
    }

    /** Send, and hear what comes within so long. */
    std::string say(const std::string& strBytes, int64_t s64Us = 10 * MS)
    {
        send(strBytes);
        return wait(s64Us);
    }

    /** Laser mode, 300 mm/min of 5 mm/s and the given acceleration. */
    void prepare(double dAcceleration)
    {
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(m_controller.preset(120 + i, dAcceleration));
        }
        ASSERT_TRUE(m_controller.preset(32, 1));
        wait(100 * MS);
    }

    /** The head at 5 mm/s in mid-way with the laser on. */
    void burn(const char* pLaser, double dAcceleration)
    {
        prepare(dAcceleration);
        say(std::string(pLaser) + " S500\nG1 X100 F300\n");
        wait(3000 * MS);
        ASSERT_TRUE(beam().bOn && beam().bMoving);
    }

    const Beam& beam() const
    {
        return m_controller.getBeam().get();
    }

    /** Seconds from s64FromUs until the beam was off. */
    double darkAfter(int64_t s64FromUs)
    {
        return changeAfter(" since=", s64FromUs);
    }

    double stillAfter(int64_t s64FromUs)
    {
        return changeAfter("moving-since=", s64FromUs);
    }

    double changeAfter(const std::string& strField, int64_t s64FromUs)
    {
        const std::string strBeam = m_controller.getBeam().describe(m_s64Now);
        const size_t uPos = strBeam.find(strField);
        return strtod(strBeam.c_str() + uPos + strField.size(), nullptr) -
               static_cast<double>(s64FromUs) / 1e6;
    }

    double x() const
    {
        return m_controller.getPosition()[0];
    }

    static size_t count(const std::string& strText, const std::string& strPart)
    {
        size_t uCount = 0;
        for (size_t uPos = strText.find(strPart); std::string::npos != uPos;
             uPos = strText.find(strPart, uPos + 1)) {
            ++uCount;
        }
        return uCount;
    }

    static bool contains(const std::string& strText, const std::string& strPart)
    {
        return std::string::npos != strText.find(strPart);
    }

    int64_t m_s64Now = 0;
    ControllerJournal m_journal;
    GrblController m_controller;
};

// Lines to the virtual controller and its answers, at times of the test's choice.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "Controller.h"

const int64_t MS = 1000;

class ControllerDialogue : public testing::Test
{
protected:
    explicit ControllerDialogue(const ControllerSettings& settings = {})
        : m_controller(settings, m_journal)
    {
        m_controller.setTrigger([this](const std::string& strCommand) {
            if ("unplug" == strCommand) {
                m_controller.dropWire();
            } else {
                EXPECT_TRUE(m_controller.runCommand(strCommand, m_s64Now));
            }
        });
    }

    /** Send bytes and collect the answers that are due, each write marked by a bar. */
    std::string say(const std::string& strBytes)
    {
        m_controller.receive(strBytes, m_s64Now);
        return wait(0);
    }

    std::string wait(int64_t s64Us)
    {
        m_s64Now += s64Us;
        m_controller.advance(m_s64Now);
        std::string strAll;
        for (std::string strText; m_controller.takeAnswer(m_s64Now, strText);) {
            strAll += strText + "|";
        }
        return strAll;
    }

    bool runCommand(const std::string& strCommand)
    {
        return m_controller.runCommand(strCommand, m_s64Now);
    }

    const Beam& beam() const
    {
        return m_controller.getBeam().get();
    }

    bool isHomed() const
    {
        return std::string::npos != m_controller.describe().find(" homed=1");
    }

    int64_t m_s64Now = 0;
    ControllerJournal m_journal;
    Controller m_controller;
};

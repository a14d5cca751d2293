// The arm of the system module's tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Log.h"
#include "ScratchFolder.h"
#include "SystemModule.h"
#include "VirtualController.h"

/** A controller under its real names, and a scratch working directory. */
class Arm
{
public:
    using Texts = std::vector<std::string>;

    explicit Arm(const Texts& vecOption = {}, const std::string& strNode = "/dev/ttyACM0")
        : m_controller(withNode(vecOption, strNode))
    {
        Log::getInstance().setSinks(0); // standard output is the service's own here
        EXPECT_EQ(0, chdir(m_folder.path().c_str()));
        testing::internal::CaptureStdout();
    }
    Arm(const Arm&) = delete;
    Arm& operator=(const Arm&) = delete;
    ~Arm()
    {
        (void)output();
        EXPECT_EQ(0, chdir("/"));
    }

    std::string output()
    {
        return std::exchange(m_bCapturing, false) ? testing::internal::GetCapturedStdout()
                                                  : std::string();
    }

    ScratchFolder m_folder;
    VirtualController m_controller;
    SystemModule& m_module = SystemModule::getInstance();

private:
    static Texts withNode(Texts vecOption, const std::string& strNode)
    {
        vecOption.insert(vecOption.end(),
                         {"--node", strNode, "--gpio", "/sys/class/gpio", "--speed-up", "1000"});
        return vecOption;
    }

    bool m_bCapturing = true;
};

// The vision host in a folder of its own, with frames from the virtual camera.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ExposureTool.h"
#include "LogCapture.h"
#include "ScratchFolder.h"
#include "TestPlugin.h"
#include "VideoCapturer.h"
#include "VideoProcessor.h"
#include "VirtualCamera.h"

/** Fixture; the working directory is the scratch folder, without a plug-in at first. */
class VisionHost : public testing::Test
{
protected:
    VisionHost();
    ~VisionHost() override;

    /**
     * Put a plug-in into the working directory and have the host load it.
     * @param strName  a target of CMakeLists.txt, e.g. "test_plugin"
     */
    void load(const std::string& strName);

    /** The loaded plug-in's record of calls. */
    TestPlugin& plugin() const;

    /** Have the capture thread deliver frames. */
    void startCapture();

    /** Lines of the vision host itself. */
    std::vector<std::string> messages() const;

    /**
     * The number of the camera's frame with this payload.
     * @return 0 when the camera did not produce it
     */
    uint32_t numberOf(const void* pData, size_t uSize) const;

    ScratchFolder m_folder;
    ExposureTool m_tool; // no exposure reaches a camera of this machine
    VirtualCamera m_camera{{"--keep", "1000"}};
    LogCapture m_log;
    VideoProcessor& m_host = VideoProcessor::getInstance();

private:
    std::filesystem::path m_before;
};
